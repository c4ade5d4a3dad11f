/* SPDX-License-Identifier: Apache-2.0 */
/* The parts of libmbx alone, with plain memory and eventfds: records in a ring, backlogs, the inbox
   and its order, accounts, the closing thread, and the waker. */
#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_connection.h"
#include "platform/mbx/mbx_inbox.h"
#include "platform/mbx/mbx_socket.h"
#include "platform/mbx/mbx_waker.h"
#include "testkit/raw_peer.h"

#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <malloc.h>
#include <map>
#include <netinet/in.h>
#include <random>
#include <set>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>
#include <vector>

struct ring : testing::Test {
    std::shared_ptr<mapped_area> area = mapped_area::map(make_area_memory().get());
    record_sender out{area->ring(0)};
    record_receiver in{area->ring(0)};
    std::vector<unsigned char> data = std::vector<unsigned char>(MBX_LARGEST_SIGNAL);

    bool push(uint32_t value, uint32_t size)
    {
        std::memcpy(data.data(), &value, sizeof(value));
        data[size - 1] ^= size > 4 ? 0x5a : 0;
        const bool is_sent = out.push(data.data(), size) != record_sender::outcome::full;
        data[size - 1] ^= size > 4 ? 0x5a : 0;
        return is_sent;
    }
    /* Removes the next record, whose bytes must have that value, and returns its size; 0 if there
       is none. */
    uint32_t pop(uint32_t value)
    {
        block *b = receive_block(in);
        if (b == nullptr)
            return 0;
        const uint32_t size = b->size;
        EXPECT_EQ(b->number(), value);
        block_give(b);
        return size;
    }
};

TEST_F(ring, records_of_all_sizes_come_out_as_they_went_in)
{
    std::mt19937 engine(1);
    const auto random = [&] { return static_cast<uint32_t>(engine()); };
    std::map<uint32_t, uint32_t> sizes;
    uint32_t sent = 0, got = 0;
    while (got < 20000) {
        const uint32_t size =
            random() % 8 == 0 ? 4 + random() % (MBX_LARGEST_SIGNAL - 3) : 4 + random() % 200;
        if (push(sent, size))
            sizes[sent++] = size;
        else
            ASSERT_NE(sent, got) << "an empty ring has no room";
        for (uint32_t count = random() % 3; count > 0 && got < sent; count--, got++)
            ASSERT_EQ(pop(got), sizes[got]);
    }
}

TEST_F(ring, one_that_keeps_running_empty_stays_in_its_home)
{
    for (uint32_t i = 0; i < 10000; i++) {
        ASSERT_TRUE(push(i, 4 + i % (home_bytes / 2 - 20)));
        ASSERT_EQ(pop(i), 4 + i % (home_bytes / 2 - 20));
    }
    EXPECT_EQ(out.touched(), 0u);
    EXPECT_EQ(in.touched(), 0u);
    ASSERT_TRUE(push(1, MBX_LARGEST_SIGNAL));
    EXPECT_GT(out.touched(), 0u);
    out.trim();
    EXPECT_GT(out.touched(), 0u) << "given back before it was taken";
    EXPECT_EQ(pop(1), MBX_LARGEST_SIGNAL);
    out.trim();
    EXPECT_EQ(out.touched(), 0u);
    ASSERT_TRUE(push(2, 100));
    EXPECT_EQ(pop(2), 100u);
}

TEST_F(ring, is_read_up_to_a_mark_once_nothing_older_is_left)
{
    push(1, 100), push(2, 100);
    out.mark();
    push(3, 100);
    for (uint32_t next = 1; next <= 3; next++) {
        EXPECT_EQ(out.is_mark_read(), next > 2) << next;
        pop(next);
    }
}

TEST_F(ring, an_ended_one_gives_what_was_in_it_then_and_nothing_that_comes_later)
{
    for (uint32_t i = 0; i < 3; i++)
        push(i, 40);
    in.finish();
    push(3, 40);
    for (uint32_t i = 0; i < 3; i++)
        EXPECT_EQ(pop(i), 40u);
    EXPECT_EQ(pop(3), 0u);
    EXPECT_TRUE(in.is_empty());
}

