/* SPDX-License-Identifier: Apache-2.0 */
/* Messages and attributes are padded to four bytes; the last one may lack its padding. All values
   are copied with memcpy, since nothing in a datagram is guaranteed to be aligned for its type. */
#include "platform/linux_interfaces/netlink.h"

#include "util/poll.h"

#include <algorithm>
#include <cerrno>
#include <linux/ethtool.h>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace netlink
{

/* The kernel fills parts of a dump up to 32 KiB; a single message may be longer. */
static constexpr size_t receive_size = size_t{64} * 1024;

static constexpr uint8_t generic_version = 1;

static size_t padded(size_t length)
{
    return (length + NLMSG_ALIGNTO - 1) / NLMSG_ALIGNTO * NLMSG_ALIGNTO;
}

byte_view without_header(byte_view bytes, size_t header_size)
{
    return bytes.subspan(std::min(padded(header_size), bytes.size()));
}

std::optional<message> take_message(byte_view &datagram)
{
    const auto head = read_record<nlmsghdr>(datagram);
    if (!head || head->nlmsg_len < sizeof(*head) || head->nlmsg_len > datagram.size()) {
        datagram = {};
        return std::nullopt;
    }
    const byte_view body = without_header(datagram.first(head->nlmsg_len), sizeof(*head));
    datagram = without_header(datagram, head->nlmsg_len);
    return message{head->nlmsg_type, head->nlmsg_flags, head->nlmsg_seq, body};
}

std::optional<attribute> take_attribute(byte_view &attributes)
{
    const auto head = read_record<nlattr>(attributes);
    if (!head || head->nla_len < sizeof(*head) || head->nla_len > attributes.size()) {
        attributes = {};
        return std::nullopt;
    }
    const byte_view value = without_header(attributes.first(head->nla_len), sizeof(*head));
    attributes = without_header(attributes, head->nla_len);
    return attribute{static_cast<uint16_t>(head->nla_type & NLA_TYPE_MASK), value};
}

byte_view find_attribute(byte_view attributes, uint16_t number)
{
    while (const auto next = take_attribute(attributes))
        if (next->number == number)
            return next->value;
    return {};
}

std::string_view read_text(byte_view value)
{
    const std::string_view text(reinterpret_cast<const char *>(value.data()), value.size());
    return text.substr(0, text.find('\0'));
}

int error_of(const message &report)
{
    const auto code = read_record<int32_t>(report.body);
    if (!code || *code > 0 || *code == INT32_MIN)
        return EBADMSG;
    return -*code;
}

request::request(uint16_t type, uint16_t flags)
{
    const nlmsghdr head = {.nlmsg_len = 0,
                           .nlmsg_type = type,
                           .nlmsg_flags = static_cast<uint16_t>(flags | NLM_F_REQUEST),
                           .nlmsg_seq = 0,
                           .nlmsg_pid = 0};
    append(view_of(head));
}

void request::append(byte_view bytes)
{
    buffer_.insert(buffer_.end(), bytes.begin(), bytes.end());
    buffer_.resize(padded(buffer_.size()));
}

void request::put_bytes(uint16_t number, byte_view value)
{
    const nlattr head = {.nla_len = static_cast<uint16_t>(sizeof(nlattr) + value.size()),
                         .nla_type = number};
    append(view_of(head));
    append(value);
}

void request::put_text(uint16_t number, std::string_view text)
{
    std::vector<uint8_t> terminated(text.begin(), text.end());
    terminated.push_back(0);
    put_bytes(number, terminated);
}

size_t request::begin_nest(uint16_t number)
{
    put_bytes(number | NLA_F_NESTED, {});
    return buffer_.size() - sizeof(nlattr);
}

void request::end_nest(size_t begin)
{
    const auto length = static_cast<uint16_t>(buffer_.size() - begin);
    memcpy(&buffer_[begin + offsetof(nlattr, nla_len)], &length, sizeof(length));
}

byte_view request::finish(uint32_t sequence)
{
    const auto length = static_cast<uint32_t>(buffer_.size());
    memcpy(&buffer_[offsetof(nlmsghdr, nlmsg_len)], &length, sizeof(length));
    memcpy(&buffer_[offsetof(nlmsghdr, nlmsg_seq)], &sequence, sizeof(sequence));
    return buffer_;
}

[[noreturn]] static void fail(const char *what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

/* A larger buffer needs CAP_NET_ADMIN; without it the system's limit applies without an error. */
static void size_buffer(int fd, int receive_buffer)
{
    if (receive_buffer == 0)
        return;
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &receive_buffer, sizeof(receive_buffer)) != 0)
        setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receive_buffer, sizeof(receive_buffer));
}

