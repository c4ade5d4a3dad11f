/* SPDX-License-Identifier: Apache-2.0 */
/* Strangers at a mailbox of the real library: they connect, send a valid greeting, a wrong one or
   none, pass descriptors, and do to the shared memory, the bells and the control connection
   everything that a process can do; the owner receives, answers and monitors meanwhile. Received
   signals must equal the sent ones, be complete, in order, not repeated and from one sender; the
   descriptor is readable exactly while there is a signal; a death is reported once, last; and a
   well-behaved client is served in any case. A stranger that has spoiled its own ring may deliver
   anything, but only under its own id. */
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#include "testkit/raw_peer.h"
#include "tests/fuzz/fuzz_input.h"

#include <array>
#include <fcntl.h>
#include <map>
#include <optional>
#include <poll.h>
#include <set>
#include <string>
#include <sys/mman.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr char name[] = "fuzzed";
static constexpr uint32_t sizes[] = {4, 5, 60, 1000, MBX_LARGEST_SIGNAL, 0, 3};
static constexpr uint32_t good_sizes = 5; /* the first sizes, which have room for a number */

/* The upper half of a signal's number is its origin: from_key plus the stranger's key; the owner
   has the key 0. */
enum origin : uint32_t { from_owner = 0x2000, from_client, from_key = 0x4000 };

struct stranger {
    std::optional<raw_peer> peer = {};
    uint32_t key = 0; /* each connection has a new one */
    bool said_hello = false;
};

/* One sender's signals: those sent, and those that the owner has received. */
struct journal {
    uint32_t sent = 0;
    uint32_t received = 0;
    uint32_t sender = 0;
    bool spoiled = false; /* the ring may contain anything */
};

static std::array<stranger, 8> strangers;
static std::map<uint32_t, journal> journals; /* by key */
static std::map<uint32_t, uint32_t> key_of;  /* keys by the sender's mailbox */
static std::set<uint32_t> monitored, told;
static uint32_t own, last_key;
static std::string directory;

static stranger &one_who_is_there(fuzz_input &in)
{
    stranger &s = strangers[in.byte() % strangers.size()];
    if (s.peer)
        return s;
    s.peer.emplace(directory + "/" + name);
    s.said_hello = false;
    s.key = last_key = last_key % 0xfff + 1;
    return s;
}

/* Sends a right or wrong greeting. In any state the mailbox must answer or disconnect. */
static void greet(fuzz_input &in)
{
    stranger &s = one_who_is_there(in);
    const uint8_t how = in.byte();
    const bool greeted = s.peer->area != nullptr;
    if (how % 32 == 31)
        send(s.peer->control.get(), name, sizeof(name), MSG_DONTWAIT | MSG_NOSIGNAL);
    if (how % 16 == 15)
        s.peer->pass({STDERR_FILENO, STDERR_FILENO});
    /* A second greeting ends the connection; later signals are not received. */
    if (std::exchange(s.said_hello, true))
        journals[s.key].spoiled = true;
    const auto kind = static_cast<greeting_kind>(how % 16 == 14 ? in.byte() : 1);
    send_greeting(s.peer->control.get(), kind, {how % 16 == 0 ? 1 : s.key, 0});
    if (how % 8 == 1 || greeted)
        return;
    assert(is_readable(s.peer->control.get()));
    s.peer->take_answer();
}

static uint32_t next_number(uint32_t key, uint32_t size_index)
{
    return (from_key | key) << 16 | (journals[key].sent & 0xfff) << 4 | size_index;
}

static void send_signals(fuzz_input &in)
{
    static std::vector<uint32_t> data(MBX_LARGEST_SIGNAL / 4 + 1);
    stranger &s = one_who_is_there(in);
    const uint32_t size_index = in.byte() % uint32_t{std::size(sizes)};
    pollfd control = {s.peer->control.get(), POLLRDHUP, 0};
    if (poll(&control, 1, 0) != 0) /* disconnected, because it doesn't read */
        return;
    for (int count = in.byte() % 8 == 0 ? 300 : 1; count > 0 && s.peer->area; count--) {
        data[0] = next_number(s.key, size_index);
        if (s.peer->send_signal(data.data(), sizes[size_index]) == record_sender::outcome::full)
            return;
        if (size_index < good_sizes)
            journals[s.key].sent++;
        else
            journals[s.key].spoiled = true;
    }
}

