/* The mailbox library between real processes: order, exactness of the descriptor, fairness, deaths,
   bounds, names, fork, and what strangers may try. The test's own process is the server mostly. */
#include "mbx.h"

#include "platform/mbx/mbx_socket.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <numeric>
#include <poll.h>
#include <pthread.h>
#include <set>
#include <string>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

namespace
{

constexpr int patience_ms = 30000;
constexpr uint32_t hello = 1, numbered = 2, last = 3;

bool readable(int fd, int timeout_ms)
{
    pollfd wanted{fd, POLLIN, 0};
    return poll(&wanted, 1, timeout_ms) == 1;
}

/* A word to and from another process; the end of it counts as 0. */
void say(int fd, uint32_t word)
{
    ASSERT_EQ(send(fd, &word, sizeof word, MSG_NOSIGNAL), ssize_t{sizeof word});
}

uint32_t hear(int fd)
{
    uint32_t word = 0;
    EXPECT_TRUE(readable(fd, patience_ms));
    return recv(fd, &word, sizeof word, 0) == sizeof word ? word : 0;
}

/* A process of its own that runs the function; made before the library is started here. */
class actor
{
  public:
    explicit actor(const std::function<void(int line)> &play)
    {
        int ends[2];
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
        line = owned_fd(ends[0]);
        pid = fork();
        if (pid != 0) {
            close(ends[1]);
            return;
        }
        line.reset();
        play(ends[1]);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    actor(actor &&other) noexcept : line(std::move(other.line)), pid(std::exchange(other.pid, 0))
    {
    }
    ~actor()
    {
        shutdown(line.get(), SHUT_RDWR);
        EXPECT_EQ(end(), 0);
    }
    /* Its exit status, -1 after a signal. */
    int end()
    {
        int status = 0;
        if (pid > 0)
            waitpid(std::exchange(pid, 0), &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    void shoot()
    {
        kill(pid, SIGKILL);
        EXPECT_EQ(end(), -1);
    }
    owned_fd line;
    pid_t pid;
};

uint32_t join(const char *name = nullptr)
{
    EXPECT_EQ(mbx_init(5, 0, 0, 0, 0), 0);
    return mbx_create_mailbox(name, 0);
}

void send_number(uint32_t to, uint32_t signal, uint32_t value = 0, size_t size = 8)
{
    mbx_signal *s = mbx_alloc(size, signal);
    memcpy(s + 1, &value, sizeof value);
    mbx_send(&s, to, MBX_OWN_MAILBOX);
    EXPECT_EQ(s, nullptr);
}

struct received {
    uint32_t number = 0, sender = 0, size = 0, value = 0;
};

/* Waits at the descriptor: when that is readable, a reception must not wait. */
received next()
{
    received r;
    EXPECT_TRUE(readable(mbx_get_fd(), patience_ms));
    mbx_signal *s = mbx_receive(nullptr, 0, MBX_ANY_SENDER);
    EXPECT_NE(s, nullptr);
    if (!s)
        return r;
    r = {s->number, mbx_sender(s), mbx_size(s), 0};
    if (r.size >= 8)
        memcpy(&r.value, s + 1, sizeof r.value);
    mbx_free(&s);
    return r;
}

void expect_nothing()
{
    EXPECT_FALSE(readable(mbx_get_fd(), 0));
    EXPECT_EQ(mbx_receive(nullptr, 0, MBX_ANY_SENDER), nullptr);
}

class mbx : public testing::Test
{
  protected:
    void SetUp() override
    {
        char path[] = "/tmp/mbx-test-XXXXXX";
        dir = std::string(mkdtemp(path)) + "/run";
        setenv("MBX_DIR", dir.c_str(), 1);
        setenv("MBX_LOCATE_MS", "25000", 1);
    }
    void TearDown() override
    {
        mbx_exit();
        std::filesystem::remove_all(std::filesystem::path(dir).parent_path());
    }
    std::string dir;
};

/* A client that waits until the server is there, introduces itself and goes on with `play`. */
actor client(const std::function<void(int line, uint32_t server)> &play)
{
    return actor([&](int line) {
        hear(line);
        join();
        const uint32_t server = mbx_locate("server");
        EXPECT_NE(server, MBX_NO_MAILBOX);
        send_number(server, hello);
        play(line, server);
    });
}

/* Lets the client in and returns what it is called. */
uint32_t admit(actor &a)
{
    say(a.line.get(), 1);
    const received r = next();
    EXPECT_EQ(r.number, hello);
    return r.sender;
}

/* Connects without the library, as anybody can who may open the socket. */
owned_fd raw_connection(const std::string &path)
{
    owned_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strcpy(address.sun_path, path.c_str());
    EXPECT_EQ(connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address), 0);
    return fd;
}

/* Greets as a client would; the answer's sending end goes to `tx`. All the while there must be no
   signal for us. */
owned_fd raw_client(const std::string &path, owned_fd &tx)
{
    owned_fd control = raw_connection(path);
    datagram_pair pair = make_datagram_pair();
    EXPECT_TRUE(send_greeting(control.get(), greeting_kind::hello, make_token(), pair.tx.get()));
    pollfd wanted[] = {{control.get(), POLLIN, 0}, {mbx_get_fd(), POLLIN, 0}};
    EXPECT_GT(poll(wanted, 2, patience_ms), 0);
    EXPECT_EQ(wanted[1].revents, 0);
    EXPECT_TRUE(readable(control.get(), patience_ms));
    auto answer = receive_greeting(control.get());
    EXPECT_TRUE(answer && answer->kind == greeting_kind::welcome);
    if (answer)
        tx = std::move(answer->tx);
    return control;
}

} // namespace

TEST_F(mbx, signals_arrive_whole_in_order_and_once)
{
    constexpr uint32_t count = 3000;
    const auto size = [](uint32_t i) { return i % 100 == 7 ? MBX_LARGEST_SIGNAL : 8 + i % 300; };
    actor a = client([&](int line, uint32_t server) {
        for (uint32_t i = 0; i < count; i++)
            send_number(server, numbered, i, size(i));
        say(line, 1);
        mbx_exit();
    });
    join("server");
    const uint32_t id = admit(a);
    mbx_monitor(id, nullptr);
    hear(a.line.get()); /* all are sent, most of them wait in the client */
    for (uint32_t i = 0; i < count; i++) {
        const received r = next();
        ASSERT_EQ(r.number, numbered);
        ASSERT_EQ(r.sender, id);
        ASSERT_EQ(r.value, i);
        ASSERT_EQ(r.size, size(i));
    }
    EXPECT_EQ(next().number, MBX_MONITOR_DEFAULT_NO);
    expect_nothing();
}

TEST_F(mbx, ids_are_no_reserved_numbers_and_nobody_can_bear_ours)
{
    constexpr uint32_t stop = 0xdeadbeaf;
    actor a = client([](int, uint32_t server) { send_number(server, stop); });
    const uint32_t own = join("server");
    const uint32_t id = admit(a);
    EXPECT_NE(next().sender, own);
    send_number(own, stop);
    EXPECT_EQ(next().sender, own);
    for (uint32_t reserved : {0u, MBX_NO_MAILBOX, MBX_OWN_MAILBOX, MBX_ANY_SENDER, own})
        EXPECT_NE(id, reserved);
    expect_nothing();
}

TEST_F(mbx, a_stranger_never_wakes_the_owner)
{
    join("server");
    const std::string path = dir + "/server";
    const auto with_end = [&](const std::function<void(int tx, int control)> &act) {
        return [&, act] {
            owned_fd tx, control = raw_client(path, tx);
            act(tx.get(), control.get());
        };
    };
    const auto greeting_with = [&](int fd) {
        owned_fd control = raw_connection(path);
        send_greeting(control.get(), greeting_kind::hello, make_token(), fd);
        char byte;
        EXPECT_TRUE(readable(control.get(), patience_ms));
        EXPECT_EQ(recv(control.get(), &byte, 1, 0), 0) << "was not turned away";
    };
    owned_fd silent = raw_connection(path);
    const std::vector<std::function<void()>> acts = {
        [&] { raw_connection(path); },
        [&] { send(raw_connection(path).get(), "nonsense", 8, MSG_NOSIGNAL); },
        [&] { send(raw_connection(path).get(), "", 0, MSG_NOSIGNAL); },
        [&] { greeting_with(-1); },
        [&] { greeting_with(STDERR_FILENO); },
        [&] {
            int ends[2];
            socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
            greeting_with(ends[0]);
            close(ends[0]);
            close(ends[1]);
        },
        [&] { greeting_with(owned_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)).get()); },
        with_end([](int tx, int) { EXPECT_EQ(send(tx, "", 0, 0), 0); }),
        with_end([](int tx, int) { EXPECT_EQ(send(tx, "abc", 3, 0), 3); }),
        with_end([](int tx, int) { shutdown(tx, SHUT_RDWR); }),
        with_end([](int tx, int) {
            const sockaddr_un none{AF_UNSPEC, {}};
            sockaddr_un me{AF_UNIX, {}};
            socklen_t length = sizeof(sa_family_t);
            bind(tx, reinterpret_cast<sockaddr *>(&me), length);
            length = sizeof me;
            getsockname(tx, reinterpret_cast<sockaddr *>(&me), &length);
            connect(tx, reinterpret_cast<const sockaddr *>(&none), sizeof none);
            EXPECT_EQ(connect(tx, reinterpret_cast<sockaddr *>(&me), length), 0);
            send(tx, "loop", 4, 0);
            connect(tx, reinterpret_cast<const sockaddr *>(&none), sizeof none);
        }),
        with_end([](int, int control) { send(control, "more", 4, 0); }),
        with_end([](int, int control) { shutdown(control, SHUT_RDWR); }),
    };
    for (int round = 0; round < 5; round++)
        for (size_t i = 0; i < acts.size(); i++) {
            acts[i]();
            /* Another's greeting is answered when what came before it has been looked at. */
            owned_fd tx, control = raw_client(path, tx);
            EXPECT_FALSE(readable(mbx_get_fd(), 0)) << "act " << i;
        }
    expect_nothing();
}

