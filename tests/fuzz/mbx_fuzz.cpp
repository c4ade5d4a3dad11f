/* Strangers at a mailbox of the real library: they connect, greet well, badly or not at all, pass
   descriptors of every kind, and use what they are handed in any way; the owner receives, answers
   and monitors meanwhile. What is received must be what was sent, whole, in order, once and under
   one sender; the descriptor is readable exactly while something is there; a death is told once,
   last; and a well-behaved client is served whatever the others do. */
#include "fuzz_input.h"
#include "platform/mbx/mbx.h"
#include "platform/mbx/mbx_local.h"

#include <arpa/inet.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <deque>
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

/* The upper half of a signal's number tells who made it. */
enum origin : uint32_t { from_owner = 0x2000, from_client, from_key = 0x4000 };

/* How a control connection begins, on the wire. */
struct greeting {
    uint32_t magic = 0x3178626d;
    uint32_t kind = 1; /* hello, welcome, known */
    uint64_t token[2] = {};
};

struct stranger {
    int control = -1;
    int rx = -1;  /* what the mailbox sends comes out here */
    int tx = -1;  /* handed over by the mailbox */
    uint32_t key; /* a new one for each connection */
    bool astray;  /* tx leads elsewhere by now */
};

/* What the mailbox has still to receive on one connection: number and size. The owner's own signals
   have the key 0. */
struct journal {
    std::deque<std::pair<uint32_t, uint32_t>> sent;
    uint32_t sender = 0;
    uint16_t count = 0;

    uint32_t next_number(uint32_t key) const
    {
        return (from_key | key) << 16 | count;
    }
    void add(uint32_t number, uint32_t size)
    {
        sent.emplace_back(number, size);
        count++;
    }
};

std::string directory;
uint32_t own;
std::array<stranger, 8> strangers;
std::map<uint32_t, journal> journals;
std::map<uint32_t, uint32_t> key_of; /* by the sender's mailbox */
std::set<uint32_t> monitored, told;
uint32_t last_key;
int victim, elsewhere; /* sockets with an address: whoever is made to write there is abused */

void drop(int &fd)
{
    if (fd != -1)
        close(fd);
    fd = -1;
}

sockaddr_un address_of(const std::string &file)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    snprintf(address.sun_path, sizeof(address.sun_path), "%s/%s", directory.c_str(), file.c_str());
    return address;
}

/* A socket that bind or connect has been called on. */
int socket_at(const char *file, int type, int (*call)(int, const sockaddr *, socklen_t))
{
    const sockaddr_un address = address_of(file);
    const int fd = socket(AF_UNIX, type, 0);
    require(call(fd, reinterpret_cast<const sockaddr *>(&address), sizeof(address)) == 0);
    return fd;
}

bool is_readable(int fd, int timeout_ms)
{
    pollfd wanted = {fd, POLLIN, 0};
    return poll(&wanted, 1, timeout_ms) == 1;
}

int one_end_of(int type)
{
    int ends[2];
    require(socketpair(AF_UNIX, type, 0, ends) == 0);
    close(ends[1]);
    return ends[0];
}

/* A pair for the mailbox to send through: what it is given, and what stays in `rx`. */
int sending_end(int &rx)
{
    int ends[2];
    require(socketpair(AF_UNIX, SOCK_DGRAM, 0, ends) == 0);
    drop(rx);
    rx = ends[0];
    return ends[1];
}