TEST_F(ring, what_cannot_be_is_refused)
{
    struct impossible {
        uint32_t head, size, skip = 0;
    };
    static const impossible cases[] = {{4, 8},
                                       {ring_bytes + 8, 8},
                                       {0u - 8u, 8},
                                       {16, 9},
                                       {16, UINT32_MAX - 1},
                                       {MBX_LARGEST_SIGNAL + 64, MBX_LARGEST_SIGNAL + 1},
                                       {ring_bytes, home_bytes - 7},
                                       {16, UINT32_MAX, 0},
                                       {ring_bytes, UINT32_MAX, 12},
                                       {64, UINT32_MAX, 64},
                                       {ring_bytes, UINT32_MAX, UINT32_MAX - 7}};
    for (const impossible &one : cases) {
        area->ring(0).words->head = one.head;
        std::memcpy(area->ring(0).home, &one.size, 2 * sizeof(uint32_t));
        EXPECT_EQ(receive_block(in), nullptr) << one.head << ", " << one.size;
    }
}

TEST_F(ring, a_receiver_that_takes_back_what_it_has_taken_changes_nothing)
{
    while (push(0, 1000)) {
    }
    for (uint32_t tail : {8u, ring_bytes, 0u - 8u, 0x80000000u}) {
        area->ring(0).words->tail = tail; /* only this first value can occur */
        EXPECT_FALSE(push(0, 1000)) << tail;
    }
}

TEST(area, is_taken_only_as_it_is_made)
{
    const owned_fd good = make_area_memory();
    EXPECT_TRUE(is_area_memory(good.get()));
    EXPECT_EQ(ftruncate(good.get(), 0), -1);
    const owned_fd unsealed(memfd_create("x", MFD_CLOEXEC | MFD_ALLOW_SEALING)),
        small(memfd_create("x", MFD_CLOEXEC | MFD_ALLOW_SEALING)), null(open("/dev/null", O_RDWR));
    EXPECT_EQ(ftruncate(unsealed.get(), area_bytes), 0);
    EXPECT_EQ(fcntl(small.get(), F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL), 0);
    for (const owned_fd *bad : {&unsealed, &small, &null})
        EXPECT_FALSE(is_area_memory(bad->get()));
    const owned_fd bell = make_bell(), epoll(epoll_create1(EPOLL_CLOEXEC)),
                   socket(::socket(AF_UNIX, SOCK_DGRAM, 0)),
                   other(::socket(AF_UNIX, SOCK_DGRAM, 0));
    EXPECT_TRUE(may_be_bell(bell.get(), socket.get()));
    for (const owned_fd *bad : {&epoll, &socket, &null, &good})
        EXPECT_FALSE(may_be_bell(bad->get(), other.get()));
}

/* The size that a backlog reports is what it takes of the heap, and all of it is freed. */
TEST(a_backlog, keeps_the_order_and_counts_what_it_holds)
{
    backlog waiting;
    std::vector<unsigned char> data(MBX_LARGEST_SIGNAL);
    for (const uint32_t largest : {4u, 300u, MBX_LARGEST_SIGNAL}) {
        const size_t before = mallinfo2().uordblks + mallinfo2().hblkhd;
        const auto size = [=](uint32_t i) { return std::max(4u, i * 7919u % (largest + 1)); };
        for (uint32_t i = 0; i < 2000; i++) {
            std::memcpy(data.data(), &i, sizeof(i));
            ASSERT_TRUE(waiting.push({data.data(), size(i)}));
        }
        const size_t taken = mallinfo2().uordblks + mallinfo2().hblkhd - before;
        if (taken > 0) { /* a sanitizer uses a heap of its own */
            EXPECT_GE(waiting.memory() + waiting.memory() / 16, taken);
            EXPECT_LE(waiting.memory(), 2 * taken);
        }
        for (uint32_t i = 0; i < 2000; i++, waiting.pop()) {
            ASSERT_EQ(std::memcmp(waiting.front().data(), &i, sizeof(i)), 0);
            ASSERT_EQ(waiting.front().size(), size(i));
        }
        EXPECT_TRUE(waiting.is_empty());
        EXPECT_EQ(waiting.memory(), 0u);
    }
}

