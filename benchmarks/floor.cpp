/* SPDX-License-Identifier: Apache-2.0 */
/* floor - what no service can be below: a bare SOCK_SEQPACKET connection for each client, one epoll
   loop on both sides, and signals of the sizes of ours with nothing in them but their kind. */
#include "benchmarks/harness.h"

#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

using namespace bench;

namespace
{

struct message {
    request_kind kind;
    char rest[largest_size - sizeof(request_kind)];
};

class floor_client : public client
{
  public:
    explicit floor_client(const std::string &address)
        : connection(connect_to(address)), epoll(watch(connection))
    {
    }

    void send(request_kind kind) override
    {
        signal.kind = kind;
        need(static_cast<int>(::send(connection, &signal, request_size(kind), MSG_NOSIGNAL)),
             "send");
    }

    void receive() override
    {
        epoll_event event;
        while (epoll_wait(epoll, &event, 1, -1) != 1) {
        }
        if (recv(connection, &signal, sizeof(signal), MSG_DONTWAIT) <= 0)
            fail("the server is gone");
    }

  private:
    int connection;
    int epoll;
    message signal = {};
};

} // namespace

static std::unique_ptr<client> connect(const std::string &address)
{
    return std::make_unique<floor_client>(address);
}

static void subscribe(const std::string &address, receipts &told)
{
    floor_client connection(address);
    connection.call(request_kind::subscribe);
    told.note_ready();
    for (;;) {
        connection.receive();
        told.note_told();
    }
}

namespace
{

class server
{
  public:
    server(const std::string &address, board &on)
        : events(on), listener(listen_at(address)), epoll(watch(listener)), wakeup(on.start())
    {
        watch_also(epoll, wakeup);
    }

    [[noreturn]] void serve()
    {
        for (;;) {
            epoll_event ready[16];
            const int count = epoll_wait(epoll, ready, std::size(ready), -1);
            for (int index = 0; index < count; index++)
                handle(ready[index].data.fd);
        }
    }

  private:
    void handle(int fd)
    {
        if (fd == listener)
            watch_also(epoll, need(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC), "accept"));
        else if (fd == wakeup)
            tell_subscribers(events.take());
        else
            answer(fd);
    }

    void answer(int fd)
    {
        message signal;
        if (recv(fd, &signal, sizeof(signal), MSG_DONTWAIT) <= 0) {
            std::erase(subscribers, fd);
            close(fd);
            return;
        }
        if (signal.kind == request_kind::subscribe)
            subscribers.push_back(fd);
        send(fd, &signal, answer_size(signal.kind), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    void tell_subscribers(uint32_t count)
    {
        const message signal = {};
        while (count-- > 0)
            for (const int fd : subscribers)
                send(fd, &signal, event_size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    board &events;
    int listener;
    int epoll;
    int wakeup;
    std::vector<int> subscribers;
};

} // namespace

static void serve(const std::string &address, board &events)
{
    server(address, events).serve();
}

int main(int count, char **words)
{
    return run_system({connect, subscribe, serve}, count, words);
}