TEST_F(mbx, ready_mailboxes_are_served_in_turn_and_so_is_the_own)
{
    constexpr uint32_t each = 60;
    std::vector<actor> clients;
    for (int i = 0; i < 3; i++)
        clients.push_back(client([](int line, uint32_t server) {
            while (uint32_t count = hear(line)) {
                for (uint32_t k = 0; k < count; k++)
                    send_number(server, numbered, k);
                say(line, 1);
            }
        }));
    const uint32_t own = join("server");
    for (actor &a : clients)
        admit(a);
    const auto send_from = [](actor &a, uint32_t count) {
        say(a.line.get(), count);
        hear(a.line.get());
    };
    for (actor &a : clients)
        send_from(a, each);
    for (uint32_t i = 0; i < each; i++)
        send_number(own, numbered, i);
    for (uint32_t i = 0; i < each; i++) {
        std::set<uint32_t> senders;
        for (int k = 0; k < 4; k++)
            senders.insert(next().sender);
        ASSERT_EQ(senders.size(), 4u) << "round " << i;
    }
    /* One floods; whoever comes in between waits for one of its signals at most. */
    send_from(clients[0], 200);
    const uint32_t flooder = next().sender;
    for (int i = 0; i < 20; i++) {
        for (int k = 0; k < 5; k++)
            EXPECT_EQ(next().sender, flooder);
        send_from(clients[1], 1);
        const uint32_t first = next().sender;
        EXPECT_TRUE(first != flooder || next().sender != flooder) << i;
        if (first != flooder) {
            EXPECT_EQ(next().sender, flooder);
        }
    }
}