/* An inbox; its senders ring when the test lets them. */
struct turns : testing::Test {
    struct sender {
        std::shared_ptr<mapped_area> area = mapped_area::map(make_area_memory().get());
        record_sender ring{area->ring(0)};
        owned_fd bell = make_bell();
        source *there = nullptr; /* present in the inbox */
        bool is_watched = false;
    };
    inbox in;
    std::map<uint32_t, sender> senders;
    std::mutex lock;
    static constexpr uint32_t own = 5;

    turns()
    {
        EXPECT_TRUE(in.open({this, [](void *, uint32_t) {},
                             [](void *self, uint32_t id) { static_cast<turns *>(self)->end(id); },
                             [](void *) {}}));
    }
    ~turns() override
    {
        in.close();
    }
    sender &add(uint32_t id)
    {
        sender &s = senders[id];
        s.there = in.add(id, s.area, 0, owned_fd(dup(s.bell.get())));
        EXPECT_TRUE(s.there->ring.rest());
        return s;
    }
    void end(uint32_t id)
    {
        in.end(*senders.at(id).there, nullptr);
    }
    void send(uint32_t id, uint32_t count = 1)
    {
        for (; count > 0; count--)
            if (id == own) {
                block *b = block_take(sizeof(id));
                b->sender = own;
                in.push(b);
            } else if (senders[id].ring.push(&id, sizeof(id)) == record_sender::outcome::to_ring) {
                ring_bell(senders[id].bell.get());
                if (!std::exchange(senders[id].is_watched, true))
                    in.watch(*senders[id].there);
            }
    }
    /* The sender of the next signal, 0 if there is none. The descriptor must agree. */
    uint32_t next()
    {
        const bool is_ready = is_readable(in.fd(), 0);
        std::unique_lock hold(lock);
        block *b = in.receive(hold, nullptr, 0, MBX_ANY_SENDER);
        EXPECT_EQ(is_ready, b != nullptr);
        const uint32_t from = b ? b->sender : 0;
        if (b)
            block_give(b);
        return from;
    }
};

TEST_F(turns, a_newcomer_waits_for_one_signal_of_each_other_source_at_most)
{
    for (uint32_t id : {16u, 17u, 18u, 19u, 20u})
        add(id);
    send(16, 100), send(17, 100), send(18, 100);
    for (uint32_t newcomer : {19u, own})
        for (int offset = 0; offset < 12; offset++) {
            for (int i = 0; i <= offset % 5; i++)
                EXPECT_NE(next(), 0u);
            send(newcomer), send(20);
            std::multiset<uint32_t> before;
            while (before.size() < 9 && (before.count(newcomer) == 0 || before.count(20) == 0))
                before.insert(next());
            for (uint32_t id : {0u, 16u, 17u, 18u, 20u, newcomer})
                EXPECT_LE(before.count(id), 1u) << "offset " << offset;
        }
}

TEST_F(turns, of_an_only_sender_a_few_signals_are_taken_before_others_are_looked_for)
{
    add(16);
    send(16, 100);
    for (int i = 0; i < 20; i++) {
        EXPECT_EQ(next(), 16u);
        send(own);
        EXPECT_NE(next(), next());
    }
}

TEST_F(turns, a_rung_bell_cannot_be_taken_back)
{
    const sender &s = add(16);
    send(16);
    EXPECT_EQ(next(), 16u);
    send(16);
    uint64_t count = 1;
    fcntl(s.bell.get(), F_SETFL, O_NONBLOCK);
    while (write(s.bell.get(), &count, sizeof(count)) == sizeof(count)) {
    }
    fcntl(s.bell.get(), F_SETFL, 0);
    EXPECT_EQ(next(), 16u);
    EXPECT_EQ(next(), 0u);
    send(16); /* with a full count, and a description that blocks */
    EXPECT_EQ(next(), 16u);
}