/* Writes any word of the shared memory, mostly one that is in use. */
static void scribble(raw_peer &peer, fuzz_input &in)
{
    const uint8_t where = in.byte();
    static constexpr size_t words_in_use[] = {0, 4, 64, 68}; /* head, armed, tail, wants_room */
    auto *words = reinterpret_cast<unsigned char *>(peer.area->ring(where / 4 % 2).words);
    const auto *place = static_cast<const unsigned char *>(peer.out.place());
    unsigned char *target =
        where < 128 ? words + words_in_use[where % 4] : const_cast<unsigned char *>(place);
    uint32_t word = in.byte();
    word |= static_cast<uint32_t>(in.byte()) << (in.byte() % 4 * 8);
    __atomic_store_n(reinterpret_cast<uint32_t *>(target), word, __ATOMIC_RELAXED);
}

static void disturb(fuzz_input &in)
{
    stranger &s = one_who_is_there(in);
    raw_peer &peer = *s.peer;
    const uint8_t choice = in.byte();
    if (!peer.area) {
        s.peer.reset();
        return;
    }
    journal &j = journals[s.key];
    const bool is_high = choice % 16 > 7;
    j.spoiled |= choice % 8 <= 3 || choice % 8 == 5 || (choice % 8 == 6 && !is_high);
    switch (choice % 8) {
    case 0:
    case 1:
    case 2:
        scribble(peer, in);
        if (is_high)
            peer.ring();
        break;
    case 3:
        peer.ring();
        break;
    case 4: { /* the bells' counts and flags, which both sides share */
        const uint64_t much = UINT64_MAX - 1 - choice;
        const int bell = is_high ? peer.far_bell.get() : peer.near_bell.get();
        fcntl(bell, F_SETFL, O_NONBLOCK);
        [[maybe_unused]] const ssize_t n = write(bell, &much, sizeof(much));
        fcntl(bell, F_SETFL, choice % 32 > 15 ? O_NONBLOCK : 0);
        break;
    }
    case 5:
        madvise(peer.area->ring(0).rest, 4 * page_bytes, MADV_REMOVE);
        if (is_high)
            madvise(peer.area->ring(0).words, page_bytes, MADV_REMOVE);
        break;
    case 6: {
        std::vector<owned_fd> passed;
        send(peer.control.get(), is_high ? "r" : "b", 1, MSG_DONTWAIT | MSG_NOSIGNAL);
        receive_wake(peer.control.get(), passed);
        break;
    }
    default:
        s.peer.reset();
    }
}

static void send_as(uint32_t number, uint32_t receiver, size_t size)
{
    mbx_signal *signal = mbx_alloc(size, number);
    mbx_send(&signal, receiver, MBX_OWN_MAILBOX);
}

/* Neither the owner, nor a client, nor a stranger that only sent signals has sent this. */
static bool is_odd(uint32_t origin)
{
    const auto j = journals.find(origin - from_key);
    return origin < from_owner ||
           (origin >= from_key && (j == journals.end() || j->second.spoiled));
}

/* From a stranger that has spoiled its ring. If the sender can be identified, all signals must be
   its own. */
static void take_anything(uint32_t sender, uint32_t key)
{
    if (key_of.contains(sender))
        return;
    const auto j = journals.find(key);
    if (j != journals.end() && j->second.spoiled)
        key_of[sender] = key;
}

/* Receives a signal that has arrived; answers a client. Returns the upper half of the signal's
   number. */