TEST_F(mbx, a_killed_mailbox_is_told_after_its_last_signal)
{
    std::vector<actor> clients;
    for (int i = 0; i < 20; i++)
        clients.push_back(client([](int line, uint32_t server) {
            hear(line);
            for (uint32_t k = 0;; k++)
                send_number(server, numbered, k);
        }));
    join("server");
    for (actor &a : clients) {
        const uint32_t id = admit(a);
        mbx_monitor(id, nullptr);
        say(a.line.get(), 1);
        for (uint32_t k = 0; k < 100; k++)
            ASSERT_EQ(next().value, k);
        a.shoot();
        received r;
        uint32_t expected = 100;
        while ((r = next()).number == numbered)
            ASSERT_EQ(r.value, expected++);
        EXPECT_EQ(r.number, MBX_MONITOR_DEFAULT_NO);
        EXPECT_EQ(r.sender, id);
        EXPECT_EQ(r.size, 4u);
        send_number(id, numbered);
        expect_nothing();
    }
}

TEST_F(mbx, each_monitor_counts_once_and_a_late_one_is_told_at_once)
{
    actor a = client([](int line, uint32_t server) {
        hear(line);
        send_number(server, last);
    });
    actor unwatched = client([](int line, uint32_t) { hear(line); });
    join("server");
    const uint32_t id = admit(a);
    admit(unwatched);
    mbx_monitor(id, nullptr);
    const uint32_t ended = mbx_monitor(id, nullptr);
    mbx_signal *own_notice = mbx_alloc(4, 77);
    mbx_monitor(id, &own_notice);
    mbx_unmonitor(ended);
    say(a.line.get(), 1);
    EXPECT_EQ(a.end(), 0);
    EXPECT_EQ(next().number, last);
    std::multiset<uint32_t> notices{next().number, next().number};
    EXPECT_EQ(notices, (std::multiset<uint32_t>{77, MBX_MONITOR_DEFAULT_NO}));
    expect_nothing();
    for (uint32_t dead : {id, 12345u}) {
        mbx_monitor(dead, nullptr);
        const received r = next();
        EXPECT_EQ(r.number, MBX_MONITOR_DEFAULT_NO);
        EXPECT_EQ(r.sender, dead);
    }
    unwatched.shoot();
    owned_fd tx, control = raw_client(dir + "/server", tx);
    expect_nothing();
}

