/* Strangers at a mailbox of the real library: they connect, greet well, badly or not at all, pass
   descriptors of every kind, and use what they are handed in any way; the owner receives, answers
   and monitors meanwhile. What is received must be what was sent, whole, in order, once and under
   one sender; the descriptor is readable exactly while something is there; a death is told once,
   last; and a well-behaved client is served whatever the others do. */
#include "fuzz_input.h"
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"

#include <array>
#include <cerrno>
#include <cstring>
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

namespace
{

constexpr char name[] = "fuzzed";
constexpr int patience_ms = 10000;
constexpr uint32_t sizes[] = {4, 5, 8, 60, 1000, MBX_LARGEST_SIGNAL, 0, 3, MBX_LARGEST_SIGNAL + 1};
constexpr uint32_t good_sizes = 6; /* the first ones */

/* The upper half of a signal's number tells who made it: from_key is added to the stranger's key, 0
   for the owner himself. */
enum origin : uint32_t { from_owner = 0x2000, from_client, from_key = 0x4000 };

/* How a control connection begins, on the wire. */
struct greeting {
    uint32_t magic = 0x3178626d;
    uint32_t kind = 1; /* hello */
    uint64_t token[2] = {};
};

struct stranger {
    int control = -1;
    int rx = -1;  /* what the mailbox sends comes out here */
    int tx = -1;  /* handed over by the mailbox */
    uint32_t key; /* a new one for each connection */
    bool astray;  /* tx leads elsewhere by now */
};

/* One sender's signals: what the kernel has taken, and what the owner has got. */
struct journal {
    uint32_t sent = 0;
    uint32_t received = 0;
    uint32_t sender = 0;
};

sockaddr_un victim_address;
std::array<stranger, 8> strangers;
std::map<uint32_t, journal> journals; /* by key */
std::map<uint32_t, uint32_t> key_of;  /* by the sender's mailbox */
std::set<uint32_t> monitored, told;
uint32_t own, last_key;
int victim;       /* has an address: whoever is made to write there is abused */
bool some_astray; /* a stranger may connect what is his to it once he is let in */

void drop(int &fd)
{
    if (fd != -1)
        close(fd);
    fd = -1;
}

int socket_at(const sockaddr_un &address, int type, int (*call)(int, const sockaddr *, socklen_t))
{
    const int fd = socket(AF_UNIX, type, 0);
    require(call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0);
    return fd;
}

bool is_readable(int fd, int timeout_ms)
{
    pollfd wanted = {fd, POLLIN, 0};
    int count;
    do {
        count = poll(&wanted, 1, timeout_ms); /* the fuzzer's alarm interrupts it */
    } while (count == -1 && errno == EINTR);
    return count == 1;
}

/* One end of a pair; the other one stays in `kept`. */
int pair_end(int type, int &kept)
{
    int ends[2];
    require(socketpair(AF_UNIX, type, 0, ends) == 0);
    drop(kept);
    kept = ends[0];
    return ends[1];
}

int (*const descriptors[])(stranger &s) = {
    [](stranger &s) { return pair_end(SOCK_DGRAM, s.rx); },
    [](stranger &) { return socket_at(victim_address, SOCK_DGRAM, connect); },
    [](stranger &s) { return pair_end(SOCK_STREAM, s.rx); },
    [](stranger &s) { return pair_end(SOCK_SEQPACKET, s.rx); },
    [](stranger &) { return socket(AF_UNIX, SOCK_DGRAM, 0); },
    [](stranger &) { return socket(AF_INET, SOCK_DGRAM, 0); },
    [](stranger &) { return eventfd(0, 0); },
    [](stranger &s) { return dup(s.control); },
    [](stranger &s) { return dup(s.tx != -1 ? s.tx : s.control); },
};

struct message {
    iovec bytes;
    alignas(cmsghdr) char room[CMSG_SPACE(4 * sizeof(int))] = {};
    msghdr header = {};

