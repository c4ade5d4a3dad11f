/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-module-reader - reads the memories of pluggable modules for tesk-server, which therefore
   needs no special right.

   The process is started with a socket: systemd passes a listening one, other programs a connected
   one as descriptor N. It reads the configuration, opens what it will need, gives up all other
   rights and answers requests, one at a time. It ends with the last client, or when a client
   reports that the configuration was replaced; for the next connection systemd starts it again, and
   it reads the configuration again. With --lease it only writes or removes a file for the board
   library. */
#include "platform/linux_interfaces/module_leases.h"
#include "platform/linux_interfaces/port_config.h"
#include "tesk_module_reader/confinement.h"
#include "tesk_module_reader/known_interfaces.h"
#include "tesk_module_reader/reader_ports.h"
#include "tesk_module_reader/requests.h"
#include "tesk_module_reader/saved_numbers.h"
#include "util/boot_clock.h"
#include "util/descriptor.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <fcntl.h>
#include <getopt.h>
#include <memory>
#include <net/if.h>
#include <optional>
#include <poll.h>
#include <span>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace
{

using module_reader::reader_ports;

enum class task : uint8_t { serve, print_ports, write_ports, lease };

struct options {
    task what = task::serve;
    int connected_fd = -1;
    std::string leased = {}; /* interface */
    int lease_s = 0;
};

/* The source of requests. */
struct endpoint {
    int listener = -1;
    uid_t owner = 0; /* the only user whose processes may connect */
    std::vector<util::descriptor> clients = {};
    bool is_ended = false; /* a client ended it, for another configuration */
};

} // namespace

/* The first socket that systemd passes. */
static constexpr int systemd_socket = 3;

/* tesk-server is the only client; further connections stay in the backlog of the socket. */
static constexpr size_t most_clients = 4;

/* The directory in which the unit stores the numbers of ports; the default for calls by hand. */
static constexpr char default_state[] = "/var/lib/tesk-module-reader";

static constexpr int wrong_usage = 2;

static void print_usage()
{
    fputs("Usage: tesk-module-reader [--fd N | --print-ports | --write-ports |\n"
          "                           --lease INTERFACE SECONDS]\n"
          "\n"
          "Reads the memories of pluggable modules for tesk-server. Started by systemd for the\n"
          "socket /run/tesk-module-reader/socket.\n"
          "\n"
          "  --fd N         serve the connected socket that was inherited as descriptor N\n"
          "  --print-ports  show the configuration that keeps the numbers that the ports have now\n"
          "  --write-ports  put it into /etc/tesk/ports\n"
          "  --lease INTERFACE SECONDS\n"
          "                 let another tool use the module of an interface alone for SECONDS, at\n"
          "                 most 3600; 0 ends the lease\n"
          "  --help         show this text\n"
          "  --version      show the version\n"
          "\n"
          "The ports are those of /etc/tesk/ports, or of the file in DOLM_RIC_PORTS, which must\n"
          "belong to root and be writable by nobody else. Without that file they are all network\n"
          "interfaces whose module can be read.\n",
          stdout);
}

static std::optional<int> parse_number(std::string_view text)
{
    int number = -1;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    if (error != std::errc() || end != text.data() + text.size() || number < 0)
        return std::nullopt;
    return number;
}

/* The seconds are the word after the option's own argument. */
static bool take_lease(int argc, char **argv, options &chosen)
{
    const int seconds = optind < argc ? parse_number(argv[optind]).value_or(-1) : -1;
    if (seconds < 0 || seconds > linux_board::module_leases::longest.count()) {
        fputs("tesk-module-reader: --lease takes an interface and 0 to 3600 seconds, as in "
              "\"--lease eth3 300\"\n",
              stderr);
        return false;
    }
    optind++;
    chosen.what = task::lease;
    chosen.leased = optarg;
    chosen.lease_s = seconds;
    return true;
}

/* Nothing if the process is to end, as after --help; `status` is then its exit status. */
static std::optional<options> parse_options(int argc, char **argv, int &status)
{
    static constexpr option names[] = {{"fd", required_argument, nullptr, 'f'},
                                       {"print-ports", no_argument, nullptr, 'p'},
                                       {"write-ports", no_argument, nullptr, 'w'},
                                       {"lease", required_argument, nullptr, 'l'},
                                       {"help", no_argument, nullptr, 'h'},
                                       {"version", no_argument, nullptr, 'v'},
                                       {}};
    options chosen;
    status = EXIT_SUCCESS;
    for (int name; (name = getopt_long(argc, argv, "", names, nullptr)) != -1;) {
        switch (name) {
        case 'f':
            chosen.connected_fd = parse_number(optarg).value_or(-1);
            if (chosen.connected_fd >= 0)
                continue;
            fprintf(stderr, "tesk-module-reader: --fd takes the number of a descriptor, not %s\n",
                    optarg);
            break;
        case 'p':
            chosen.what = task::print_ports;
            continue;
        case 'w':
            chosen.what = task::write_ports;
            continue;
        case 'l':
            if (take_lease(argc, argv, chosen))
                continue;
            break;
        case 'h':
            print_usage();
            return std::nullopt;
        case 'v':
            puts("tesk-module-reader " TESK_VERSION);
            return std::nullopt;
        default:
            break;
        }
        status = wrong_usage;
        return std::nullopt;
    }
    if (optind < argc) {
        fprintf(stderr, "tesk-module-reader: there is no argument %s; see --help\n", argv[optind]);
        status = wrong_usage;
        return std::nullopt;
    }
    return chosen;
}