namespace
{
std::atomic<uint32_t> storm_target, storm_sent;
void storm_handler(int)
{
    send_number(storm_target, numbered);
    storm_sent++;
}
} // namespace

TEST_F(mbx, a_signal_handler_may_send_to_the_own_mailbox_whatever_it_interrupts)
{
    storm_target = join("server");
    storm_sent = 0;
    struct sigaction action {
    };
    action.sa_handler = storm_handler;
    action.sa_flags = SA_RESTART;
    sigaction(SIGUSR1, &action, nullptr);
    std::atomic<bool> stop{false};
    std::vector<std::thread> threads;
    std::atomic<uint32_t> plain{0};
    for (int i = 0; i < 3; i++)
        threads.emplace_back([&] {
            while (!stop) {
                for (size_t size : {4u, 60u, 200u, 3000u}) {
                    mbx_signal *s = mbx_alloc(size, hello);
                    mbx_free(&s);
                }
                send_number(storm_target, hello);
                plain++;
                std::this_thread::yield();
            }
        });
    const pthread_t owner = pthread_self();
    std::thread thrower([&] {
        for (uint32_t i = 0; storm_sent < 5000; i++) {
            pthread_kill(i % 4 == 3 ? owner : threads[i % 4].native_handle(), SIGUSR1);
            if (i % 16 == 0)
                std::this_thread::yield();
        }
        stop = true;
    });
    uint32_t got[3] = {};
    while (!stop)
        if (readable(mbx_get_fd(), 10))
            got[next().number]++;
    thrower.join();
    for (std::thread &t : threads)
        t.join();
    while (readable(mbx_get_fd(), 0))
        got[next().number]++;
    EXPECT_EQ(got[numbered], storm_sent);
    EXPECT_EQ(got[hello], plain);
}