static uint32_t receive_one()
{
    mbx_signal *signal = mbx_receive(nullptr, 0, MBX_ANY_SENDER);
    assert(signal != nullptr);
    const uint32_t number = signal->number, origin = number >> 16, key = origin - from_key;
    const uint32_t sender = mbx_sender(signal), size = mbx_size(signal);
    mbx_free(&signal);
    if (number == MBX_MONITOR_DEFAULT_NO) {
        assert(monitored.erase(sender) == 1);
        told.insert(sender);
        return origin;
    }
    assert(!told.contains(sender));
    const auto known = key_of.find(sender);
    if (sender != own &&
        (known == key_of.end() ? is_odd(origin) : journals[known->second].spoiled)) {
        take_anything(sender, key);
        return 0;
    }
    assert((key == 0) == (sender == own));
    if (origin == from_client)
        send_as(from_owner << 16, sender, sizes[0]);
    if (origin < from_key)
        return origin;
    journal &j = journals[key];
    assert(j.received < j.sent && (j.received++ & 0xfff) == (number >> 4 & 0xfff));
    assert(size == std::min<size_t>(sizes[number & 0xf], MBX_LARGEST_SIGNAL));
    assert(j.sender == 0 || j.sender == sender);
    j.sender = sender;
    assert(key == 0 || key_of.emplace(sender, key).first->second == key);
    return origin;
}

static void receive(fuzz_input &)
{
    if (is_readable(mbx_get_fd(), 0))
        receive_one();
}

/* The owner sends to itself, or to a mailbox that it knows and that may have died. */
static void owner_acts(fuzz_input &in)
{
    const uint8_t choice = in.byte();
    if (key_of.empty() || choice % 4 == 0) {
        send_as(next_number(0, 0), own, sizes[0]);
        journals[0].sent++;
        return;
    }
    const uint32_t peer =
        std::next(key_of.begin(), choice % static_cast<int>(key_of.size()))->first;
    if (choice >= 128 && monitored.insert(peer).second)
        mbx_monitor(peer, nullptr);
    for (int count = in.byte() % 100; count > 0; count--)
        send_as(from_owner << 16, peer, choice % 2 == 0 ? 96 : MBX_LARGEST_SIGNAL);
}

static void (*const steps[])(fuzz_input &in) = {greet,   send_signals, receive,    greet,
                                                disturb, send_signals, owner_acts, receive};

static void be_a_client()
{
    assert(mbx_create_mailbox(nullptr, 0) != MBX_NO_MAILBOX);
    const uint32_t server = mbx_locate(name);
    assert(server != MBX_NO_MAILBOX);
    send_as(from_client << 16, server, sizes[3]);
    mbx_signal *answer = mbx_receive(nullptr, patience_ms, server);
    assert(answer != nullptr && answer->number == from_owner << 16);
    mbx_free(&answer);
    mbx_delete_mailbox(mbx_own_mailbox());
}

static uint32_t await_one()
{
    assert(is_readable(mbx_get_fd()));
    return receive_one();
}

static bool something_is_missing()
{
    for (const auto &[key, j] : journals)
        if (!j.spoiled && j.received < j.sent)
            return true;
    return !monitored.empty();
}

/* A client is served. Then all disconnect; all sent signals, and every death, must still be
   received. */
static void end()
{
    std::thread client(be_a_client);
    while (await_one() != from_client) {
    }
    client.join();
    strangers = {};
    for (const auto &[peer, key] : key_of)
        if (monitored.insert(peer).second)
            mbx_monitor(peer, nullptr);
    while (something_is_missing())
        await_one();
    while (mbx_signal *signal = mbx_receive(nullptr, 0, MBX_ANY_SENDER))
        mbx_free(&signal);
    assert(!is_readable(mbx_get_fd(), 0));
    journals.clear();
    key_of.clear();
    told.clear();
}

static void clean_up()
{
    mbx_exit();
    rmdir(directory.c_str());
}

static bool start()
{
    char path[] = "/tmp/mbx-fuzz-XXXXXX";
    directory = mkdtemp(path);
    setenv("MBX_DIR", directory.c_str(), 1);
    mbx_init(5, 0, 0, 0, 0);
    own = mbx_create_mailbox(name, 0);
    return atexit(clean_up) == 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const bool started = start();
    fuzz_input in = {data, data + size};

    for (int count = 0; count < 200 && in.at != in.end; count++)
        in.one_of(steps)(in);
    end();
    return 0;
}
