/* SPDX-License-Identifier: Apache-2.0 */
/* floor - the bare socket that all systems are compared with: a SOCK_SEQPACKET connection for each
   client, a server with one epoll loop, and signals of the same sizes that hold their kind only. */
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
    floor_client(const std::string &address, waiting how)
        : connection_(connect_to(address)),
          epoll_(how == waiting::in_epoll ? watch(connection_) : -1)
    {
    }

    ~floor_client() override
    {
        if (epoll_ != -1)
            close(epoll_);
        close(connection_);
    }

    void send(request_kind kind) override
    {
        signal_.kind = kind;
        need(static_cast<int>(::send(connection_, &signal_, request_size(kind), MSG_NOSIGNAL)),
             "send");
    }

    void receive() override
    {
        if (epoll_ != -1)
            await_ready(epoll_);
        if (recv(connection_, &signal_, sizeof(signal_), epoll_ != -1 ? MSG_DONTWAIT : 0) <= 0)
            fail("the server is gone");
    }

  private:
    int connection_;
    int epoll_;
    message signal_ = {};
};

} // namespace

static std::unique_ptr<client> connect(const std::string &address, waiting how)
{
    return std::make_unique<floor_client>(address, how);
}

static void subscribe(const std::string &address, waiting how, receipts &record)
{
    floor_client connection(address, how);
    connection.call(request_kind::subscribe);
    record.note_ready();
    for (;;) {
        connection.receive();
        record.note_receipt();
    }
}

namespace
{

class server
{
  public:
    server(const std::string &address, board &on)
        : events_(on), listener_(listen_at(address)), epoll_(watch(listener_)), wakeup_(on.start())
    {
        watch_also(epoll_, wakeup_);
    }

    [[noreturn]] void serve()
    {
        for (;;) {
            epoll_event ready[16];
            const int count = epoll_wait(epoll_, ready, std::size(ready), -1);
            for (int index = 0; index < count; index++)
                handle(ready[index].data.fd);
        }
    }

  private:
    void handle(int fd)
    {
        if (fd == listener_)
            watch_also(epoll_, need(accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC), "accept"));
        else if (fd == wakeup_)
            notify_subscribers(events_.take());
        else
            answer(fd);
    }

    void answer(int fd)
    {
        message signal;
        if (recv(fd, &signal, sizeof(signal), MSG_DONTWAIT) <= 0) {
            std::erase(subscribers_, fd);
            close(fd);
            return;
        }
        if (signal.kind == request_kind::subscribe)
            subscribers_.push_back(fd);
        send(fd, &signal, answer_size(signal.kind), MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    void notify_subscribers(uint32_t count)
    {
        const message signal = {};
        while (count-- > 0)
            for (const int fd : subscribers_)
                send(fd, &signal, event_size, MSG_DONTWAIT | MSG_NOSIGNAL);
    }

    board &events_;
    int listener_;
    int epoll_;
    int wakeup_;
    std::vector<int> subscribers_;
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
