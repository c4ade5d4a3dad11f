/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: split() divides the header into name and port; is_host_allowed() accepts the name
   if it is an address of this socket, a name of the loopback, or one that the operator allows. */
#include "tesk_exporter/host_check.h"

#include <algorithm>
#include <arpa/inet.h>
#include <charconv>
#include <cstring>
#include <netinet/in.h>
#include <optional>

namespace exporter
{

namespace
{
struct host_parts {
    std::string name; /* lower case; IPv6 addresses without brackets */
    std::optional<uint16_t> port;
};
} // namespace

static std::optional<host_parts> split(std::string_view host)
{
    host_parts parts;
    size_t end = host.find(':');
    if (host.starts_with('[')) {
        end = host.find(']');
        if (end == std::string_view::npos)
            return std::nullopt;
        parts.name = host.substr(1, end - 1);
        end++;
    } else {
        parts.name = host.substr(0, end);
    }
    std::string_view rest = host.substr(std::min(end, host.size()));
    if (!rest.empty()) {
        uint16_t port = 0;
        const auto [stop, error] =
            std::from_chars(rest.data() + 1, rest.data() + rest.size(), port);
        if (rest[0] != ':' || error != std::errc{} || stop != rest.data() + rest.size())
            return std::nullopt;
        parts.port = port;
    }
    for (char &letter : parts.name)
        letter = letter >= 'A' && letter <= 'Z' ? static_cast<char>(letter - 'A' + 'a') : letter;
    return parts;
}

/* The address in IPv6 form, with IPv4 mapped into IPv6; nothing for a local socket. */
static std::optional<in6_addr> address_of(const sockaddr_storage &local, uint16_t &port)
{
    if (local.ss_family == AF_INET6) {
        sockaddr_in6 address{};
        std::memcpy(&address, &local, sizeof(address));
        port = ntohs(address.sin6_port);
        return address.sin6_addr;
    }
    if (local.ss_family != AF_INET)
        return std::nullopt;
    sockaddr_in address{};
    std::memcpy(&address, &local, sizeof(address));
    port = ntohs(address.sin_port);
    in6_addr mapped{};
    mapped.s6_addr[10] = mapped.s6_addr[11] = 0xff;
    std::memcpy(&mapped.s6_addr[12], &address.sin_addr, sizeof(address.sin_addr));
    return mapped;
}

static bool is_loopback(const in6_addr &address)
{
    return IN6_IS_ADDR_LOOPBACK(&address) ||
           (IN6_IS_ADDR_V4MAPPED(&address) && address.s6_addr[12] == 127);
}

static bool is_literal_of(const std::string &name, const in6_addr &address)
{
    in6_addr named{};
    const std::string mapped = "::ffff:" + name;
    const bool is_address = inet_pton(AF_INET6, name.c_str(), &named) == 1 ||
                            inet_pton(AF_INET6, mapped.c_str(), &named) == 1;
    return is_address && std::memcmp(&named, &address, sizeof(named)) == 0;
}

bool is_host_allowed(std::string_view host, const sockaddr_storage &local,
                     const std::vector<std::string> &names)
{
    const auto parts = split(host);
    if (!parts || parts->name.empty())
        return false;
    if (std::ranges::find(names, parts->name) != names.end())
        return true;
    uint16_t port = 0;
    const auto address = address_of(local, port);
    if (!address)
        return parts->name == "localhost";
    if (parts->port.value_or(80) != port)
        return false;
    return is_literal_of(parts->name, *address) ||
           (parts->name == "localhost" && is_loopback(*address));
}

} // namespace exporter