TEST_F(turns, who_rings_and_leaves_at_once_does_not_leave_the_owner_waiting)
{
    const sender &s = add(16);
    send(16);
    EXPECT_EQ(next(), 16u);
    ring_bell(s.bell.get());
    end(16);
    EXPECT_EQ(next(), 16u);
    EXPECT_EQ(next(), 0u);
}

TEST(accounts, leave_half_of_what_is_left_to_the_next_and_know_who_holds_most)
{
    rlimit before, limit;
    getrlimit(RLIMIT_NOFILE, &before);
    limit = before;
    limit.rlim_cur = 160 * fds_per_connection;
    setrlimit(RLIMIT_NOFILE, &limit);
    constexpr struct {
        pid_t process;
        uid_t user;
        size_t gets;
    } rows[] = {{101, 4711, 36}, {102, 4711, 18}, {103, 4711, 9}, {104, 4712, 20}, {0, 4713, 30},
                {105, 0, 8},     {106, 4714, 8},  {107, 0, 0},    {108, 4715, 8}};
    std::vector<std::shared_ptr<entry>> all;
    for (const auto &row : rows) {
        size_t got = 0;
        for (; auto one = entry::open({row.process, row.user}, false); got++)
            all.push_back(std::move(one));
        EXPECT_EQ(got, row.gets) << row.process;
    }
    all.clear();
    EXPECT_EQ(total.connections, 0u);
    const auto small = entry::open({101, 4711}, false), large = entry::open({102, 4711}, false),
               other = entry::open({103, 4712}, false), more = entry::open({103, 4712}, false);
    small->count(held_sent, 3000), large->count(held_received, 4000);
    other->count(held_sent, 3500), more->count(held_sent, 2500);
    for (const auto *less : {&small, &other, &more})
        EXPECT_GT(large->weigh(false), (*less)->weigh(false)) << "of the user with most";
    EXPECT_GT(small->weigh(true), large->weigh(false)) << "late";
    large->count(held_received, 2000);
    for (const auto *less : {&small, &large, &more})
        EXPECT_GT(other->weigh(false), (*less)->weigh(false));
    EXPECT_EQ(total.bytes, 11000u);
    mapped_area::map(make_area_memory().get())->hold(large, true);
    EXPECT_EQ(total.bytes, 9000u) << "its pages are given back";
    setrlimit(RLIMIT_NOFILE, &before);
}

/* A TCP socket with data that its peer doesn't read; close() takes a quarter of a minute. */
static owned_fd lingering(owned_fd &other)
{
    const owned_fd listener(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    socklen_t length = sizeof(address);
    auto *any = reinterpret_cast<sockaddr *>(&address);
    EXPECT_EQ(listen(listener.get(), 1), 0);
    getsockname(listener.get(), any, &length);
    owned_fd slow(socket(AF_INET, SOCK_STREAM, 0));
    EXPECT_EQ(connect(slow.get(), any, length), 0);
    other = owned_fd(accept(listener.get(), nullptr, nullptr));
    const ::linger wait{1, 15};
    setsockopt(slow.get(), SOL_SOCKET, SO_LINGER, &wait, sizeof(wait));
    const std::vector<char> much(100000);
    while (send(slow.get(), much.data(), much.size(), MSG_DONTWAIT) > 0) {
    }
    return slow;
}

TEST(the_closer, lets_nobody_wait_and_refuses_those_who_pass_too_much)
{
    const auto began = std::chrono::steady_clock::now();
    owned_fd others[20];
    const peer_identity peer{77, 0}, witness{78, 0};
    for (owned_fd &other : others) {
        EXPECT_EQ(is_closing_too_many(peer), &other - others > 16);
        int ends[2];
        socketpair(AF_UNIX, SOCK_SEQPACKET, 0, ends);
        owned_fd control(ends[0]), far_end(ends[1]);
        prepare_control(control.get());
        send(far_end.get(), "", 0, 0); /* looks like the end of the connection */
        owned_fd slow = lingering(other);
        EXPECT_EQ(pass_fds(far_end.get(), {slow.get()}), 1);
        slow = owned_fd();
        hang_up(std::move(control), {}, peer);
    }
    EXPECT_TRUE(is_closing_too_many(peer));
    EXPECT_FALSE(is_closing_too_many(witness));
    EXPECT_LT(std::chrono::steady_clock::now() - began, std::chrono::seconds(10));
}

/* How often a bell made by make_bell was rung. */
static uint64_t rings_of(int bell)
{
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(bell));
    for (std::string word; info >> word;)
        if (word == "eventfd-count:" && info >> word)
            return UINT64_MAX - 1 - std::stoull(word, nullptr, 16);
    return UINT64_MAX;
}

