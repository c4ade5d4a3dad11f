/* SPDX-License-Identifier: Apache-2.0 */
/* Strangers at a mailbox of the real library: they connect, greet well, badly or not at all, pass
   descriptors of every kind, and use what they are handed in any way; the owner receives, answers
   and monitors meanwhile. What is received must be what was sent, whole, in order, once and under
   one sender; the descriptor is readable exactly while something is there; a death is told once,
   last; and a well-behaved client is served whatever the others do. */
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"
#include "platform/mbx/mbx_name.h"
#include "platform/mbx/mbx_socket.h"
#include "tests/fuzz/fuzz_input.h"

#include <array>
#include <cerrno>
#include <map>
#include <poll.h>
#include <set>
#include <string>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>
#include <vector>

static constexpr char name[] = "fuzzed";
static constexpr int patience_ms = 10000;
static constexpr uint32_t sizes[] = {4, 5, 60, 1000, MBX_LARGEST_SIGNAL, MBX_LARGEST_SIGNAL + 1,
                                     0, 3};
static constexpr uint32_t good_sizes = 6; /* the first ones, which hold a number */

namespace
{

/* The upper half of a signal's number tells who made it: from_key is added to the stranger's key, 0
   for the owner himself. */
enum origin : uint32_t { from_owner = 0x2000, from_client, from_key = 0x4000 };

struct stranger {
    owned_fd control = {};
    owned_fd rx = {};    /* what the mailbox sends comes out here */
    owned_fd tx = {};    /* handed over by the mailbox */
    uint32_t key = 0;    /* a new one for each connection */
    bool astray = false; /* tx leads elsewhere by now */
};

/* One sender's signals: what the kernel has taken, and what the owner has got. */
struct journal {
    uint32_t sent = 0;
    uint32_t received = 0;
    uint32_t sender = 0;
};

} // namespace

static std::array<stranger, 8> strangers;
static std::map<uint32_t, journal> journals; /* by key */
static std::map<uint32_t, uint32_t> key_of;  /* by the sender's mailbox */
static std::set<uint32_t> monitored, told;
static uint32_t own, last_key;
static sockaddr_un victim_address;
static owned_fd victim;  /* whoever is made to write there is abused */
static bool some_astray; /* a stranger may connect what is his to it once he is let in */

static bool is_readable(int fd, int timeout_ms)
{
    pollfd wanted = {fd, POLLIN, 0};
    int count;
    do {
        count = poll(&wanted, 1, timeout_ms); /* the fuzzer's alarm interrupts it */
    } while (count == -1 && errno == EINTR);
    return count == 1;
}