int some_descriptor(stranger &s, uint8_t choice)
{
    static constexpr int types[] = {SOCK_STREAM, SOCK_SEQPACKET, SOCK_DGRAM};
    switch (choice % 8) {
    case 0:
        return socket_at("victim", SOCK_DGRAM, connect);
    case 1:
        return one_end_of(types[choice / 8 % 3]);
    case 2:
        return socket(AF_UNIX, types[choice / 8 % 3], 0);
    case 3:
        return socket(AF_INET, SOCK_DGRAM, 0);
    case 4:
        return eventfd(0, 0);
    case 5:
        return dup(s.control);
    case 6:
        return dup(s.tx != -1 ? s.tx : s.control);
    default:
        return sending_end(s.rx);
    }
}

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
    stranger &s = strangers[in.byte() % strangers.size()];
    if (s.control == -1) {
        leave(s);
        s.control = socket_at(name, SOCK_SEQPACKET, connect);
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
        fd = how < 160 ? sending_end(s.rx) : some_descriptor(s, in.byte());
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

void send_signals(fuzz_input &in)
{
    static constexpr uint32_t sizes[] = {
        4, 5, 8, 16, 60, 1000, MBX_LARGEST_SIGNAL, 0, 3, MBX_LARGEST_SIGNAL + 1};
    static std::vector<uint32_t> data(MBX_LARGEST_SIGNAL / 4 + 1);
    stranger &s = one_who_is_there(in);
    const uint32_t size = in.one_of(sizes);
    const int count = in.byte() % 8 == 0 ? 300 : 1;
    journal &j = journals[s.key];
    for (int done = 0; done < count && s.tx != -1; done++) {
        data[0] = j.next_number(s.key);
        if (send(s.tx, data.data(), size, MSG_DONTWAIT | MSG_NOSIGNAL) < 0)
            return;
        if (!s.astray && size >= sizeof(mbx_signal) && size <= MBX_LARGEST_SIGNAL)
            j.add(data[0], size);
    }
}

void lead_astray(stranger &s, const sockaddr *address, socklen_t length)
{
    if (connect(s.tx, address, length) == 0)
        s.astray = true;
}

void disturb(fuzz_input &in)
{
    stranger &s = one_who_is_there(in);
    const uint8_t choice = in.byte();
    const sockaddr_un address = address_of("elsewhere");
    const sockaddr nobody = {.sa_family = AF_UNSPEC, .sa_data = {}};
    const int smallest = 1;
    char byte = 1;
    switch (choice % 8) {
    case 0:
        shutdown(s.control, choice / 8 % 3);
        break;
    case 1:
        shutdown(s.tx, choice / 8 % 3);
        break;
    case 2:
        lead_astray(s, reinterpret_cast<const sockaddr *>(&address), sizeof(address));
        break;
    case 3:
        lead_astray(s, &nobody, sizeof(nobody));
        break;
    case 4:
        setsockopt(s.tx, SOL_SOCKET, SO_SNDBUF, &smallest, sizeof(smallest));
        break;
    case 5:
        drop(choice & 8 ? s.rx : s.tx);
        break;
    case 6:
        leave(s);
        break;
    default: /* what it carries is for nobody */
        pass(s.tx, &byte, 1, {some_descriptor(s, choice / 8)});
        break;
    }
}

/* One that is there; the caller frees it. */
mbx_signal *receive_one()
{
    mbx_signal *signal = mbx_receive(nullptr, 0, MBX_ANY_SENDER);
    require(signal != nullptr);
    const uint32_t sender = mbx_sender(signal);
    if (signal->number == MBX_MONITOR_DEFAULT_NO) {
        require(monitored.erase(sender) == 1);
        told.insert(sender);
        return signal;
    }
    require(!told.contains(sender));
    const uint32_t key = (signal->number >> 16) - from_key;
    if (signal->number >> 16 < from_key) {
        require(sender != own);
        return signal;
    }
    journal &j = journals[key];
    require(!j.sent.empty() && j.sent.front() == std::pair(signal->number, mbx_size(signal)));
    j.sent.pop_front();
    require((key == 0) == (sender == own));
    require(j.sender == 0 || j.sender == sender);
    j.sender = sender;
    if (key != 0)
        require(key_of.emplace(sender, key).first->second == key);
    return signal;
}

void receive(fuzz_input &)
{
    if (!is_readable(mbx_get_fd(), 0))
        return;
    mbx_signal *signal = receive_one();
    mbx_free(&signal);
}

void send_as(uint32_t origin, uint32_t receiver, size_t size)
{
    mbx_signal *signal = mbx_alloc(size, origin << 16);
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
    if (choice >= 128 && !monitored.contains(peer)) {
        mbx_monitor(peer, nullptr);
        monitored.insert(peer);
    }
    for (int count = in.byte() % 100; count > 0; count--)
        send_as(from_owner, peer, choice % 2 == 0 ? 96 : MBX_LARGEST_SIGNAL);
}

void send_to_self(fuzz_input &)
{
    journal &j = journals[0];
    mbx_signal *signal = mbx_alloc(sizeof(mbx_signal), j.next_number(0));
    j.add(signal->number, sizeof(mbx_signal));
    mbx_send(&signal, own, MBX_OWN_MAILBOX);
}

void (*const steps[])(fuzz_input &in) = {greet,   send_signals, receive, greet,
                                         disturb, send_signals, receive, owner_acts,
                                         greet,   send_to_self};

void be_a_client()
{
    require(mbx_create_mailbox(nullptr, 0) != MBX_NO_MAILBOX);
    const uint32_t server = mbx_locate(name);
    require(server != MBX_NO_MAILBOX);
    send_as(from_client, server, 1000);
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
            send_as(from_owner, mbx_sender(signal), 4);
        mbx_free(&signal);
    }
    client.join();
}

bool something_is_missing()
{
    for (const auto &[key, j] : journals)
        if (!j.sent.empty())
            return true;
    return !monitored.empty();
}

/* Everybody goes; everything that was sent, and every death, is still told. */
void end()
{
    for (stranger &s : strangers)
        leave(s);
    for (const auto &[peer, key] : key_of)
        if (monitored.insert(peer).second)
            mbx_monitor(peer, nullptr);
    while (something_is_missing()) {
        require(is_readable(mbx_get_fd(), patience_ms));
        mbx_signal *signal = receive_one();
        mbx_free(&signal);
    }
    while (mbx_signal *signal = mbx_receive(nullptr, 0, MBX_ANY_SENDER))
        mbx_free(&signal);
    require(!is_readable(mbx_get_fd(), 0));
    char byte;
    require(recv(victim, &byte, 1, MSG_DONTWAIT) == -1);
    while (recv(elsewhere, &byte, 1, MSG_DONTWAIT) != -1) {
    }
    journals.clear();
    key_of.clear();
    told.clear();
}

void clean_up()
{
    mbx_exit();
    for (const char *file : {"victim", "elsewhere"})
        unlink(address_of(file).sun_path);
    require(rmdir(directory.c_str()) == 0);
}

bool start()
{
    char path[] = "/tmp/mbx-fuzz-XXXXXX";
    directory = mkdtemp(path);
    setenv("MBX_DIR", path, 1);
    require(mbx_init(5, 0, 0, 0, 0) == 0);
    own = mbx_create_mailbox(name, 0);
    require(own != MBX_NO_MAILBOX);
    victim = socket_at("victim", SOCK_DGRAM, bind);
    elsewhere = socket_at("elsewhere", SOCK_DGRAM, bind);
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
    end();
    return 0;
}
