/* SPDX-License-Identifier: Apache-2.0 */
/* port_config - the file that assigns an interface to each port. One line for each port:

     NUMBER INTERFACE [module=FILE|i2c=BUS|poll=off] [lanes=A-B] [checksum=ignore]   # a comment

   NUMBER is 0 to 65534. INTERFACE is a name, an alternative name, or PARENT/PORTNAME: the device
   that the interface belongs to and its name for the port, such as 0000:03:00.0/p1s2. PORTNAME is
   empty where the device has one interface without such a name: 0000:03:00.0/ .

   A module's memory is read through the interface, unless the line says otherwise: from FILE (an
   absolute path), from the I2C bus BUS (a number), or not at all. lanes= names the lanes of the
   module that belong to the port, counted from 1, where several interfaces share one module without
   names for their parts; checksum=ignore says that the module's checksums don't matter.

   Words are separated by spaces or tabs; a word that begins with # begins a comment. For a wrong
   line there is a message, and the line is ignored; the other lines count. No state. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace linux_board
{

enum class module_source : uint8_t { interface, file, i2c_bus, none };

struct configured_port {
    uint32_t number = 0;
    std::string interface; /* a name or an alternative name; empty if there is a parent */
    std::string parent;
    std::string port_name;
    module_source source = module_source::interface;
    std::string file;
    uint32_t i2c_bus = 0;
    uint32_t lanes = 0; /* bit n: lane n + 1; 0: all lanes of the kernel's name for the port */
    bool ignores_checksum = false;

    bool operator==(const configured_port &) const = default;
};

/* The words after the interface, each with a space before it. */
std::string options_of(const configured_port &port);

/* The interface as a line of the file names it. */
std::string name_of(const configured_port &port);

/* Instead of a checksum: there is no file, or it can't be read. */
constexpr uint64_t no_port_config = 0;
constexpr uint64_t unread_port_config = 1;

/* Ports by number; each message is one line without its end, "FILE:LINE: REASON". */
struct port_config {
    std::vector<configured_port> ports;
    std::vector<std::string> messages;
    uint64_t checksum = no_port_config; /* checksum of the file's bytes */
};

/* A larger file is refused. If there are more messages, the last one says how many are left out. */
constexpr size_t max_port_config_size = 4u << 20;
constexpr size_t max_port_config_messages = 20;

constexpr char default_port_config[] = "/etc/tesk/ports";

/* The value of DOLM_RIC_PORTS, or default_port_config. A program with more rights than its caller
   ignores the environment. */
std::string port_config_path();

/* `name` is the file's name in the messages. */
port_config parse_port_config(std::string_view text, std::string_view name);

/* Opens the file for read_port_config without blocking, whatever its type is. Returns a descriptor,
   which the caller closes, or -1 with errno. */
int open_port_config(const std::string &path);

/* Reads and parses the file that is open at `descriptor`, from its beginning. If it can't be read
   whole, or isn't a regular file, the result has one message and no port. */
port_config read_port_config(int descriptor, std::string_view name);

/* nullptr if the file that is open at `descriptor` can be trusted, although the process has more
   rights than other users: a regular file of `owner` that neither its group nor others can write.
   Otherwise the reason, a constant text that follows the file's name in messages. The descriptor is
   checked, not the path, so that the checked file is the one that is read. */
const char *reason_not_trusted(int descriptor, uid_t owner = 0);

} // namespace linux_board