TEST_F(mbx, who_never_reads_is_given_up_at_the_bound_and_misses_nothing_before_it)
{
    actor a = client([](int line, uint32_t server) {
        mbx_monitor(server, nullptr);
        hear(line);
        received r;
        uint32_t expected = 0;
        while ((r = next()).number == numbered)
            EXPECT_EQ(r.value, expected++);
        EXPECT_EQ(r.number, MBX_MONITOR_DEFAULT_NO);
        EXPECT_GT(expected, 0u);
    });
    join("server");
    const uint32_t id = admit(a);
    mbx_monitor(id, nullptr);
    uint32_t sent = 0;
    while (!readable(mbx_get_fd(), 0) && sent < 5000)
        send_number(id, numbered, sent++, 8000);
    EXPECT_EQ(next().number, MBX_MONITOR_DEFAULT_NO);
    EXPECT_GT(sent * 8000u, 4u << 20);
    EXPECT_LT(sent * 8000u, 10u << 20);
    say(a.line.get(), 1);
    EXPECT_EQ(a.end(), 0);
}

TEST_F(mbx, past_the_bound_for_all_the_longest_queue_goes)
{
    constexpr size_t count = 12;
    actor crowd([](int line) {
        hear(line);
        std::vector<std::thread> threads;
        join();
        for (size_t i = 0; i < count; i++)
            threads.emplace_back([] {
                join();
                send_number(mbx_locate("server"), hello);
            });
        for (std::thread &t : threads)
            t.join();
        hear(line);
    });
    join("server");
    say(crowd.line.get(), 1);
    std::vector<uint32_t> ids;
    for (size_t i = 0; i < count; i++)
        ids.push_back(next().sender);
    for (uint32_t id : ids)
        mbx_monitor(id, nullptr);
    for (int k = 0; k < 100; k++)
        for (size_t i = 0; i < count; i++)
            for (int n = 0; n < (i == 5 ? 2 : 1); n++)
                if (!readable(mbx_get_fd(), 0))
                    send_number(ids[i], numbered, 0, 60000);
    const received r = next();
    EXPECT_EQ(r.number, MBX_MONITOR_DEFAULT_NO);
    EXPECT_EQ(r.sender, ids[5]);
}

TEST_F(mbx, of_many_that_take_a_dead_ones_name_over_one_gets_it)
{
    constexpr int rounds = 5;
    for (int round = 0; round < rounds; round++) {
        std::vector<actor> owners;
        for (int i = 0; i < 6; i++)
            owners.emplace_back([](int line) {
                hear(line);
                say(line, join("server") == MBX_NO_MAILBOX && errno == EADDRINUSE ? 2 : 1);
                hear(line);
            });
        for (actor &a : owners)
            say(a.line.get(), 1);
        int winners = 0;
        for (actor &a : owners)
            winners += hear(a.line.get()) == 1;
        ASSERT_EQ(winners, 1) << "round " << round;
        for (actor &a : owners)
            a.shoot();
    }
    join();
    EXPECT_EQ(mbx_locate("server"), MBX_NO_MAILBOX);
    EXPECT_EQ(errno, ENOENT) << "a dead owner is nobody";
}

