/* SPDX-License-Identifier: Apache-2.0 */
/* sdbus - D-Bus through sd-bus, as its manual pages advise: by an address that starts with "bus:"
   through a dbus-daemon, by one that starts with "peer:" from peer to peer. Answers and events
   carry an array of bytes, the cheapest type of D-Bus. sd-bus has no blocking read: it waits in
   ppoll, in sd_bus_call and sd_bus_wait, or leaves the descriptor to the program's epoll. */
#include "benchmarks/harness.h"

#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>
#include <unistd.h>

using namespace bench;

static constexpr char service_name[] = "bench.Service";
static constexpr char object_path[] = "/bench";
static constexpr char interface_name[] = "bench.Interface";
static constexpr const char *method_names[] = {"GetCapabilities", "GetPmCounters", "Subscribe"};

static constexpr std::string_view bus_prefix = "bus:";

static void check(int result, const char *what)
{
    if (result < 0)
        fail(std::string(what) + ": " + std::strerror(-result));
}

namespace
{

struct endpoint {
    bool through_daemon;
    std::string path;
};

} // namespace

static endpoint parse(const std::string &address)
{
    return {address.starts_with(bus_prefix), address.substr(address.find(':') + 1)};
}

static sd_bus *connect_bus(const endpoint &to)
{
    sd_bus *bus = nullptr;
    check(sd_bus_new(&bus), "sd_bus_new");
    check(sd_bus_set_address(bus, ("unix:path=" + to.path).c_str()), "sd_bus_set_address");
    check(sd_bus_set_bus_client(bus, to.through_daemon), "sd_bus_set_bus_client");
    check(sd_bus_start(bus), "sd_bus_start");
    return bus;
}

static sd_bus_message *make_call(sd_bus *bus, bool through_daemon, request_kind kind)
{
    static constexpr char payload[largest_size] = {};
    sd_bus_message *message = nullptr;
    check(sd_bus_message_new_method_call(bus, &message, through_daemon ? service_name : nullptr,
                                         object_path, interface_name,
                                         method_names[static_cast<size_t>(kind)]),
          "sd_bus_message_new_method_call");
    check(sd_bus_message_append_array(message, 'y', payload, request_size(kind) - 4),
          "sd_bus_message_append_array");
    return message;
}

namespace
{

class sdbus_client : public client
{
  public:
    sdbus_client(const std::string &address, waiting how)
        : to_(parse(address)), bus_(connect_bus(to_)),
          epoll_(how == waiting::in_epoll ? watch(sd_bus_get_fd(bus_)) : -1)
    {
    }

    ~sdbus_client() override
    {
        if (epoll_ != -1)
            close(epoll_);
        sd_bus_flush_close_unref(bus_);
    }

    void call(request_kind kind) override
    {
        if (epoll_ != -1)
            return client::call(kind);
        sd_bus_message *message = make_call(bus_, to_.through_daemon, kind);
        sd_bus_message *answer = nullptr;
        check(sd_bus_call(bus_, message, 0, nullptr, &answer), "sd_bus_call");
        sd_bus_message_unref(message);
        read(answer);
        sd_bus_message_unref(answer);
    }

    void send(request_kind kind) override
    {
        sd_bus_message *message = make_call(bus_, to_.through_daemon, kind);
        check(sd_bus_call_async(bus_, nullptr, message, take_answer, this, 0), "sd_bus_call_async");
        sd_bus_message_unref(message);
    }

    void receive() override
    {
        while (taken_ == 0) {
            const int worked = sd_bus_process(bus_, nullptr);
            check(worked, "sd_bus_process");
            if (worked == 0 && taken_ == 0)
                wait();
        }
        taken_--;
    }

    /* From here on receive() waits for events. */
    void subscribe()
    {
        check(sd_bus_match_signal(bus_, nullptr, nullptr, object_path, interface_name, "Event",
                                  take_answer, this),
              "sd_bus_match_signal");
        if (!to_.through_daemon)
            call(request_kind::subscribe);
    }

  private:
    void wait()
    {
        if (epoll_ == -1) {
            check(sd_bus_wait(bus_, UINT64_MAX), "sd_bus_wait");
            return;
        }
        check(sd_bus_flush(bus_), "sd_bus_flush");
        await_ready(epoll_);
    }

    static void read(sd_bus_message *message)
    {
        const void *payload;
        size_t size;
        check(sd_bus_message_read_array(message, 'y', &payload, &size),
              "sd_bus_message_read_array");
    }

    static int take_answer(sd_bus_message *message, void *self, sd_bus_error *)
    {
        read(message);
        static_cast<sdbus_client *>(self)->taken_++;
        return 0;
    }

    endpoint to_;
    sd_bus *bus_;
    int epoll_;
    uint32_t taken_ = 0;
};

} // namespace

static std::unique_ptr<client> connect(const std::string &address, waiting how)
{
    return std::make_unique<sdbus_client>(address, how);
}

static void subscribe(const std::string &address, waiting how, receipts &record)
{
    sdbus_client connection(address, how);
    connection.subscribe();
    record.note_ready();
    for (;;) {
        connection.receive();
        record.note_receipt();
    }
}

