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

/* No measured operation takes that long: past it, something is broken. */
static constexpr timespec patience = {60, 0};
static constexpr useconds_t pause_us = 2000;

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
                 " subscribers are ready");
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

/* The end of a connection is not timed: the server handles it during the pause. */
static std::vector<int64_t> time_connections(const measured_system &system,
                                             const std::string &address, waiting how,
                                             uint32_t count)
{
    std::vector<int64_t> times(count);
    for (int64_t &time : times) {
        usleep(pause_us);
        const int64_t start = now_ns();
        const std::unique_ptr<client> added = system.connect(address, how);
        added->confirm();
        time = now_ns() - start;
    }
    return times;
}

/* The client connects for its first calls: "connect" works without it, as a thread may have one
   connection only. */
static void be_client(const measured_system &system, const std::string &address, waiting how)
{
    std::unique_ptr<client> caller;
    answer_lines([&](const std::vector<std::string> &words) -> std::vector<int64_t> {
        const auto number = [&](size_t at) {
            return static_cast<uint32_t>(std::stoul(words.at(at)));
        };
        if (words.at(0) == "connect") {
            caller.reset();
            return time_connections(system, address, how, number(1));
        }
        if (!caller)
            caller = system.connect(address, how);
        const auto kind = static_cast<request_kind>(number(1));
        if (words.at(0) == "calls")
            return time_calls(*caller, kind, number(2));
        return {time_flight(*caller, kind, number(2), number(3))};
    });
}

/* Subscribers are threads with small stacks, since there may be many. */
static void be_subscribers(const measured_system &system, const std::string &address, waiting how,
                           receipts &record, uint32_t count)
{
    auto subscribe = [&] {
        try {
            system.subscribe(address, how, record);
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

/* The children are killed when their parent ends. */
static void fork_subscribers(const measured_system &system, const std::string &address, waiting how,
                             const std::string &path, uint32_t processes, uint32_t each)
{
    receipts record(path);
    for (uint32_t index = 0; index < processes; index++) {
        if (need(fork(), "fork") != 0)
            continue;
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        be_subscribers(system, address, how, record, each);
        _exit(1);
    }
    record.await_ready(processes * each);
    std::puts("ready");
    std::fflush(stdout);
    wait(nullptr);
    fail("a process of the subscribers has ended");
}

static waiting parse_waiting(const std::string &word)
{
    if (word != "read" && word != "epoll")
        fail("a client waits in 'read' or 'epoll', not in '" + word + "'");
    return word == "read" ? waiting::in_read : waiting::in_epoll;
}

static int play_role(const measured_system &system, std::span<char *> words)
{
    const std::vector<std::string> args(words.begin() + 1, words.end());
    if (args.size() == 3 && args[0] == "serve" && system.serve != nullptr) {
        board events(args[2]);
        system.serve(args[1], events);
    } else if (args.size() == 3 && args[0] == "client") {
        be_client(system, args[1], parse_waiting(args[2]));
    } else if (args.size() == 6 && args[0] == "subscribe") {
        fork_subscribers(system, args[1], parse_waiting(args[2]), args[3],
                         static_cast<uint32_t>(std::stoul(args[4])),
                         static_cast<uint32_t>(std::stoul(args[5])));
    } else {
        fail("serve ADDRESS BOARD | client ADDRESS WAITING | "
             "subscribe ADDRESS WAITING RECEIPTS PROCESSES EACH");
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

void await_ready(int epoll)
{
    epoll_event event;
    while (epoll_wait(epoll, &event, 1, -1) != 1) {
    }
}

void client::call(request_kind kind)
{
    send(kind);
    receive();
}

void client::confirm()
{
    call(request_kind::capabilities);
}

receipts::receipts(const std::string &path)
{
    const int fd = need(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600), path.c_str());
    need(ftruncate(fd, sizeof(shared_part)), "ftruncate");
    void *memory = mmap(nullptr, sizeof(shared_part), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory == MAP_FAILED)
        fail("mmap");
    shared_ = static_cast<shared_part *>(memory);
}

void receipts::note_ready()
{
    count_up(shared_->ready);
}

void receipts::note_receipt()
{
    const int64_t now = now_ns();
    int64_t last = shared_->last;
    while (last < now && !shared_->last.compare_exchange_weak(last, now)) {
    }
    /* The process that raised the event polls this count: a wake-up by each subscriber would be
       work within the measured time. */
    shared_->received.fetch_add(1);
}

void receipts::begin()
{
    shared_->received = 0;
    shared_->last = 0;
}

int64_t receipts::await_receipts(uint32_t count)
{
    const int64_t deadline = now_ns() + patience.tv_sec * 1'000'000'000;
    while (shared_->received < count) {
        if (now_ns() > deadline)
            fail("only " + std::to_string(shared_->received) + " of " + std::to_string(count) +
                 " subscribers have received an event");
        usleep(100);
    }
    return shared_->last;
}

void receipts::await_ready(uint32_t count)
{
    await(shared_->ready, count);
}

board::board(const std::string &path)
    : path_(path), wakeup_(need(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC), "eventfd"))
{
}

int board::start()
{
    const int listener = listen_at(path_);
    std::thread([this, listener] {
        /* The board is no part of the server: its processor time is left out by this name. */
        pthread_setname_np(pthread_self(), "dolm-ric-board");
        receive_events(listener);
    }).detach();
    std::thread([this] { queue_events(); }).detach();
    return wakeup_;
}

void board::receive_events(int listener)
{
    char request[largest_size];
    for (;;) {
        const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        while (recv(peer, request, sizeof(request), 0) > 0) {
            {
                const std::lock_guard guard(lock_);
                pending_++;
            }
            raised_.notify_one();
            send(peer, "ok", 2, MSG_NOSIGNAL);
        }
        close(peer);
    }
}

void board::queue_events()
{
    std::unique_lock guard(lock_);
    for (;;) {
        raised_.wait(guard, [this] { return pending_ > 0; });
        queued_ += std::exchange(pending_, 0);
        eventfd_write(wakeup_, 1);
    }
}

uint32_t board::take()
{
    const std::lock_guard guard(lock_);
    eventfd_t count;
    eventfd_read(wakeup_, &count);
    return std::exchange(queued_, 0);
}

void board::serve(const std::function<void()> &notify)
{
    const int epoll = watch(start());
    for (;;) {
        await_ready(epoll);
        for (uint32_t count = take(); count > 0; count--)
            notify();
    }
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
