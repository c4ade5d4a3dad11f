/* SPDX-License-Identifier: Apache-2.0 */
/* netlink - the kernel's netlink messages: built in a buffer, and parsed with a check of every
   length. Needs only the kernel's own headers. Views point into the datagram that was passed in. A
   socket belongs to one thread. */
#pragma once

#include "util/descriptor.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <linux/netlink.h>
#include <optional>
#include <span>
#include <string_view>
#include <type_traits>
#include <vector>

namespace netlink
{

using byte_view = std::span<const uint8_t>;

struct message {
    uint16_t type;
    uint16_t flags;
    uint32_t sequence;
    byte_view body;
};

/* Removes the first message from `datagram` and returns it. Nothing at the end, or if a length
   doesn't fit; the rest of the datagram is dropped then. */
std::optional<message> take_message(byte_view &datagram);

struct attribute {
    uint16_t number; /* without the flags for nesting and byte order */
    byte_view value;
};

/* Removes the first attribute from `attributes` and returns it, by the same rules. */
std::optional<attribute> take_attribute(byte_view &attributes);

/* The value of the first attribute with that number; empty if there is none. */
byte_view find_attribute(byte_view attributes, uint16_t number);

/* `bytes` without a fixed header of that size and its padding; empty if they are shorter. */
byte_view without_header(byte_view bytes, size_t header_size);

/* The record at the start of `bytes`, or nothing if there are too few bytes. */
template <typename record>
std::optional<record> read_record(byte_view bytes)
{
    static_assert(std::is_trivially_copyable_v<record>);
    record out;
    if (bytes.size() < sizeof(out))
        return std::nullopt;
    memcpy(&out, bytes.data(), sizeof(out));
    return out;
}

/* Text up to its NUL or to the end of the value. */
std::string_view read_text(byte_view value);

/* The error that an NLMSG_ERROR message reports: 0 for an acknowledgement, else an errno. EBADMSG
   for a message that is too short. */
int error_of(const message &report);

/* One message, built from its fixed header on. */
class request
{
  public:
    /* NLM_F_REQUEST is always added to the flags. */
    template <typename record>
    request(uint16_t type, uint16_t flags, const record &header) : request(type, flags)
    {
        put_header(header);
    }

    template <typename number_type>
    void put(uint16_t number, number_type value)
    {
        static_assert(std::is_integral_v<number_type>);
        put_bytes(number, view_of(value));
    }
    /* Adds a fixed header at the beginning of a nested attribute. */
    template <typename record>
    void put_header(const record &header)
    {
        append(view_of(header));
    }
    /* Adds a text and its terminating NUL. */
    void put_text(uint16_t number, std::string_view text);
    /* Attributes that are added between begin_nest() and end_nest() are nested. */
    size_t begin_nest(uint16_t number);
    void end_nest(size_t begin);

    /* Sets length and sequence number, and returns the whole message. */
    byte_view finish(uint32_t sequence);

  private:
    request(uint16_t type, uint16_t flags);
    template <typename record>
    static byte_view view_of(const record &value)
    {
        static_assert(std::is_trivially_copyable_v<record>);
        return {reinterpret_cast<const uint8_t *>(&value), sizeof(value)};
    }
    void put_bytes(uint16_t number, byte_view value);
    void append(byte_view bytes);

    std::vector<uint8_t> buffer_;
};

class connection
{
  public:
    /* Throws a std::system_error. With a receive buffer of 0 the system's default size is used. */
    explicit connection(int protocol, int receive_buffer = 0);

    int fd() const
    {
        return socket_.get();
    }
    /* Throws a std::system_error. */
    void join(uint32_t group);

    /* The next datagram from the kernel, valid until the next call. EAGAIN if there is none,
       ENOBUFS if the kernel dropped messages or a message was longer than the buffer. */
    struct received {
        int error = 0;
        byte_view datagram;
    };
    received receive();

    /* Sends a request and passes every message of the answer to `take`. Returns 0, or the kernel's
       errno, ETIMEDOUT after `patience`, EINTR for a dump during which something changed. Sends
       with NLM_F_ACK unless the request is for a dump. Sending may block as long as the kernel's
       lock is held, whatever the patience. */
    using taker = std::function<void(const message &)>;
    int ask(request &question, std::chrono::milliseconds patience, const taker &take);

  private:
    int await_answer(std::chrono::steady_clock::time_point deadline, const taker &take);

    util::descriptor socket_;
    uint32_t sequence_ = 0;
    std::vector<uint8_t> buffer_;
};

/* The number of a generic netlink family; 0 if the kernel doesn't have it, or, with a `command`, if
   the family lacks that command. */
uint16_t find_family(connection &generic, std::string_view name, uint32_t command = 0);

/* The number of a family's multicast group, or 0 if the kernel doesn't have it. */
uint32_t find_group(connection &generic, std::string_view family, std::string_view group);

/* A message to a generic netlink family. */
request generic_request(uint16_t family, uint8_t command);

/* A request to the ethtool family about an interface; `header` is the number of the command's
   attribute that names the interface; `flags` are ETHTOOL_FLAG_*. */
request ethtool_request(uint16_t family, uint8_t command, uint16_t header, int32_t index,
                        uint32_t flags = 0);

/* The attributes of a generic netlink message. */
byte_view generic_attributes(const message &answer);

} // namespace netlink