namespace
{

/* One event loop; from peer to peer each client has a connection of its own. */
struct server {
    board &events;
    sd_event *loop = nullptr;
    sd_bus *daemon = nullptr;
    std::vector<sd_bus *> subscribers;
};

} // namespace

static int answer_with(sd_bus_message *request, request_kind kind)
{
    static constexpr char payload[largest_size] = {};
    sd_bus_message *answer = nullptr;
    check(sd_bus_message_new_method_return(request, &answer), "sd_bus_message_new_method_return");
    check(sd_bus_message_append_array(answer, 'y', payload, answer_size(kind) - 4),
          "sd_bus_message_append_array");
    const int result = sd_bus_send(nullptr, answer, nullptr);
    sd_bus_message_unref(answer);
    return result;
}

static int get_capabilities(sd_bus_message *request, void *, sd_bus_error *)
{
    return answer_with(request, request_kind::capabilities);
}

static int get_pm_counters(sd_bus_message *request, void *, sd_bus_error *)
{
    return answer_with(request, request_kind::pm_counters);
}

static int subscribe_peer(sd_bus_message *request, void *self, sd_bus_error *)
{
    static_cast<server *>(self)->subscribers.push_back(sd_bus_message_get_bus(request));
    return answer_with(request, request_kind::subscribe);
}

static const sd_bus_vtable vtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("GetCapabilities", "ay", "ay", get_capabilities, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetPmCounters", "ay", "ay", get_pm_counters, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Subscribe", "ay", "ay", subscribe_peer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL("Event", "ay", 0),
    SD_BUS_VTABLE_END};

static void add_object(sd_bus *bus, server &self)
{
    check(sd_bus_add_object_vtable(bus, nullptr, object_path, interface_name, vtable, &self),
          "sd_bus_add_object_vtable");
    check(sd_bus_attach_event(bus, self.loop, 0), "sd_bus_attach_event");
}

static void emit(sd_bus *bus)
{
    static constexpr char payload[largest_size] = {};
    sd_bus_message *message = nullptr;
    check(sd_bus_message_new_signal(bus, &message, object_path, interface_name, "Event"),
          "sd_bus_message_new_signal");
    check(sd_bus_message_append_array(message, 'y', payload, event_size - 4),
          "sd_bus_message_append_array");
    sd_bus_send(bus, message, nullptr);
    sd_bus_message_unref(message);
}

static int notify_subscribers(sd_event_source *, int, uint32_t, void *data)
{
    server &self = *static_cast<server *>(data);
    for (uint32_t count = self.events.take(); count > 0; count--)
        if (self.daemon != nullptr)
            emit(self.daemon);
        else
            for (sd_bus *bus : self.subscribers)
                emit(bus);
    return 0;
}

static int remove_peer(sd_bus_message *message, void *data, sd_bus_error *)
{
    std::erase(static_cast<server *>(data)->subscribers, sd_bus_message_get_bus(message));
    return 0;
}

static int accept_peer(sd_event_source *, int listener, uint32_t, void *data)
{
    server &self = *static_cast<server *>(data);
    const int fd =
        need(accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK), "accept");
    sd_bus *bus = nullptr;
    sd_id128_t id;
    sd_id128_randomize(&id);
    check(sd_bus_new(&bus), "sd_bus_new");
    check(sd_bus_set_fd(bus, fd, fd), "sd_bus_set_fd");
    check(sd_bus_set_server(bus, 1, id), "sd_bus_set_server");
    check(sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus.Local",
                              "/org/freedesktop/DBus/Local", "org.freedesktop.DBus.Local",
                              "Disconnected", remove_peer, &self),
          "sd_bus_match_signal");
    check(sd_bus_start(bus), "sd_bus_start");
    add_object(bus, self);
    return 0;
}

static int listen_for_peers(const std::string &path)
{
    const int fd = need(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0), "socket");
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof(address.sun_path) - 1);
    need(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), path.c_str());
    need(listen(fd, 4096), "listen");
    return fd;
}

static void serve(const std::string &address, board &events)
{
    const endpoint from = parse(address);
    server self = {.events = events, .loop = nullptr, .daemon = nullptr, .subscribers = {}};
    check(sd_event_default(&self.loop), "sd_event_default");
    if (from.through_daemon) {
        self.daemon = connect_bus(from);
        add_object(self.daemon, self);
        check(sd_bus_request_name(self.daemon, service_name, 0), "sd_bus_request_name");
    } else {
        check(sd_event_add_io(self.loop, nullptr, listen_for_peers(from.path), EPOLLIN, accept_peer,
                              &self),
              "sd_event_add_io");
    }
    check(sd_event_add_io(self.loop, nullptr, events.start(), EPOLLIN, notify_subscribers, &self),
          "sd_event_add_io");
    check(sd_event_loop(self.loop), "sd_event_loop");
}

int main(int count, char **words)
{
    return run_system({connect, subscribe, serve}, count, words);
}