/* Nothing if there is no file. An untrusted file counts as one without ports: numbering the ports
   without it would silently give other numbers. */
static std::optional<linux_board::port_config> read_config()
{
    const std::string path = linux_board::port_config_path();
    const util::descriptor file(linux_board::open_port_config(path));
    if (!file && errno == ENOENT)
        return std::nullopt;
    linux_board::port_config config;
    if (!file) {
        config.messages.push_back(path + ": " + strerror(errno));
        config.checksum = linux_board::unread_port_config;
    } else {
        config = linux_board::read_port_config(file.get(), path);
        if (const char *reason = linux_board::reason_not_trusted(file.get())) {
            config.ports.clear();
            config.messages = {path + " " + reason + ": no module is read"};
            config.checksum = linux_board::unread_port_config;
        }
    }
    for (const std::string &message : config.messages)
        fprintf(stderr, "tesk-module-reader: %s\n", message.c_str());
    return config;
}

/* systemd creates the socket file and makes the server's user its owner. */
static uid_t owner_of_socket(int listener)
{
    sockaddr_un address = {};
    socklen_t length = sizeof(address) - 1;
    struct stat status = {};
    if (getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0 ||
        address.sun_family != AF_UNIX || stat(address.sun_path, &status) != 0)
        throw std::system_error(errno, std::generic_category(), "listening socket");
    return status.st_uid;
}

/* The peer of an inherited socket isn't checked: the process that passed the socket has chosen the
   peer. */
static endpoint find_endpoint(const options &chosen)
{
    endpoint found;
    if (chosen.connected_fd >= 0) {
        if (fcntl(chosen.connected_fd, F_SETFD, FD_CLOEXEC) != 0)
            throw std::system_error(errno, std::generic_category(), "descriptor of --fd");
        found.clients.emplace_back(chosen.connected_fd);
        return found;
    }
    const char *count = getenv("LISTEN_FDS");
    const char *process = getenv("LISTEN_PID");
    if (count == nullptr || process == nullptr || std::string_view(count) != "1" ||
        std::to_string(getpid()) != process)
        throw std::runtime_error("there is no socket: start tesk-module-reader.socket, or see "
                                 "--help");
    found.listener = systemd_socket;
    found.owner = owner_of_socket(found.listener);
    return found;
}

/* Writes a line for the first refusals only, since any user can cause them. */
static void report_refusal(uid_t user, uid_t owner)
{
    static constexpr int most_lines = 10;
    static int lines;
    if (lines == most_lines)
        return;
    fprintf(stderr,
            "tesk-module-reader: user %u is not allowed to ask: the socket is for user %u%s\n",
            user, owner, ++lines == most_lines ? "; further refusals are not reported" : "");
}

/* False if no client can be accepted for a while, for example without free descriptors. */
static bool accept_client(endpoint &where)
{
    util::descriptor client(
        accept4(where.listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK));
    if (!client) {
        const bool is_harmless = errno == EAGAIN || errno == ECONNABORTED || errno == EINTR;
        if (!is_harmless && where.clients.empty())
            throw std::system_error(errno, std::generic_category(), "accept");
        return is_harmless;
    }
    ucred peer = {};
    socklen_t length = sizeof(peer);
    if (getsockopt(client.get(), SOL_SOCKET, SO_PEERCRED, &peer, &length) == 0 &&
        peer.uid == where.owner) {
        where.clients.push_back(std::move(client));
        return true;
    }
    client.reset();
    report_refusal(peer.uid, where.owner);
    return true;
}

/* False if the client is to be disconnected: it has closed the connection, broken the protocol, or
   doesn't read its answers. */
static bool serve_client(int fd, endpoint &where, reader_ports &ports)
{
    std::array<uint8_t, sizeof(reader_request) * READER_MOST_REQUESTS + 1> packet;
    const ssize_t size = recv(fd, packet.data(), packet.size(), MSG_DONTWAIT);
    if (size < 0)
        return errno == EAGAIN || errno == EINTR;
    const std::vector<reader_answer> answers = module_reader::answer_packet(
        std::span(packet).first(static_cast<size_t>(size)), [&](const reader_request &request) {
            where.is_ended |= request.address == READER_ITSELF && request.offset == READER_END;
            return ports.read(request);
        });
    const size_t length = answers.size() * sizeof(reader_answer);
    return !answers.empty() && send(fd, answers.data(), length, MSG_DONTWAIT | MSG_NOSIGNAL) ==
                                   static_cast<ssize_t>(length);
}

