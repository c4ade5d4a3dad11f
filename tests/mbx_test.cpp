/* SPDX-License-Identifier: Apache-2.0 */
/* The mailbox library between real processes: order, exactness of the descriptor, fairness, deaths,
   limits, names, fork, and attempts of strangers. In most tests the test's own process is the
   server. */
#include "platform/mbx/mbx.h"
#include "testkit/raw_peer.h"
#include "util/local_socket.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <deque>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <set>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

static constexpr uint32_t hello = 1, numbered = 2;

/* Sends or receives a word; the end of the connection reads as 0. */
static void say(int fd, uint32_t word)
{
    EXPECT_EQ(send(fd, &word, sizeof(word), MSG_NOSIGNAL), ssize_t{sizeof(word)});
}

static uint32_t hear(int fd)
{
    uint32_t word = 0;
    EXPECT_TRUE(is_readable(fd));
    return recv(fd, &word, sizeof(word), 0) == sizeof(word) ? word : 0;
}

/* A process that runs the function; it is forked before this process starts the library. */
struct other_process {
    explicit other_process(const std::function<void(int line)> &play)
    {
        int ends[2];
        socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends);
        line = owned_fd(ends[0]);
        const owned_fd far_end(ends[1]);
        if ((pid = fork()) != 0)
            return;
        [&]() noexcept { play(far_end.get()); }();
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    ~other_process()
    {
        shutdown(line.get(), SHUT_RDWR);
        EXPECT_EQ(end(), 0);
    }
    /* The exit status of the process, -1 after a signal, 0 if end() was called before. */
    int end()
    {
        int status = 0;
        waitpid(pid, &status, 0);
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

static uint32_t join(const char *name = nullptr)
{
    EXPECT_EQ(mbx_init(5, 0, 0, 0, 0), 0);
    return mbx_create_mailbox(name, 0);
}

static void send_number(uint32_t to, uint32_t signal, uint32_t value = 0, size_t size = 8)
{
    mbx_signal *s = mbx_alloc(size, signal);
    memcpy(s + 1, &value, sizeof(value));
    mbx_send(&s, to, MBX_OWN_MAILBOX);
    EXPECT_EQ(s, nullptr);
}

struct received {
    uint32_t number = 0, sender = 0, size = 0, value = 0;
};

/* Waits for the descriptor: when it is readable, a reception must not block. */
static received next()
{
    mbx_signal *s = nullptr;
    if (!is_readable(mbx_get_fd()) || !(s = mbx_receive(nullptr, 0, MBX_ANY_SENDER)))
        throw std::runtime_error("nothing to receive");
    received r{s->number, mbx_sender(s), mbx_size(s), 0};
    if (r.size >= 8)
        memcpy(&r.value, s + 1, sizeof(r.value));
    mbx_free(&s);
    return r;
}

static void expect_notice(const received &r, uint32_t of)
{
    EXPECT_EQ(r.number, MBX_MONITOR_DEFAULT_NO);
    EXPECT_EQ(r.sender, of);
    EXPECT_EQ(r.size, 4u);
}

static void expect_nothing()
{
    EXPECT_FALSE(is_readable(mbx_get_fd(), 0));
    EXPECT_EQ(mbx_receive(nullptr, 0, MBX_ANY_SENDER), nullptr);
}

struct mbx : testing::Test {
    mbx()
    {
        char path[] = "/tmp/mbx-test-XXXXXX";
        dir = std::string(mkdtemp(path)) + "/run";
        setenv("MBX_DIR", dir.c_str(), 1);
        setenv("MBX_LOCATE_MS", "25000", 1);
    }
    ~mbx() override
    {
        mbx_exit();
        std::filesystem::remove_all(std::filesystem::path(dir).parent_path());
    }
    owned_fd listen_at(const std::string &name, int backlog) const
    {
        return util::listen_at(dir + "/" + name, SOCK_SEQPACKET, 0600, getegid(), backlog);
    }
    std::string dir;
};

/* A client that waits until the server exists, introduces itself and then runs `play`. */
struct client : other_process {
    explicit client(const std::function<void(int line, uint32_t server)> &play)
        : other_process([&](int its_line) {
              hear(its_line);
              join();
              const uint32_t server = mbx_locate("server");
              EXPECT_NE(server, MBX_NO_MAILBOX);
              send_number(server, hello);
              play(its_line, server);
          })
    {
    }
    /* Receives the client's introduction, monitors it, and returns its id. */
    uint32_t admit()
    {
        say(line.get(), 1);
        const received r = next();
        EXPECT_EQ(r.number, hello);
        mbx_monitor(r.sender, nullptr);
        return r.sender;
    }
};

/* Sends the greeting of a client. No signal must be received meanwhile. */
static raw_peer raw_client(const std::string &path)
{
    raw_peer peer(path);
    peer.say_hello();
    pollfd wanted[] = {{peer.control.get(), POLLIN, 0}, {mbx_get_fd(), POLLIN, 0}};
    EXPECT_GT(poll(wanted, 2, patience_ms), 0);
    EXPECT_EQ(wanted[1].revents, 0);
    EXPECT_TRUE(peer.take_answer());
    return peer;
}

TEST_F(mbx, signals_arrive_whole_in_order_and_once)
{
    constexpr uint32_t count = 3000;
    const auto size = [](uint32_t i) { return i % 100 == 7 ? MBX_LARGEST_SIGNAL : 8 + i % 300; };
    client a([&](int line, uint32_t server) {
        for (uint32_t i = 0; i < count; i++)
            send_number(server, numbered, i, size(i));
        say(line, 1);
        mbx_exit();
    });
    const uint32_t own = join("server"), id = a.admit();
    for (uint32_t reserved : {0u, MBX_NO_MAILBOX, MBX_OWN_MAILBOX, MBX_ANY_SENDER, own})
        EXPECT_NE(id, reserved);
    hear(a.line.get()); /* all are sent; most are still in the client's backlog */
    for (uint32_t i = 0; i < count; i++) {
        if (i == 500) /* to a mailbox that was deleted and still delivers its backlog */
            send_number(id, hello);
        const received r = next();
        ASSERT_EQ(r.number, numbered);
        ASSERT_EQ(r.sender, id);
        ASSERT_EQ(r.value, i);
        ASSERT_EQ(r.size, size(i));
    }
    expect_notice(next(), id);
    expect_nothing();
}

/* The connection must end without a further message. */
static void expect_end(raw_peer &peer)
{
    char byte;
    EXPECT_TRUE(is_readable(peer.control.get()));
    EXPECT_LE(recv(peer.control.get(), &byte, 1, 0), 0) << "was not turned away";
}

TEST_F(mbx, a_stranger_never_wakes_the_owner)
{
    join("server");
    const std::string path = dir + "/server";
    const owned_fd silent = util::connect_to(path, SOCK_SEQPACKET);
    /* Things that can be done to a new connection, and to a greeted one. */
    using deed = void(raw_peer & fresh, raw_peer & greeted);
    static deed *const acts[] = {
        [](raw_peer &fresh, raw_peer &) { send(fresh.control.get(), "nonsense", 8, MSG_NOSIGNAL); },
        [](raw_peer &fresh, raw_peer &) { send(fresh.control.get(), "", 0, MSG_NOSIGNAL); },
        [](raw_peer &fresh, raw_peer &) {
            const int may_pass = 1; /* with this option the kernel refuses */
            const bool is_refused =
                setsockopt(fresh.control.get(), SOL_SOCKET, 83, &may_pass, sizeof(may_pass)) == 0;
            EXPECT_EQ(fresh.pass({STDERR_FILENO}) < 0, is_refused);
            if (!is_refused)
                expect_end(fresh);
        },
        [](raw_peer &fresh, raw_peer &) { fresh.say_hello({}), fresh.take_answer(); },
        [](raw_peer &, raw_peer &greeted) { send(greeted.control.get(), "more", 4, 0); },
        [](raw_peer &, raw_peer &greeted) { send(greeted.control.get(), "r", 1, 0); },
        [](raw_peer &, raw_peer &greeted) { greeted.pass({STDERR_FILENO}); },
        [](raw_peer &, raw_peer &greeted) { shutdown(greeted.control.get(), SHUT_RDWR); },
        [](raw_peer &, raw_peer &greeted) {
            const uint64_t back_and_forth = 1; /* before the first ring */
            EXPECT_EQ(write(greeted.near_bell.get(), &back_and_forth, 8), -1);
            greeted.area.reset();
        },
        [](raw_peer &, raw_peer &greeted) { /* only the sender into the other ring notices */
                                            greeted.from_mailbox().armed = 1;
                                            greeted.from_mailbox().tail = 0x7ffffff8;
                                            greeted.from_mailbox().wants_room = 7;
        }};
    for (int round = 0; round < 5; round++)
        for (const auto &act : acts) {
            {
                raw_peer greeted = raw_client(path), fresh(path);
                act(fresh, greeted);
            }
            /* The answer to another greeting shows that everything before it was handled. */
            raw_client(path);
            EXPECT_FALSE(is_readable(mbx_get_fd(), 0)) << "act " << &act - acts;
        }
    /* Bytes that are too few for a number are a signal, too. */
    for (const std::string bytes : {"", "abc"}) {
        raw_peer peer = raw_client(path);
        peer.send_signal(bytes.data(), static_cast<uint32_t>(bytes.size()));
        const received r = next();
        EXPECT_EQ(r.size, 4u);
        EXPECT_EQ(r.number, bytes.empty() ? 0u : 0x636261u);
    }
    expect_nothing();
}

/* Three clients in turn: one has a child by fork, one a child by a bare system call, which the
   library doesn't see. */
TEST_F(mbx, a_killed_mailbox_is_told_after_its_last_signal_though_a_child_of_it_lives)
{
    std::deque<client> clients;
    for (int i = 0; i < 21; i++)
        clients.emplace_back([i](int line, uint32_t server) {
            const int fd = mbx_get_fd();
            const auto child = i % 3 == 0   ? 1
                               : i % 3 == 1 ? fork()
                                            : syscall(SYS_clone, SIGCHLD, 0, 0, 0, 0);
            if (child == 0 && i % 3 == 1) {
                send_number(server, numbered);
                EXPECT_EQ(mbx_get_fd(), -1);
                EXPECT_EQ(fcntl(fd, F_GETFD), -1);
            }
            if (child == 0 || i % 3 == 0)
                say(line, testing::Test::HasFailure() ? 2 : 1);
            if (child == 0) {
                pollfd hung_up{line, 0, 0};
                poll(&hung_up, 1, patience_ms);
                _exit(0);
            }
            hear(line);
            for (uint32_t k = 0;; k++)
                send_number(server, numbered, k);
        });
    join("server");
    for (client &a : clients) {
        const uint32_t id = a.admit();
        EXPECT_EQ(hear(a.line.get()), 1u);
        say(a.line.get(), 1);
        received r;
        for (uint32_t k = 0; (r = next()).number == numbered; k++) {
            ASSERT_EQ(r.value, k);
            if (k == 100)
                a.shoot();
        }
        expect_notice(r, id);
        send_number(id, numbered);
        expect_nothing();
    }
}

static long processor_ms()
{
    timespec used;
    clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1000000;
}

/* Receives a signal with one of these numbers, from that sender; 0 if none is received in time. */
static uint32_t take(std::vector<uint32_t> numbers, int timeout_ms, uint32_t sender)
{
    numbers.insert(numbers.begin(), static_cast<uint32_t>(numbers.size()));
    mbx_signal *s = mbx_receive(numbers.size() > 1 ? numbers.data() : nullptr, timeout_ms, sender);
    const uint32_t number = s ? s->number : 0;
    if (s)
        mbx_free(&s);
    return number;
}

TEST_F(mbx, what_a_filter_passes_over_stays_readable_and_in_order)
{
    client a([](int line, uint32_t server) {
        hear(line);
        for (uint32_t number : {7u, 8u, 9u})
            send_number(server, number);
        say(line, 1);
        hear(line);
    });
    const uint32_t own = join("server"), id = a.admit();
    say(a.line.get(), 1);
    EXPECT_EQ(hear(a.line.get()), 1u);
    send_number(own, 8);
    EXPECT_EQ(take({}, patience_ms, own), 8u);
    EXPECT_TRUE(is_readable(mbx_get_fd(), 0));
    const long used = processor_ms();
    EXPECT_EQ(take({5, 6}, 200, MBX_ANY_SENDER), 0u);
    EXPECT_EQ(take({8}, 200, own), 0u);
    EXPECT_LT(processor_ms() - used, 60) << "a wait that spins";
    EXPECT_TRUE(is_readable(mbx_get_fd(), 0));
    EXPECT_EQ(take({5, 8}, 0, id), 8u);
    EXPECT_EQ(next().number, 7u);
    EXPECT_EQ(next().number, 9u);
    expect_nothing();
}

TEST_F(mbx, the_last_monitor_of_a_peer_counts_and_a_late_one_is_told_at_once)
{
    const auto stay = [](int line, uint32_t) { hear(line); };
    client a(stay), b(stay);
    join("server");
    mbx_unmonitor(mbx_monitor(b.admit(), nullptr));
    say(b.line.get(), 1);
    EXPECT_EQ(b.end(), 0);
    const uint32_t id = a.admit(), ended = mbx_monitor(id, nullptr);
    mbx_signal *own_notice = mbx_alloc(4, 77);
    mbx_monitor(id, &own_notice);
    mbx_unmonitor(ended);
    say(a.line.get(), 1);
    EXPECT_EQ(next().number, 77u);
    expect_nothing();
    for (uint32_t dead : {id, 12345u}) {
        mbx_monitor(dead, nullptr);
        expect_notice(next(), dead);
    }
    expect_nothing();
}

TEST_F(mbx, a_thread_without_a_mailbox_acts_as_the_first_of_its_process)
{
    const uint32_t own = join("server");
    uint32_t younger[2] = {};
    for (uint32_t &id : younger)
        std::thread([&] { id = join(); }).join();
    const auto expect_own = [&] {
        std::thread([&] { send_number(own, numbered); }).join();
        EXPECT_EQ(next().sender, own);
    };
    expect_own();
    mbx_unmonitor(mbx_monitor(younger[0], nullptr));
    mbx_delete_mailbox(younger[0]);
    std::thread([&] { EXPECT_NE(join(), younger[0]); }).join();
    expect_own();
    mbx_monitor(younger[1], nullptr);
    mbx_delete_mailbox(younger[1]);
    expect_notice(next(), younger[1]);
    expect_nothing();
}

static std::atomic<uint32_t> storm_target, storm_sent;

TEST_F(mbx, a_signal_handler_may_send_to_the_own_mailbox_whatever_it_interrupts)
{
    storm_target = join("server"), storm_sent = 0;
    signal(SIGUSR1, [](int) {
        send_number(storm_target, numbered);
        storm_sent++;
    });
    std::atomic<bool> stop = false, done = false;
    std::atomic<uint32_t> plain = 0;
    std::deque<std::thread> threads;
    for (int i = 0; i < 3; i++)
        threads.emplace_back([&] {
            for (; !stop; plain++) {
                for (size_t size : {4u, 60u, 200u, 3000u}) {
                    mbx_signal *s = mbx_alloc(size, hello);
                    mbx_free(&s);
                }
                send_number(storm_target, hello);
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
        for (std::thread &t : threads)
            t.join();
        done = true;
    });
    uint32_t got[3] = {};
    while (!done || is_readable(mbx_get_fd(), 0))
        if (is_readable(mbx_get_fd(), 10))
            got[next().number]++;
    thrower.join();
    EXPECT_EQ(got[numbered], storm_sent);
    EXPECT_EQ(got[hello], plain);
}

TEST_F(mbx, who_never_reads_is_given_up_at_the_bound_and_misses_nothing_before_it)
{
    const auto never_read = [](bool monitors) {
        return [monitors](int line, uint32_t server) {
            if (monitors)
                mbx_monitor(server, nullptr);
            hear(line);
            received r;
            uint32_t expected = 0;
            while ((r = next()).number == numbered)
                EXPECT_EQ(r.value, expected++);
            expect_notice(r, server);
            EXPECT_GT(expected, 0u);
        };
    };
    client clients[] = {client(never_read(true)), client(never_read(false))};
    join("server");
    for (client &a : clients) {
        const uint32_t id = a.admit();
        uint32_t sent = 0;
        while (!is_readable(mbx_get_fd(), 0) && sent < 5000)
            send_number(id, numbered, sent++, 40000);
        expect_notice(next(), id);
        EXPECT_GT(sent * 40000u, 7u << 20);
        EXPECT_LE((sent - 1) * 40000u, 8u << 20); /* the last one ended the connection */
        say(a.line.get(), 1);
    }
}

TEST_F(mbx, of_many_that_take_a_dead_ones_name_over_one_gets_it)
{
    for (int round = 0; round < 5; round++) {
        std::deque<other_process> owners;
        for (int i = 0; i < 6; i++)
            owners.emplace_back([](int line) {
                hear(line);
                say(line, join("server") == MBX_NO_MAILBOX && errno == EADDRINUSE ? 2 : 1);
                hear(line);
            });
        for (other_process &a : owners)
            say(a.line.get(), 1);
        int winners = 0;
        for (other_process &a : owners)
            winners += hear(a.line.get()) == 1;
        ASSERT_EQ(winners, 1) << "round " << round;
        for (other_process &a : owners)
            a.shoot();
    }
    if (getuid() != 0)
        return;
    /* The last user was root; the directory's owner gets access as well. */
    chmod(std::filesystem::path(dir).parent_path().c_str(), 0755);
    EXPECT_EQ(chown(dir.c_str(), 4711, 4711), 0);
    other_process root([](int line) { say(line, join("server")), hear(line); });
    hear(root.line.get());
    root.shoot();
    other_process user(
        [](int line) { say(line, setuid(4711) == 0 && join("server") != MBX_NO_MAILBOX ? 1 : 2); });
    EXPECT_EQ(hear(user.line.get()), 1u);
}

TEST_F(mbx, who_cannot_be_located_is_told_why)
{
    join("server");
    const owned_fd silent = listen_at("silent", 5), full = listen_at("full", 0),
                   filler = util::connect_to(dir + "/full", SOCK_SEQPACKET);
    listen_at("dead", 5);
    setenv("MBX_LOCATE_MS", "50", 1);
    const std::string too_long(200, 'x');
    for (const std::string name :
         {"nobody", "dead", "", "../run/server", too_long.c_str(), "silent", "full"}) {
        EXPECT_EQ(mbx_locate(name.c_str()), MBX_NO_MAILBOX) << name;
        EXPECT_EQ(errno, name == "silent" || name == "full" ? ETIMEDOUT : ENOENT) << name;
    }
}

TEST_F(mbx, of_two_connections_that_cross_one_survives)
{
    const auto play = [](int line, const char *mine, const char *other) {
        for (uint32_t i = 0; i < 30; i++) {
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
    other_process b([&](int line) { play(line, "b", "a"); });
    other_process first([](int line) {
        hear(line);
        join("first");
        EXPECT_NE(mbx_locate("second"), MBX_NO_MAILBOX);
        say(line, 1);
        hear(line);
    });
    play(b.line.get(), "a", "b");
    join("second");
    say(first.line.get(), 1);
    hear(first.line.get());
    const uint32_t id = mbx_locate("first");
    say(first.line.get(), 1);
    expect_notice(next(), id); /* as it was located, too */
}

/* Receives until the descriptor is no longer readable; all signals must be valid and from that
   sender. Returns their number. */
static size_t receive_all_from(uint32_t sender)
{
    size_t count = 0;
    for (; is_readable(mbx_get_fd(), 0); count++) {
        const received r = next();
        EXPECT_EQ(r.sender, sender);
        EXPECT_LE(r.size, MBX_LARGEST_SIGNAL);
    }
    return count;
}

/* Sends a signal from that peer and receives it. Returns the sender's id. */
static uint32_t heard_from(raw_peer &peer, uint32_t number)
{
    peer.send_signal(&number, sizeof(number));
    const received r = next();
    EXPECT_EQ(r.number, number);
    return r.sender;
}

/* The peer always has unread signals, and reads all of them in time. */
TEST_F(mbx, when_too_much_is_held_who_reads_on_is_not_cut_off)
{
    join("server");
    raw_peer reader = raw_client(dir + "/server");
    const uint32_t id = heard_from(reader, 1);
    send_number(id, numbered, 0, 10000);
    const auto read_on = [&] {
        send_number(id, numbered, 0, 10000);
        if (block *b = receive_block(reader.in))
            block_give(b);
    };
    for (const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(150);
         std::chrono::steady_clock::now() < until;)
        read_on();
    std::deque<raw_peer> deaf;
    for (uint32_t peer = 0; peer < 8; peer++) {
        const uint32_t its = heard_from(deaf.emplace_back(raw_client(dir + "/server")), 2);
        for (uint32_t sent = 0; sent < 180; sent++)
            send_number(its, numbered, sent, 40000);
        read_on();
    }
    const auto has_ended = [](const raw_peer &peer) {
        pollfd polled{peer.control.get(), POLLRDHUP, 0};
        return poll(&polled, 1, 0) > 0;
    };
    EXPECT_FALSE(has_ended(reader));
    EXPECT_GT(std::ranges::count_if(deaf, has_ended), 0);
}

TEST_F(mbx, what_a_peer_does_to_the_shared_memory_and_the_bell_harms_only_itself)
{
    join("server");
    const std::string path = dir + "/server";
    raw_peer witness = raw_client(path);
    const uint32_t witness_id = heard_from(witness, 1);
    struct row {
        const char *what;
        bool ends; /* the process ends the connection, with an empty signal */
        std::function<void(raw_peer &p)> act;
    };
    const auto move_head = [](uint32_t bytes) {
        return [bytes](raw_peer &p) { p.to_mailbox().head += bytes, p.ring(); };
    };
    const uint32_t forged = MBX_MONITOR_DEFAULT_NO;
    const row rows[] = {
        {"head too far", true, move_head(ring_bytes + 8)},
        {"head back", true, move_head(0u - 8)},
        {"head within a record", true, move_head(4)},
        {"rung for nothing", true, [](raw_peer &p) { p.ring(); }},
        {"armed taken", false, [](raw_peer &p) { p.to_mailbox().armed = 0; }},
        {"tails that cannot be", false,
         [](raw_peer &p) {
             p.from_mailbox().tail = 0x80000000;
             p.from_mailbox().wants_room = 1;
             p.from_mailbox().armed = 0xffffffff;
         }},
        {"holes", false,
         [](raw_peer &p) {
             EXPECT_EQ(madvise(p.area->ring(0).words, page_bytes, MADV_REMOVE), 0);
             EXPECT_EQ(madvise(p.area->ring(0).rest, 2 * rest_span, MADV_REMOVE), 0);
         }},
        {"another size", false,
         [](raw_peer &p) { EXPECT_EQ(ftruncate(p.answer.fds[0].get(), 0), -1); }},
        {"a full bell that blocks", false,
         [](raw_peer &p) {
             const uint64_t much = UINT64_MAX - 1;
             EXPECT_EQ(write(p.near_bell.get(), &much, sizeof(much)), -1);
             fcntl(p.near_bell.get(), F_SETFL, 0);
             fcntl(p.far_bell.get(), F_SETFL, 0);
         }},
        {"reports of room that it does not read", false,
         [](raw_peer &p) {
             for (uint32_t i = 0; i < 1000; i++) {
                 p.to_mailbox().wants_room = 1;
                 heard_from(p, 2);
             }
             int waiting = 0;
             for (char byte; recv(p.control.get(), &byte, 1, MSG_DONTWAIT) == 1; waiting++)
                 EXPECT_EQ(byte, 'r');
             EXPECT_TRUE(waiting > 0 && waiting < 16) << "what it does not read takes memory";
         }},
        {"a forged notice", true,
         [&forged](raw_peer &p) { p.send_signal(&forged, sizeof(forged)); }}};
    for (const row &r : rows) {
        SCOPED_TRACE(r.what);
        raw_peer peer = raw_client(path);
        const uint32_t id = heard_from(peer, 2);
        r.act(peer);
        EXPECT_EQ(receive_all_from(id), r.ends ? 1u : 0u);
        for (uint32_t i = 0; i < 20; i++)
            send_number(id, numbered, i, 40000); /* must not block */
        EXPECT_EQ(heard_from(witness, 3), witness_id);
        char byte;
        EXPECT_EQ(recv(peer.control.get(), &byte, 1, MSG_DONTWAIT), r.ends ? 0 : -1);
    }
    expect_nothing();
}

static size_t open_sockets()
{
    std::error_code gone;
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return static_cast<size_t>(std::count_if(begin(all), end(all), [&](const auto &entry) {
        return read_symlink(entry, gone).string().starts_with("socket:");
    }));
}

/* Within the deadline the number of open sockets must be `count`. */
static void expect_open_sockets(size_t count)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (open_sockets() != count && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_EQ(open_sockets(), count);
}

/* The number of open sockets must stay for longer than two looks at ended peers. */
static void expect_open_sockets_stay(size_t count)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(600);
    while (std::chrono::steady_clock::now() < end)
        ASSERT_EQ(open_sockets(), count);
}

TEST_F(mbx, what_a_peer_keeps_after_its_end_counts_until_it_lets_go)
{
    join("server");
    const size_t idle = open_sockets();
    raw_peer mapping = raw_client(dir + "/server"), unread(dir + "/server");
    const std::string memory = "/proc/self/fd/" + std::to_string(mapping.answer.fds[0].get());
    owned_fd path(open(memory.c_str(), O_PATH | O_CLOEXEC));
    mapping.answer.fds.clear();
    heard_from(mapping, 1);
    mapping.control.reset();
    while (mapping.to_mailbox().head != 0) /* until the first page is released */
        std::this_thread::yield();
    unread.say_hello();
    EXPECT_TRUE(is_readable(unread.control.get()));
    send(unread.control.get(), "x", 1, 0);
    raw_client(dir + "/server"); /* ends at once, but after the others */
    expect_open_sockets(idle + 3);
    mapping.area.reset();
    unread.control.reset();
    expect_open_sockets(idle + 1);
    path.reset();
    mapping.near_bell.reset();
    expect_open_sockets_stay(idle + 1); /* until the other bell is closed */
    mapping.far_bell.reset();
    expect_open_sockets(idle);
}

#ifndef __SANITIZE_THREAD__ /* it sees that the peer is a thread here, and races */
TEST_F(mbx, a_peer_may_change_every_word_at_any_time)
{
    join("server");
    const std::string path = dir + "/server";
    for (unsigned round = 0; round < 20; round++) {
        raw_peer peer = raw_client(path);
        const uint32_t id = heard_from(peer, 2);
        std::atomic<bool> stop = false;
        std::thread scribbler([&] {
            auto *words = reinterpret_cast<uint32_t *>(peer.area->ring(0).words);
            for (unsigned state = round; !stop;) {
                state = state * 1664525 + 1013904223;
                const size_t index = state / 4 % (state % 4 == 0 ? 1024 : 80);
                const uint32_t word = state % 8 < 4 ? state >> 16 & 0xff8 : state;
                __atomic_store_n(words + index, word, __ATOMIC_RELAXED);
            }
        });
        for (uint32_t i = 0; i < 200; i++) {
            const uint32_t words[8] = {numbered, i};
            peer.send_signal(words, sizeof(words));
            receive_all_from(id);
            send_number(id, numbered, i, 3000);
        }
        stop = true;
        scribbler.join();
        peer.control.reset();
        receive_all_from(id);
    }
    raw_peer witness = raw_client(path);
    heard_from(witness, 3);
}

#endif

/* Sanitizers use memory, too. */
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

/* The resident memory of this process, in KiB. */
static long resident()
{
    long size, pages;
    std::ifstream("/proc/self/statm") >> size >> pages;
    return pages * (sysconf(_SC_PAGESIZE) / 1024);
}

/* The resident memory must fall to at most `kib` within 10 s. */
static void expect_resident(long kib)
{
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (resident() > kib && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    EXPECT_LE(resident(), kib);
}

TEST_F(mbx, pages_of_rings_that_were_read_go_back_while_their_senders_live)
{
    constexpr uint32_t peers = 14, bytes = 60000; /* less than what is unmapped at once */
    join("server");
    std::deque<raw_peer> all;
    const std::vector<unsigned char> signal(bytes, 1);
    const auto send_from_all = [&](int times) {
        for (raw_peer &peer : all)
            for (int i = 0; i < times; i++) {
                peer.send_signal(signal.data(), bytes);
                next();
            }
    };
    for (uint32_t i = 0; i < peers; i++)
        all.push_back(raw_client(dir + "/server"));
    const long idle = resident();
    send_from_all(4);
    for (raw_peer &peer : all) /* the pages that this side has mapped */
        madvise(peer.area->ring(0).rest, rest_span, MADV_DONTNEED);
    EXPECT_GT(resident(), idle + 2048);
    expect_resident(idle + 1024);
}

TEST_F(mbx, full_rings_deaf_receivers_and_their_end_are_bounded_and_leave_nothing)
{
    constexpr int peers = 400;
    const std::string path = dir + "/server";
    other_process crowd([&](int line) {
        hear(line);
        std::deque<raw_peer> all;
        std::vector<uint32_t> signal(250, numbered);
        for (int i = 0; i < peers; i++) {
            all.emplace_back(path);
            if (!all.back().greet())
                break;
            while (all.back().send_signal(signal.data(), 1000) != record_sender::outcome::full) {
            }
        }
        say(line, static_cast<uint32_t>(all.size()));
        hear(line);
    });
    join("server");
    const long idle = resident();
    long most = 0;
    say(crowd.line.get(), 1);
    EXPECT_EQ(hear(crowd.line.get()), uint32_t{peers});
    std::set<uint32_t> senders;
    for (int i = 0; i < peers * 50; i++) {
        senders.insert(next().sender);
        if (i % 100 == 0)
            most = std::max(most, resident());
    }
    EXPECT_EQ(senders.size(), size_t{peers});
    for (size_t size : {200u, 1000u, 5000u, 20000u, 60000u})
        for (uint32_t id : senders) {
            for (size_t bytes = 0; bytes < 300000; bytes += size + 8)
                send_number(id, numbered, 0, size);
            most = std::max(most, resident());
        }
    crowd.shoot();
    int count = 0;
    for (; is_readable(mbx_get_fd(), 300); next())
        if (count++ % 100 == 0)
            most = std::max(most, resident());
    EXPECT_LT(count, peers * 25) << "of 250: what its helper has not yet noticed is received, too";
    EXPECT_LT(most, idle + 76L * 1024);
    expect_resident(idle + 2048);
    printf("idle %ld KiB, at most %ld, in the end %ld\n", idle, most, resident());
}

#endif

/* Like an old kernel, or a sandbox. */
static void refuse_call(uint32_t call)
{
    sock_filter filter[] = {{BPF_LD | BPF_W | BPF_ABS, 0, 0, offsetof(seccomp_data, nr)},
                            {BPF_JMP | BPF_JEQ | BPF_K, 0, 1, call},
                            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ERRNO | EOPNOTSUPP},
                            {BPF_RET | BPF_K, 0, 0, SECCOMP_RET_ALLOW}};
    const sock_fprog program{std::size(filter), filter};
    EXPECT_EQ(prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0), 0);
    EXPECT_EQ(prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program), 0);
}

TEST_F(mbx, a_side_that_cannot_ring_wakes_the_other_in_another_way)
{
    client a([](int, uint32_t server) {
        for (uint32_t i = 0; i < 500; i++) {
            const received r = next();
            EXPECT_EQ(r.value, i);
            if (i == 0)
                refuse_call(SYS_preadv2);
            send_number(server, numbered, i);
        }
    });
    join("server");
    const uint32_t id = a.admit();
    for (uint32_t i = 0; i < 500; i++) {
        send_number(id, numbered, i);
        EXPECT_EQ(next().value, i);
    }
    expect_notice(next(), id);
    expect_nothing();
}

/* Peers that receive by the rules and count each ring of their bells. */
struct receivers {
    owned_fd poll{epoll_create1(EPOLL_CLOEXEC)};
    std::vector<std::unique_ptr<raw_peer>> peers;

    /* Puts a new peer in a place. A new bell isn't writable, so its first ring is an event. */
    void add(size_t place, const std::string &path)
    {
        peers.resize(std::max(peers.size(), place + 1));
        raw_peer &p = *(peers[place] = std::make_unique<raw_peer>(path));
        EXPECT_TRUE(p.greet());
        EXPECT_TRUE(p.in.rest());
        epoll_event event{EPOLLOUT | EPOLLET, {}};
        event.data.u64 = place;
        EXPECT_EQ(epoll_ctl(poll.get(), EPOLL_CTL_ADD, p.near_bell.get(), &event), 0);
        EXPECT_NE(p.send_signal(&hello, sizeof(hello)), record_sender::outcome::full);
    }
    void expect_signal(size_t place, uint32_t value)
    {
        block *b = receive_block(peers[place]->in);
        ASSERT_NE(b, nullptr);
        uint32_t got;
        memcpy(&got, b->signal() + 1, sizeof(got));
        EXPECT_EQ(got, value);
        block_give(b);
        EXPECT_TRUE(peers[place]->in.rest());
    }
    void leave(size_t place)
    {
        epoll_ctl(poll.get(), EPOLL_CTL_DEL, peers[place]->near_bell.get(), nullptr);
        peers[place].reset();
    }
    /* Every present peer must be rung once. */
    void expect_all(uint32_t value)
    {
        auto left =
            std::count_if(peers.begin(), peers.end(), [](auto &peer) { return peer != nullptr; });
        for (; left > 0; left--) {
            epoll_event event;
            ASSERT_EQ(epoll_wait(poll.get(), &event, 1, patience_ms), 1) << left << " not woken";
            expect_signal(event.data.u64, value);
        }
    }
};

static void expect_a_child_can_do_the_same()
{
#ifndef __SANITIZE_THREAD__ /* it permits no thread after a fork with several */
    const other_process child([](int) {
        join("child");
        receivers all;
        std::vector<uint32_t> everybody(20);
        for (size_t place = 0; place < everybody.size(); place++)
            all.add(place, getenv("MBX_DIR") + std::string("/child"));
        for (uint32_t &id : everybody)
            id = next().sender;
        for (uint32_t id : everybody)
            send_number(id, numbered, 0);
        all.expect_all(0);
        mbx_exit();
    });
#endif
}

/* Each time accepts as many clients as requested, less one, and sends to all that it ever had.
   Finally exits right after a send. */
static void fan_out_as_told(int line)
{
    join("server");
    std::vector<uint32_t> everybody;
    say(line, 1);
    for (uint32_t value = 0, word = 1; word != 0; value++) {
        word = hear(line);
        for (uint32_t i = 1; i < word; i++)
            everybody.push_back(next().sender);
        for (uint32_t id : everybody)
            send_number(id, numbered, value);
        if (value == 2)
            expect_a_child_can_do_the_same();
    }
}

TEST_F(mbx, a_fan_out_wakes_each_receiver_once_with_and_without_io_uring)
{
    const std::pair<const char *, void (*)()> systems[] = {
        {"io_uring", [] {}},
        {"not wanted", [] { setenv("MBX_IO_URING", "0", 1); }},
        {"refused at the start", [] { refuse_call(SYS_io_uring_setup); }},
        {"refused later", [] { refuse_call(SYS_io_uring_enter); }},
        {"no class for batches", [] { refuse_call(SYS_sched_setscheduler); }}};
    constexpr size_t members = 40, first_to_die = 15, deaths = 10;
    for (const auto &[what, prepare] : systems) {
        SCOPED_TRACE(what);
        other_process server([prepare = prepare](int line) {
            prepare();
            fan_out_as_told(line);
        });
        EXPECT_EQ(hear(server.line.get()), 1u);
        receivers all;
        for (size_t place = 0; place < members; place++)
            all.add(place, dir + "/server");
        const int hostile = all.peers[30]->near_bell.get();
        fcntl(hostile, F_SETFL, 0);
        const uint64_t one = 1;
        uint32_t value = 0;
        for (uint32_t newcomers = members; value < 40 && !HasFatalFailure(); newcomers = deaths) {
            say(server.line.get(), 1 + newcomers);
            all.expect_all(value++);
            EXPECT_EQ(write(hostile, &one, sizeof(one)), ssize_t{sizeof(one)}); /* full again */
            say(server.line.get(), 1);
            for (size_t place = first_to_die; place < first_to_die + deaths; place++)
                all.leave(place);
            all.expect_all(value++);
            EXPECT_EQ(write(hostile, &one, sizeof(one)), ssize_t{sizeof(one)});
            for (size_t place = first_to_die; place < first_to_die + deaths; place++)
                all.add(place, dir + "/server"); /* some get descriptors of dead peers */
        }
        say(server.line.get(), 1 + deaths);
        all.expect_all(value++);
        shutdown(server.line.get(), SHUT_WR); /* the last send: the server exits right after it */
        EXPECT_EQ(server.end(), 0);
        for (size_t place = 0; place < members; place++)
            all.expect_signal(place, value);
    }
}

TEST_F(mbx, a_greeting_of_another_version_is_refused_and_explained_once)
{
    join("server");
    testing::internal::CaptureStderr();
    for (int i = 0; i < 3; i++) {
        raw_peer other(dir + "/server");
        const uint32_t greeting[6] = {0x3178626d}; /* "mbx1" */
        send(other.control.get(), greeting, sizeof(greeting), MSG_NOSIGNAL);
        expect_end(other);
    }
    const std::string text = testing::internal::GetCapturedStderr();
    EXPECT_NE(text.find("another version"), std::string::npos) << text;
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1) << text;
    expect_nothing();
}