static bool connect_to_victim(int fd, sa_family_t family)
{
    sockaddr_un address = victim_address;
    address.sun_family = family;
    return connect(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0;
}

static owned_fd good_end(stranger &s)
{
    datagram_pair pair = make_datagram_pair();
    s.rx = std::move(pair.rx);
    return std::move(pair.tx);
}

static owned_fd bad_end(stranger &s, uint8_t choice)
{
    static constexpr int types[] = {SOCK_STREAM, SOCK_SEQPACKET, SOCK_DGRAM};
    owned_fd end(socket(choice % 2 == 0 ? AF_UNIX : AF_INET, types[choice / 2 % 3], 0));
    switch (choice / 8 % 4) {
    case 0:
        return owned_fd(eventfd(0, 0));
    case 1:
        return owned_fd(dup(s.tx ? s.tx.get() : s.control.get()));
    case 2:
        connect_to_victim(end.get(), AF_UNIX);
    }
    return end;
}

static stranger &one_who_is_there(fuzz_input &in)
{
    stranger &s = strangers[in.byte() % strangers.size()];
    if (s.control)
        return s;
    s = stranger{};
    s.control = connect_to_name(name, time_point::max());
    s.key = last_key = last_key % 0xfff + 1;
    return s;
}

/* Well or badly. Whatever has happened before, the mailbox answers or hangs up. */
static void greet(fuzz_input &in)
{
    stranger &s = one_who_is_there(in);
    const uint8_t how = in.byte();
    const owned_fd end = how < 192 ? good_end(s) : bad_end(s, in.byte());
    if (how % 32 == 31)
        send(s.control.get(), name, sizeof(name), MSG_DONTWAIT | MSG_NOSIGNAL);
    const auto kind = static_cast<greeting_kind>(how % 16 == 15 ? in.byte() : 1);
    send_greeting(s.control.get(), kind, {how % 16 == 0 ? 1 : s.key, 0}, end.get());
    if (how % 8 == 1)
        return;
    assert(is_readable(s.control.get(), patience_ms));
    if (auto answer = receive_greeting(s.control.get())) {
        s.tx = std::move(answer->tx);
        s.astray = false;
    }
}

static uint32_t next_number(uint32_t key, uint32_t size_index)
{
    return (from_key | key) << 16 | (journals[key].sent & 0xfff) << 4 | size_index;
}

static void send_signals(fuzz_input &in)
{
    static std::vector<uint32_t> data(MBX_LARGEST_SIGNAL / 4 + 1);
    stranger &s = one_who_is_there(in);
    const uint32_t size_index = in.byte() % std::size(sizes);
    for (int count = in.byte() % 8 == 0 ? 300 : 1; count > 0 && s.tx; count--) {
        data[0] = next_number(s.key, size_index);
        if (send(s.tx.get(), data.data(), sizes[size_index], MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            return;
        if (!s.astray && size_index < good_sizes)
            journals[s.key].sent++;
    }
}

static void disturb(fuzz_input &in)
{
    stranger &s = one_who_is_there(in);
    const int choice = in.byte();
    switch (in.byte() % 6) {
    case 0:
        shutdown(choice % 2 == 0 ? s.control.get() : s.tx.get(), choice / 2 % 3);
        break;
    case 1:
        if (connect_to_victim(s.tx.get(), choice % 2 == 0 ? AF_UNIX : AF_UNSPEC))
            s.astray = some_astray = true;
        break;
    case 2:
        setsockopt(s.tx.get(), SOL_SOCKET, SO_SNDBUF, &choice, sizeof(choice));
        break;
    case 3:
        (choice % 2 == 0 ? s.rx : s.tx).reset();
        break;
    case 4: /* too long for a signal: what it carries is for nobody */
        send_greeting(s.control.get(), greeting_kind::known, {}, s.rx.get());
        break;
    default:
        s = stranger{};
    }
}

static void send_as(uint32_t number, uint32_t receiver, size_t size)
{
    mbx_signal *signal = mbx_alloc(size, number);
    mbx_send(&signal, receiver, MBX_OWN_MAILBOX);
}

/* One that is there; a client is answered. What upper half its number had. */
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
    assert(!told.contains(sender) && (key == 0) == (sender == own));
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

/* To somebody who has been heard of, and who may be gone, or to himself. */
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
    assert(is_readable(mbx_get_fd(), patience_ms));
    return receive_one();
}

static bool something_is_missing()
{
    for (const auto &[key, j] : journals)
        if (j.received < j.sent)
            return true;
    return !monitored.empty();
}

/* A client is served. Then everybody goes; all that was sent, and every death, is still told. */
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
    char byte;
    while (recv(victim.get(), &byte, 1, MSG_DONTWAIT) != -1)
        assert(some_astray);
    some_astray = false;
    journals.clear();
    key_of.clear();
    told.clear();
}

static void clean_up()
{
    mbx_exit();
    unlink(victim_address.sun_path);
    rmdir(getenv("MBX_DIR"));
}

static bool start()
{
    char path[] = "/tmp/mbx-fuzz-XXXXXX";
    setenv("MBX_DIR", mkdtemp(path), 1);
    mbx_init(5, 0, 0, 0, 0);
    own = mbx_create_mailbox(name, 0);
    victim_address.sun_family = AF_UNIX;
    snprintf(victim_address.sun_path, sizeof(victim_address.sun_path), "%s/victim", path);
    victim = owned_fd(socket(AF_UNIX, SOCK_DGRAM, 0));
    const auto *address = reinterpret_cast<const sockaddr *>(&victim_address);
    assert(bind(victim.get(), address, sizeof(victim_address)) == 0);
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