    message(void *data, size_t size, size_t fds) : bytes{data, size}
    {
        header.msg_iov = &bytes;
        header.msg_iovlen = 1;
        header.msg_control = fds > 0 ? room : nullptr;
        header.msg_controllen = fds > 0 ? CMSG_SPACE(fds * sizeof(int)) : 0;
    }
};

/* Takes the descriptors over. */
void pass(int to, void *data, size_t size, std::vector<int> fds)
{
    message m(data, size, fds.size());
    if (cmsghdr *header = CMSG_FIRSTHDR(&m.header)) {
        header->cmsg_level = SOL_SOCKET;
        header->cmsg_type = SCM_RIGHTS;
        header->cmsg_len = CMSG_LEN(fds.size() * sizeof(int));
        memcpy(CMSG_DATA(header), fds.data(), fds.size() * sizeof(int));
    }
    sendmsg(to, &m.header, MSG_DONTWAIT | MSG_NOSIGNAL);
    for (int &fd : fds)
        drop(fd);
}

void take_answer(stranger &s)
{
    greeting answer;
    message m(&answer, sizeof(answer), 1);
    if (recvmsg(s.control, &m.header, MSG_DONTWAIT) <= 0 || CMSG_FIRSTHDR(&m.header) == nullptr)
        return;
    drop(s.tx);
    memcpy(&s.tx, CMSG_DATA(CMSG_FIRSTHDR(&m.header)), sizeof(s.tx));
    s.astray = false;
}

void leave(stranger &s)
{
    drop(s.control);
    drop(s.rx);
    drop(s.tx);
}

stranger &one_who_is_there(fuzz_input &in)
{
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    stranger &s = strangers[in.byte() % strangers.size()];
    if (s.control == -1) {
        leave(s);
        snprintf(address.sun_path, sizeof(address.sun_path), "%s/%s", getenv("MBX_DIR"), name);
        s.control = socket_at(address, SOCK_SEQPACKET, connect);
        s.key = last_key = last_key % 0xfff + 1;
    }
    return s;
}

/* Well or badly. Whatever has happened before, the mailbox answers or hangs up. */
void greet(fuzz_input &in)
{
    stranger &s = one_who_is_there(in);
    const uint8_t how = in.byte();
    greeting hello;
    size_t size = sizeof(hello);
    hello.token[0] = how % 16 == 0 ? 1 : s.key;
    std::vector<int> fds(how < 160 ? 1 : how / 2 % 4);
    for (int &fd : fds)
        fd = how < 160 ? descriptors[0](s) : in.one_of(descriptors)(s);
    if (how >= 224) {
        reinterpret_cast<uint8_t *>(&hello)[in.byte() % sizeof(hello)] ^= in.byte();
        size -= in.byte() / 2 % sizeof(hello);
    }
    pass(s.control, &hello, size, fds);
    if (how % 8 == 1)
        return;
    require(is_readable(s.control, patience_ms));
    take_answer(s);
}

uint32_t next_number(uint32_t key, uint32_t size_index)
{
    return (from_key | key) << 16 | (journals[key].sent & 0xfff) << 4 | size_index;
}

void send_signals(fuzz_input &in)
{
    static std::vector<uint32_t> data(MBX_LARGEST_SIGNAL / 4 + 1);
    stranger &s = one_who_is_there(in);
    const uint32_t size_index = in.byte() % std::size(sizes);
    for (int count = in.byte() % 8 == 0 ? 300 : 1; count > 0 && s.tx != -1; count--) {
        data[0] = next_number(s.key, size_index);
        if (send(s.tx, data.data(), sizes[size_index], MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            return;
        if (!s.astray && size_index < good_sizes)
            journals[s.key].sent++;
    }
}

void lead_astray(stranger &s, sa_family_t family)
{
    sockaddr_un address = victim_address;
    address.sun_family = family;
    if (connect(s.tx, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0)
        s.astray = some_astray = true;
}

void (*const disturbances[])(stranger &s, int choice) = {
    [](stranger &s, int choice) { shutdown(s.control, choice % 3); },
    [](stranger &s, int choice) { shutdown(s.tx, choice % 3); },
    [](stranger &s, int) { lead_astray(s, AF_UNIX); },
    [](stranger &s, int) { lead_astray(s, AF_UNSPEC); },
    [](stranger &s, int choice) { setsockopt(s.tx, SOL_SOCKET, SO_SNDBUF, &choice, sizeof(int)); },
    [](stranger &s, int choice) { drop(choice % 2 == 0 ? s.rx : s.tx); },
    [](stranger &s, int) { leave(s); },
    /* Too short for a signal: what it carries is for nobody. */
    [](stranger &s, int choice) { pass(s.tx, &s.key, 1, {descriptors[choice % 9](s)}); },
};

void disturb(fuzz_input &in)
{
    stranger &s = one_who_is_there(in);
    in.one_of(disturbances)(s, in.byte());
}

/* One that is there; the caller frees it. */
mbx_signal *receive_one()
{
    mbx_signal *signal = mbx_receive(nullptr, 0, MBX_ANY_SENDER);
    require(signal != nullptr);
    const uint32_t sender = mbx_sender(signal);
    const uint32_t key = (signal->number >> 16) - from_key;
    if (signal->number == MBX_MONITOR_DEFAULT_NO) {
        require(monitored.erase(sender) == 1);
        told.insert(sender);
        return signal;
    }
    require(!told.contains(sender) && (key == 0) == (sender == own));
    if (signal->number >> 16 < from_key)
        return signal;
    journal &j = journals[key];
    require(j.received < j.sent && (j.received++ & 0xfff) == (signal->number >> 4 & 0xfff));
    require(mbx_size(signal) == sizes[signal->number & 0xf]);
    require(j.sender == 0 || j.sender == sender);
    j.sender = sender;
    require(key == 0 || key_of.emplace(sender, key).first->second == key);
    return signal;
}

void receive(fuzz_input &)
{
    if (!is_readable(mbx_get_fd(), 0))
        return;
    mbx_signal *signal = receive_one();
    mbx_free(&signal);
}

void send_as(uint32_t number, uint32_t receiver, size_t size)
{
    mbx_signal *signal = mbx_alloc(size, number);
    mbx_send(&signal, receiver, MBX_OWN_MAILBOX);
}

/* To somebody who has been heard of, and who may be gone. */
void owner_acts(fuzz_input &in)
{
    if (key_of.empty())
        return;
    const uint8_t choice = in.byte();
    const uint32_t peer =
        std::next(key_of.begin(), choice % static_cast<int>(key_of.size()))->first;
    if (choice >= 128 && monitored.insert(peer).second)
        mbx_monitor(peer, nullptr);
    for (int count = in.byte() % 100; count > 0; count--)
        send_as(from_owner << 16, peer, choice % 2 == 0 ? 96 : MBX_LARGEST_SIGNAL);
}

void send_to_self(fuzz_input &)
{
    send_as(next_number(0, 0), own, sizes[0]);
    journals[0].sent++;
}

void (*const steps[])(fuzz_input &in) = {greet,   send_signals, receive, greet,
                                         disturb, send_signals, receive, owner_acts,
                                         greet,   send_to_self};

void be_a_client()
{
    require(mbx_create_mailbox(nullptr, 0) != MBX_NO_MAILBOX);
    const uint32_t server = mbx_locate(name);
    require(server != MBX_NO_MAILBOX);
    send_as(from_client << 16, server, 1000);
    mbx_signal *answer = mbx_receive(nullptr, patience_ms, server);
    require(answer != nullptr && answer->number == from_owner << 16);
    mbx_free(&answer);
    mbx_delete_mailbox(mbx_own_mailbox());
}

void serve_a_client()
{
    std::thread client(be_a_client);
    for (uint32_t origin = 0; origin != from_client;) {
        require(is_readable(mbx_get_fd(), patience_ms));
        mbx_signal *signal = receive_one();
        origin = signal->number >> 16;
        if (origin == from_client)
            send_as(from_owner << 16, mbx_sender(signal), 4);
        mbx_free(&signal);
    }
    client.join();
}

bool something_is_missing()
{
    for (const auto &[key, j] : journals)
        if (j.received < j.sent)
            return true;
    return !monitored.empty();
}

/* Everybody goes; everything that was sent, and every death, is still told. */
void end(fuzz_input &in)
{
    for (stranger &s : strangers)
        leave(s);
    for (const auto &[peer, key] : key_of)
        if (monitored.insert(peer).second)
            mbx_monitor(peer, nullptr);
    while (something_is_missing()) {
        require(is_readable(mbx_get_fd(), patience_ms));
        receive(in);
    }
    while (mbx_signal *signal = mbx_receive(nullptr, 0, MBX_ANY_SENDER))
        mbx_free(&signal);
    require(!is_readable(mbx_get_fd(), 0));
    char byte;
    while (recv(victim, &byte, 1, MSG_DONTWAIT) != -1)
        require(some_astray);
    some_astray = false;
    journals.clear();
    key_of.clear();
    told.clear();
}

void clean_up()
{
    mbx_exit();
    unlink(victim_address.sun_path);
    require(rmdir(getenv("MBX_DIR")) == 0);
}

bool start()
{
    char path[] = "/tmp/mbx-fuzz-XXXXXX";
    setenv("MBX_DIR", mkdtemp(path), 1);
    require(mbx_init(5, 0, 0, 0, 0) == 0);
    own = mbx_create_mailbox(name, 0);
    require(own != MBX_NO_MAILBOX);
    victim_address.sun_family = AF_UNIX;
    snprintf(victim_address.sun_path, sizeof(victim_address.sun_path), "%s/victim", path);
    victim = socket_at(victim_address, SOCK_DGRAM, bind);
    return atexit(clean_up) == 0;
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    [[maybe_unused]] static const bool started = start();
    fuzz_input in(data, size);

    for (int count = 0; count < 200 && !in.empty(); count++)
        in.one_of(steps)(in);
    serve_a_client();
    end(in);
    return 0;
}
