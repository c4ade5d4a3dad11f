/* SPDX-License-Identifier: Apache-2.0 */
/* known_interfaces - which interface each port has, by the kernel's index, handed on from a reader
   to the next one while the same server runs: an interface may have another name by then, and
   without a configuration its number may have been another's. Not to the next server, which looks
   for the names of its own configuration.

   The indices stand in a file of the service's own directory, mapped into memory, since a reader
   that answers requests opens and writes no file. Nobody but root and the service can write it. */
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace module_reader
{

class known_interfaces
{
  public:
    /* Without a directory nothing is handed on. Throws a std::system_error. */
    explicit known_interfaces(const std::string &directory);
    ~known_interfaces();
    known_interfaces(const known_interfaces &) = delete;
    known_interfaces &operator=(const known_interfaces &) = delete;

    /* The interface that a port had when it was configured under this name, or 0. */
    int32_t find(uint32_t port, const std::string &name) const;
    void set(uint32_t port, const std::string &name, int32_t index);
    /* The server has ended. */
    void forget();

    static constexpr uint32_t most_ports = 65535;

  private:
    struct entry {
        int32_t index;
        uint32_t name; /* hashed */
    };
    static uint32_t hashed(const std::string &name);

    std::span<entry> entries_;
};

} // namespace module_reader