TEST(the_waker, rings_each_bell_once_and_waits_for_none)
{
    const auto open_fds = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = open_fds();
    for (int round = 0; round < 10; round++) {
        int ends[2];
        ASSERT_EQ(pipe(ends), 0);
        const owned_fd pipe_in(ends[0]), pipe_out(ends[1]), empty(eventfd(0, EFD_SEMAPHORE));
        std::vector<owned_fd> bells(600);
        std::vector<owned_fd> copies;
        for (size_t i = 0; i < bells.size(); i++) {
            bells[i] = make_bell();
            copies.emplace_back(dup(bells[i].get()));
            fcntl(bells[i].get(), F_SETFL, i % 3 == 0 ? 0 : O_NONBLOCK);
            if (!ring_later(bells[i].get()))
                ring_bell(bells[i].get());
            for (int slow : {pipe_in.get(), empty.get()})
                if (i % 50 == 7 && !ring_later(slow))
                    ring_bell(slow);
            if (i % 2 == 0)
                retire_bell(std::move(bells[i]));
        }
        if (round % 2 == 0)
            stop_waker();
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        for (const owned_fd &copy : copies)
            while (rings_of(copy.get()) == 0 && std::chrono::steady_clock::now() < deadline)
                std::this_thread::yield();
        const uint64_t one = 1; /* no abandoned read may consume this */
        EXPECT_EQ(write(empty.get(), &one, sizeof(one)), ssize_t{sizeof(one)});
        stop_waker();
        EXPECT_EQ(UINT64_MAX - 1 - rings_of(empty.get()), one);
        for (const owned_fd &copy : copies)
            EXPECT_EQ(rings_of(copy.get()), 1u);
    }
    EXPECT_LE(open_fds(), before); /* the closer may not have finished */
}

TEST(the_waker, rings_for_connections_that_end_meanwhile)
{
    for (int round = 0; round < 20; round++) {
        std::vector<owned_fd> copies;
        std::vector<std::unique_ptr<connection>> all;
        block *b = block_take(8);
        fan_out run;
        for (int i = 0; i < 60; i++) {
            connection_parts parts;
            parts.area = mapped_area::map(make_area_memory().get());
            parts.far_bell = make_bell();
            copies.emplace_back(dup(parts.far_bell.get()));
            EXPECT_TRUE(record_receiver(parts.area->ring(1)).rest());
            all.push_back(std::make_unique<connection>(1, std::move(parts)));
        }
        for (auto &c : all)
            EXPECT_TRUE(deliver(*c, b, run));
        for (auto &c : all)
            let_go(*c, ended_by::us);
        stop_waker();
        for (const owned_fd &copy : copies)
            EXPECT_EQ(rings_of(copy.get()), 1u);
        block_give(b);
    }
}

TEST(a_fan_out, is_a_row_of_many_different_receivers)
{
    fan_out run;
    std::vector<uint32_t> met(100);
    const auto wake = [&](size_t receivers, bool receives) {
        size_t included = 0;
        for (size_t i = 0; i < receivers; i++) {
            included += run.includes(met[i]);
            if (receives)
                run.end();
        }
        return receivers - included;
    };
    for (size_t few : {1u, 2u, 10u})
        for (int time = 0; time < 50; time++)
            EXPECT_EQ(wake(few, false), few);
    EXPECT_EQ(wake(100, true), 100u) << "answers";
    EXPECT_EQ(wake(100, false), fan_out::left_out_at_first);
    EXPECT_LT(wake(100, false), fan_out::left_out_at_first) << "another one is expected";
    EXPECT_LT(wake(100, false), fan_out::left_out_at_first);
    wake(10, false);
    EXPECT_EQ(wake(10, false), 10u);
}