/* Serves until the last client has disconnected. If systemd passed the listener, a client is
   waiting. A client that connects after the last one has disconnected is refused: it is a restarted
   server, perhaps with another configuration, and gets a new reader. */
static void serve(endpoint &where, reader_ports &ports)
{
    static constexpr int time_to_retry_ms = 100;
    bool can_accept = true;
    do {
        std::vector<pollfd> wanted;
        for (const util::descriptor &client : where.clients)
            wanted.push_back({client.get(), POLLIN, 0});
        const bool has_room = where.clients.size() < most_clients && can_accept;
        wanted.push_back({has_room ? where.listener : -1, POLLIN, 0});
        const int wait = can_accept ? -1 : time_to_retry_ms;
        if (poll(wanted.data(), wanted.size(), wait) < 0 && errno != EINTR)
            throw std::system_error(errno, std::generic_category(), "poll");
        bool is_left = false;
        for (const pollfd &ready : std::span(wanted).first(wanted.size() - 1)) {
            if (ready.revents == 0 || serve_client(ready.fd, where, ports))
                continue;
            std::erase_if(where.clients,
                          [&](const auto &client) { return client.get() == ready.fd; });
            is_left = where.clients.empty();
        }
        can_accept = wanted.back().revents == 0 || is_left || accept_client(where);
    } while (!where.clients.empty() && !where.is_ended);
}

static const char *directory_of(const char *variable, const char *otherwise)
{
    const char *directory = secure_getenv(variable); /* the unit's */
    return directory != nullptr ? directory : otherwise;
}

/* A file without any port would remove all ports, so none is written. */
static void give_ports(task what, reader_ports &ports)
{
    const std::string text = ports.as_configuration();
    const std::string path = linux_board::port_config_path();
    const bool has_file = access(path.c_str(), F_OK) == 0;
    if (text.empty() && has_file)
        throw std::runtime_error("there is no port: " + path + " has no right line");
    if (text.empty())
        throw std::runtime_error("there is no port: there is no " + path +
                                 ", and no driver of a network interface can read a module; "
                                 "\"ethtool -m INTERFACE\", as root, shows what it answers");
    if (what == task::write_ports && has_file)
        throw std::runtime_error(
            path + " is there already, and its numbers hold: remove it to number the ports anew");
    if (what == task::write_ports)
        module_reader::replace_file(path, text, 0644);
    else if (fwrite(text.data(), 1, text.size(), stdout) != text.size() || fflush(stdout) != 0)
        throw std::system_error(errno, std::generic_category(), "standard output");
}

/* The folder's permissions decide who may do this. An earlier lease of the interface is
   replaced. */
static void lease(const std::string &interface, int seconds)
{
    const char *socket = secure_getenv(READER_SOCKET_ENV);
    const std::string folder = linux_board::module_leases::folder_of(
        socket != nullptr && *socket != '\0' ? socket : READER_SOCKET);
    const unsigned index = if_nametoindex(interface.c_str());
    if (index == 0)
        throw std::system_error(errno, std::generic_category(), "interface " + interface);
    const std::string path = linux_board::module_leases::path_in(folder, index);
    if (seconds == 0) {
        if (unlink(path.c_str()) != 0 && errno != ENOENT)
            throw std::system_error(errno, std::generic_category(), path);
        return;
    }
    const std::chrono::nanoseconds end =
        util::boot_time().time_since_epoch() + std::chrono::seconds(seconds);
    module_reader::replace_file(path, std::to_string(end.count()) + "\n", 0644);
}

static void run(const options &chosen)
{
    if (chosen.what == task::lease)
        return lease(chosen.leased, chosen.lease_s);
    endpoint where;
    if (chosen.what == task::serve)
        where = find_endpoint(chosen);
    const bool is_serving = chosen.what == task::serve;
    module_reader::known_interfaces known(directory_of("RUNTIME_DIRECTORY", ""));
    reader_ports ports(read_config(), known,
                       directory_of("STATE_DIRECTORY", is_serving ? "" : default_state),
                       is_serving);
    if (!is_serving)
        return give_ports(chosen.what, ports);
    signal(SIGPIPE, SIG_IGN);
    module_reader::keep_net_admin_only();
    module_reader::allow_requests_only();
    serve(where, ports);
    if (!where.is_ended)
        known.forget();
}

int main(int argc, char **argv)
{
    int status = EXIT_SUCCESS;
    const std::optional<options> chosen = parse_options(argc, argv, status);
    if (!chosen)
        return status;
    try {
        run(*chosen);
    } catch (const std::exception &error) {
        fprintf(stderr, "tesk-module-reader: %s\n", error.what());
        return EXIT_FAILURE;
    }
    return EXIT_SUCCESS;
}