TEST_F(mbx, a_name_has_its_modes_and_goes_with_its_mailbox)
{
    const auto open_descriptors = [] {
        std::set<int> found;
        for (const auto &entry : std::filesystem::directory_iterator("/proc/self/fd"))
            found.insert(std::stoi(entry.path().filename()));
        return found;
    };
    const std::set<int> before = open_descriptors();
    umask(0);
    const uint32_t own = join("server");
    umask(022);
    const auto mode = [](const std::string &path) {
        struct stat s {
        };
        stat(path.c_str(), &s);
        return s.st_mode & 07777;
    };
    for (const int fd : open_descriptors())
        EXPECT_TRUE(before.contains(fd) || fcntl(fd, F_GETFD) != 0) << fd;
    rlimit limit{};
    getrlimit(RLIMIT_NOFILE, &limit);
    EXPECT_EQ(limit.rlim_cur, limit.rlim_max);
    EXPECT_EQ(mode(dir), 0750u);
    EXPECT_EQ(mode(dir + "/server"), 0660u);
    std::thread([] { EXPECT_EQ(mbx_create_mailbox("server", 0), MBX_NO_MAILBOX); }).join();
    EXPECT_EQ(mbx_locate("server"), own);
    mbx_delete_mailbox(own);
    EXPECT_TRUE(std::filesystem::is_empty(dir));
    mbx_signal *s = mbx_alloc(4, hello);
    mbx_send(&s, own, own);
    EXPECT_EQ(s, nullptr);
    EXPECT_EQ(mbx_get_fd(), -1);
}

TEST_F(mbx, a_forked_child_neither_uses_the_mailbox_nor_keeps_it_alive)
{
    const auto parent_of = [](bool raw) {
        return client([raw](int line, uint32_t server) {
            const int fd = mbx_get_fd();
            if ((raw ? syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0) : fork()) == 0) {
                if (!raw) {
                    send_number(server, numbered);
                    EXPECT_EQ(mbx_get_fd(), -1);
                    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
                }
                say(line, testing::Test::HasFailure() ? 2 : 1);
                hear(line);
                _exit(0);
            }
            pause();
        });
    };
    actor clients[] = {parent_of(false), parent_of(true)};
    join("server");
    for (actor &a : clients) {
        const uint32_t id = admit(a);
        mbx_monitor(id, nullptr);
        EXPECT_EQ(hear(a.line.get()), 1u);
        a.shoot();
        const received r = next();
        EXPECT_EQ(r.number, MBX_MONITOR_DEFAULT_NO);
        EXPECT_EQ(r.sender, id);
    }
}

TEST_F(mbx, what_was_sent_before_an_orderly_end_arrives_within_a_second)
{
    constexpr uint32_t count = 2000;
    actor a = client([](int, uint32_t server) {
        for (uint32_t i = 0; i < count; i++)
            send_number(server, numbered, i);
        mbx_exit();
    });
    join("server");
    mbx_monitor(admit(a), nullptr);
    for (uint32_t i = 0; i < count; i++)
        ASSERT_EQ(next().value, i);
    EXPECT_EQ(next().number, MBX_MONITOR_DEFAULT_NO);
}

TEST_F(mbx, who_cannot_be_located_is_told_why)
{
    join("server");
    sockaddr_un address{AF_UNIX, {}};
    const auto deaf = [&](const char *name, int backlog) {
        owned_fd fd(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
        strcpy(address.sun_path, (dir + "/" + name).c_str());
        bind(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address);
        listen(fd.get(), backlog);
        return fd;
    };
    const owned_fd silent = deaf("silent", 5), full = deaf("full", 0);
    const owned_fd filler = raw_connection(dir + "/full");
    deaf("dead", 5);
    setenv("MBX_LOCATE_MS", "50", 1);
    const std::string too_long(200, 'x');
    const std::pair<const char *, int> cases[] = {
        {"nobody", ENOENT},        {"dead", ENOENT},           {"", ENOENT},
        {"../run/server", ENOENT}, {too_long.c_str(), ENOENT}, {"silent", ETIMEDOUT},
        {"full", ETIMEDOUT},
    };
    for (const auto &[name, error] : cases) {
        EXPECT_EQ(mbx_locate(name), MBX_NO_MAILBOX) << name;
        EXPECT_EQ(errno, error) << name;
    }
}

TEST_F(mbx, a_user_outside_the_group_can_neither_locate_nor_take_the_name)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to become another user";
    actor other([](int line) {
        hear(line);
        ASSERT_TRUE(setgid(65534) == 0 && setuid(65534) == 0);
        EXPECT_EQ(join("server"), MBX_NO_MAILBOX);
        EXPECT_EQ(errno, EACCES);
        join();
        EXPECT_EQ(mbx_locate("server"), MBX_NO_MAILBOX);
        EXPECT_EQ(errno, EACCES);
    });
    chmod(std::filesystem::path(dir).parent_path().c_str(), 0755);
    join("server");
    say(other.line.get(), 1);
    EXPECT_EQ(other.end(), 0);
    expect_nothing();
}

