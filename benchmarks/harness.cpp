/* SPDX-License-Identifier: Apache-2.0 */
#include "benchmarks/harness.h"

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iostream>
#include <iterator>
#include <linux/futex.h>
#include <pthread.h>
#include <signal.h>
#include <sstream>
#include <stdexcept>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <utility>

namespace bench
{

/* Nothing that is measured takes as long: something is broken. */
static constexpr timespec patience = {60, 0};

static sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof(address.sun_path))
        fail(path + " is too long for a socket");
    path.copy(address.sun_path, path.size());
    return address;
}

static int bind_or_connect(const std::string &path, decltype(&::connect) attach)
{
    const sockaddr_un address = address_of(path);
    const int fd = need(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0), "socket");
    need(attach(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)), path.c_str());
    return fd;
}

static long futex(std::atomic<uint32_t> &word, int operation, uint32_t value)
{
    return syscall(SYS_futex, reinterpret_cast<uint32_t *>(&word), operation, value, &patience,
                   nullptr, 0);
}

static void count_up(std::atomic<uint32_t> &word)
{
    word.fetch_add(1);
    futex(word, FUTEX_WAKE, INT_MAX);
}

static void await(std::atomic<uint32_t> &word, uint32_t count)
{
    for (uint32_t seen = word; seen < count; seen = word)
        if (futex(word, FUTEX_WAIT, seen) != 0 && errno == ETIMEDOUT)
            fail("only " + std::to_string(seen) + " of " + std::to_string(count) +
                 " subscribers were heard of");
}

static std::vector<int64_t> time_calls(client &caller, request_kind kind, uint32_t count)
{
    std::vector<int64_t> times(count);
    for (int64_t &time : times) {
        const int64_t start = now_ns();
        caller.call(kind);
        time = now_ns() - start;
    }
    return times;
}

static int64_t time_flight(client &caller, request_kind kind, uint32_t count, uint32_t window)
{
    const int64_t start = now_ns();
    for (uint32_t sent = 0; sent < window; sent++)
        caller.send(kind);
    for (uint32_t received = 0; received < count; received++) {
        caller.receive();
        if (received + window < count)
            caller.send(kind);
    }
    return now_ns() - start;
}

static void be_client(client &caller)
{
    answer_lines([&](const std::vector<std::string> &words) -> std::vector<int64_t> {
        const auto kind = static_cast<request_kind>(std::stoul(words.at(1)));
        const auto count = static_cast<uint32_t>(std::stoul(words.at(2)));
        if (words.at(0) == "calls")
            return time_calls(caller, kind, count);
        return {time_flight(caller, kind, count, static_cast<uint32_t>(std::stoul(words.at(3))))};
    });
}

/* Subscribers are threads with small stacks, since there may be many. */
static void be_subscribers(const measured_system &system, const std::string &address,
                           receipts &told, uint32_t count)
{
    auto subscribe = [&] {
        try {
            system.subscribe(address, told);
        } catch (const std::exception &error) {
            fprintf(stderr, "a subscriber: %s\n", error.what());
            _exit(1);
        }
    };
    std::vector<std::jthread> threads;
    for (uint32_t index = 1; index < count; index++)
        threads.emplace_back(subscribe);
    subscribe();
}

/* The children go when their parent goes. */
static void fork_subscribers(const measured_system &system, const std::string &address,
                             const std::string &path, uint32_t processes, uint32_t each)
{
    receipts told(path);
    for (uint32_t index = 0; index < processes; index++) {
        if (need(fork(), "fork") != 0)
            continue;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        be_subscribers(system, address, told, each);
        _exit(1);
    }
    told.await_ready(processes * each);
    std::puts("ready");
    std::fflush(stdout);
    wait(nullptr);
    fail("a process of the subscribers has ended");
}

static int play_role(const measured_system &system, std::span<char *> words)
{
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (args.size() == 3 && args[0] == "serve" && system.serve != nullptr) {
        board events(args[2]);
        system.serve(args[1], events);
    } else if (args.size() == 2 && args[0] == "client") {
        be_client(*system.connect(args[1]));
    } else if (args.size() == 5 && args[0] == "subscribe") {
        fork_subscribers(system, args[1], args[2], static_cast<uint32_t>(std::stoul(args[3])),
                         static_cast<uint32_t>(std::stoul(args[4])));
    } else {
        fail("serve ADDRESS BOARD | client ADDRESS | subscribe ADDRESS RECEIPTS PROCESSES EACH");
    }
    return 0;
}