connection::connection(int protocol, int receive_buffer)
    : socket_(socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, protocol)), buffer_(receive_size)
{
    if (!socket_)
        fail("netlink socket");
    size_buffer(fd(), receive_buffer);
    const int on = 1; /* requests for links by index alone; unknown to kernels before 4.20 */
    setsockopt(fd(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof(on));
    const sockaddr_nl self = {.nl_family = AF_NETLINK, .nl_pad = 0, .nl_pid = 0, .nl_groups = 0};
    if (bind(fd(), reinterpret_cast<const sockaddr *>(&self), sizeof(self)) != 0)
        fail("netlink bind");
}

void connection::join(uint32_t group)
{
    const auto number = static_cast<int>(group);
    if (setsockopt(fd(), SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, &number, sizeof(number)) != 0)
        fail("netlink group");
}

/* Processes with enough rights may send to any netlink socket; only messages from the kernel have
   port 0. */
connection::received connection::receive()
{
    for (;;) {
        sockaddr_nl sender = {};
        iovec part = {buffer_.data(), buffer_.size()};
        msghdr head = {};
        head.msg_name = &sender;
        head.msg_namelen = sizeof(sender);
        head.msg_iov = &part;
        head.msg_iovlen = 1;
        const ssize_t length = recvmsg(fd(), &head, MSG_DONTWAIT);
        if (length < 0 && errno == EINTR)
            continue;
        if (length < 0)
            return {errno == EWOULDBLOCK ? EAGAIN : errno, {}};
        if (sender.nl_pid != 0)
            continue;
        if (head.msg_flags & MSG_TRUNC)
            return {ENOBUFS, {}};
        return {0, byte_view(buffer_).first(static_cast<size_t>(length))};
    }
}

/* Waits until the socket is readable. */
static int await_readable(int fd, std::chrono::steady_clock::time_point deadline)
{
    const auto left =
        std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    pollfd wanted = {fd, POLLIN, 0};
    if (left.count() <= 0 || util::poll_or_pause({&wanted, 1}, static_cast<int>(left.count())) == 0)
        return ETIMEDOUT;
    return 0;
}

/* The kernel has usually answered when send() returns. Answers to requests that timed out have
   older sequence numbers and are skipped. */
int connection::await_answer(std::chrono::steady_clock::time_point deadline, const taker &take)
{
    bool was_interrupted = false;
    for (;;) {
        const received next = receive();
        if (next.error == EAGAIN) {
            if (const int error = await_readable(fd(), deadline))
                return error;
            continue;
        }
        if (next.error != 0)
            return next.error;
        byte_view rest = next.datagram;
        while (const auto part = take_message(rest)) {
            if (part->sequence != sequence_)
                continue;
            was_interrupted |= (part->flags & NLM_F_DUMP_INTR) != 0;
            if (part->type == NLMSG_ERROR)
                return error_of(*part);
            if (part->type == NLMSG_DONE)
                return was_interrupted ? EINTR : 0;
            take(*part);
        }
    }
}

int connection::ask(request &question, std::chrono::milliseconds patience, const taker &take)
{
    const byte_view bytes = question.finish(++sequence_);
    const auto deadline = std::chrono::steady_clock::now() + patience;
    if (send(fd(), bytes.data(), bytes.size(), 0) < 0)
        return errno;
    return await_answer(deadline, take);
}

request generic_request(uint16_t family, uint8_t command)
{
    return {family, NLM_F_ACK,
            genlmsghdr{.cmd = command, .version = generic_version, .reserved = 0}};
}

request ethtool_request(uint16_t family, uint8_t command, uint16_t header, int32_t index,
                        uint32_t flags)
{
    request question = generic_request(family, command);
    const size_t nest = question.begin_nest(header);
    question.put(ETHTOOL_A_HEADER_DEV_INDEX, static_cast<uint32_t>(index));
    question.put(ETHTOOL_A_HEADER_FLAGS, flags | ETHTOOL_FLAG_COMPACT_BITSETS);
    question.end_nest(nest);
    return question;
}

byte_view generic_attributes(const message &answer)
{
    return without_header(answer.body, sizeof(genlmsghdr));
}

/* The commands are nested attributes within one attribute. */
static bool has_command(byte_view attributes, uint32_t command)
{
    byte_view commands = find_attribute(attributes, CTRL_ATTR_OPS);
    while (const auto one = take_attribute(commands))
        if (read_record<uint32_t>(find_attribute(one->value, CTRL_ATTR_OP_ID)) == command)
            return true;
    return false;
}

/* Passes the attributes of a family to `take`. */
static void ask_family(connection &generic, std::string_view name,
                       const std::function<void(byte_view attributes)> &take)
{
    request question = generic_request(GENL_ID_CTRL, CTRL_CMD_GETFAMILY);
    question.put_text(CTRL_ATTR_FAMILY_NAME, name);
    generic.ask(question, std::chrono::seconds(5),
                [&](const message &answer) { take(generic_attributes(answer)); });
}

uint16_t find_family(connection &generic, std::string_view name, uint32_t command)
{
    uint16_t family = 0;
    ask_family(generic, name, [&](byte_view attributes) {
        if (command == 0 || has_command(attributes, command))
            family =
                read_record<uint16_t>(find_attribute(attributes, CTRL_ATTR_FAMILY_ID)).value_or(0);
    });
    return family;
}

/* The groups are nested attributes within one attribute, like the commands. */
uint32_t find_group(connection &generic, std::string_view family, std::string_view group)
{
    uint32_t number = 0;
    ask_family(generic, family, [&](byte_view attributes) {
        byte_view groups = find_attribute(attributes, CTRL_ATTR_MCAST_GROUPS);
        while (const auto one = take_attribute(groups))
            if (read_text(find_attribute(one->value, CTRL_ATTR_MCAST_GRP_NAME)) == group)
                number = read_record<uint32_t>(find_attribute(one->value, CTRL_ATTR_MCAST_GRP_ID))
                             .value_or(0);
    });
    return number;
}

} // namespace netlink