TEST_F(mbx, silent_connections_and_lack_of_descriptors_pass)
{
    actor server([](int line) {
        const rlimit few{20, 20};
        setrlimit(RLIMIT_NOFILE, &few);
        join("server");
        say(line, 1);
        EXPECT_EQ(next().number, hello);
        hear(line);
    });
    hear(server.line.get());
    std::vector<owned_fd> strangers;
    for (int i = 0; i < 10; i++)
        strangers.push_back(raw_connection(dir + "/server"));
    join();
    send_number(mbx_locate("server"), hello);
    clockid_t its_time;
    timespec used{};
    clock_getcpuclockid(server.pid, &its_time);
    clock_gettime(its_time, &used);
    EXPECT_LT(used.tv_sec, 1) << "it spins";
    say(server.line.get(), 1);
    EXPECT_EQ(server.end(), 0);
}

TEST_F(mbx, of_two_connections_that_cross_one_survives)
{
    constexpr uint32_t rounds = 30;
    const auto play = [](int line, const char *mine, const char *other) {
        for (uint32_t i = 0; i < rounds; i++) {
            const uint32_t own = join(mine);
            say(line, 1);
            hear(line);
            const uint32_t id = mbx_locate(other);
            EXPECT_NE(id, MBX_NO_MAILBOX);
            send_number(id, numbered, i);
            EXPECT_EQ(next().sender, id) << "known under two ids";
            say(line, 1);
            hear(line);
            mbx_delete_mailbox(own);
        }
    };
    actor b([&](int line) { play(line, "b", "a"); });
    play(b.line.get(), "a", "b");
    EXPECT_EQ(b.end(), 0);
}

TEST_F(mbx, what_a_filter_passes_over_stays_readable_in_its_order)
{
    const uint32_t own = join();
    for (uint32_t number : {5u, 6u, 7u, 8u})
        send_number(own, number);
    const uint32_t filter[] = {1, 7};
    mbx_signal *s = mbx_receive(filter, -1, own);
    EXPECT_EQ(s->number, 7u);
    mbx_free(&s);
    EXPECT_EQ(mbx_receive(filter, 0, MBX_ANY_SENDER), nullptr);
    for (uint32_t number : {5u, 6u, 8u})
        EXPECT_EQ(next().number, number);
    expect_nothing();
}

TEST_F(mbx, threads_of_one_process_send_to_each_other_and_see_each_other_die)
{
    const uint32_t own = join();
    std::atomic<uint32_t> other{0};
    std::thread thread([&] {
        const uint32_t id = join();
        other = id;
        other.notify_one();
        EXPECT_EQ(next().sender, own);
        send_number(own, numbered);
        mbx_delete_mailbox(id);
    });
    other.wait(0);
    mbx_monitor(other, nullptr);
    send_number(other, hello);
    for (uint32_t number : {numbered, MBX_MONITOR_DEFAULT_NO}) {
        const received r = next();
        EXPECT_EQ(r.number, number);
        EXPECT_EQ(r.sender, other);
    }
    thread.join();
    send_number(other, hello);
    expect_nothing();
}