int64_t now_ns()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return int64_t{now.tv_sec} * 1'000'000'000 + now.tv_nsec;
}

void fail(const std::string &what)
{
    throw std::runtime_error(what);
}

int need(int result, const char *what)
{
    if (result < 0)
        fail(std::string(what) + ": " + std::strerror(errno));
    return result;
}

int listen_at(const std::string &path)
{
    const int fd = bind_or_connect(path, bind);
    need(listen(fd, 4096), "listen");
    return fd;
}

int connect_to(const std::string &path)
{
    return bind_or_connect(path, connect);
}

void watch_also(int epoll, int fd)
{
    epoll_event event = {};
    event.events = EPOLLIN;
    event.data.fd = fd;
    need(epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event), "epoll_ctl");
}

int watch(int fd)
{
    const int epoll = need(epoll_create1(EPOLL_CLOEXEC), "epoll_create1");
    watch_also(epoll, fd);
    return epoll;
}

void client::call(request_kind kind)
{
    send(kind);
    receive();
}

receipts::receipts(const std::string &path)
{
    const int fd = need(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600), path.c_str());
    need(ftruncate(fd, sizeof(shared_part)), "ftruncate");
    void *memory = mmap(nullptr, sizeof(shared_part), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
        fail("mmap");
    shared = static_cast<shared_part *>(memory);
}

void receipts::note_ready()
{
    count_up(shared->ready);
}

void receipts::note_told()
{
    const int64_t now = now_ns();
    int64_t last = shared->last;
    while (last < now && !shared->last.compare_exchange_weak(last, now)) {
    }
    /* Whoever raised the event reads the time once all have counted. It looks now and then rather
       than being woken up by each of them, which would be work within what is measured. */
    shared->told.fetch_add(1);
}

void receipts::begin()
{
    shared->told = 0;
    shared->last = 0;
}

int64_t receipts::await_told(uint32_t count)
{
    const int64_t deadline = now_ns() + patience.tv_sec * 1'000'000'000;
    while (shared->told < count) {
        if (now_ns() > deadline)
            fail("only " + std::to_string(shared->told) + " of " + std::to_string(count) +
                 " subscribers were told");
        usleep(100);
    }
    return shared->last;
}

void receipts::await_ready(uint32_t count)
{
    await(shared->ready, count);
}

board::board(const std::string &where)
    : path(where), wakeup(need(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd"))
{
}

int board::start()
{
    const int listener = listen_at(path);
    std::thread([this, listener] {
        /* What the board costs is no part of its server; by this name it is told apart. */
        pthread_setname_np(pthread_self(), "dolm-ric-board");
        hear(listener);
    }).detach();
    std::thread([this] { wait_for_events(); }).detach();
    return wakeup;
}

void board::hear(int listener)
{
    char request[largest_size];
    for (;;) {
        const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        while (recv(peer, request, sizeof(request), 0) > 0) {
            {
                const std::lock_guard guard(lock);
                waiting++;
            }
            raised.notify_one();
            send(peer, "ok", 2, MSG_NOSIGNAL);
        }
        close(peer);
    }
}

void board::wait_for_events()
{
    std::unique_lock guard(lock);
    for (;;) {
        raised.wait(guard, [this] { return waiting > 0; });
        queued += std::exchange(waiting, 0);
        eventfd_write(wakeup, 1);
    }
}

uint32_t board::take()
{
    const std::lock_guard guard(lock);
    eventfd_t count;
    eventfd_read(wakeup, &count);
    return std::exchange(queued, 0);
}

std::vector<std::string> split_words(const std::string &line)
{
    std::istringstream text(line);
    return {std::istream_iterator<std::string>(text), {}};
}

bool read_line(std::string &line)
{
    return static_cast<bool>(std::getline(std::cin, line));
}

void print_list(std::span<const int64_t> numbers)
{
    std::string text = "[";
    for (const int64_t number : numbers)
        text += (text.size() > 1 ? "," : "") + std::to_string(number);
    std::puts((text + "]").c_str());
    std::fflush(stdout);
}

int report_failures(int (*run)(std::span<char *> words), int count, char **words)
{
    try {
        return run(std::span(words, static_cast<size_t>(count)));
    } catch (const std::exception &error) {
        fprintf(stderr, "%s: %s\n", words[0], error.what());
        return 1;
    }
}

int run_system(const measured_system &system, int count, char **words)
{
    static const measured_system *the_system;
    the_system = &system;
    return report_failures([](std::span<char *> args) { return play_role(*the_system, args); },
                           count, words);
}

} // namespace bench
