/* SPDX-License-Identifier: Apache-2.0 */
/* known_interfaces - a file with the interface of each port, by the kernel's index. A reader that
   is restarted while the same server runs takes the interfaces from the file: an interface may have
   been renamed, and without a configuration the ports could get other numbers. The next server
   doesn't use the file, as its configuration may have changed.

   The file is in the service's own directory and mapped into memory, since a reader that answers
   requests opens and writes no file. Only root and the service can write it. The reader has one
   thread. */
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace module_reader
{

class known_interfaces
{
  public:
    /* Without a directory nothing is stored. Throws a std::system_error. */
    explicit known_interfaces(const std::string &directory);
    ~known_interfaces();
    known_interfaces(const known_interfaces &) = delete;
    known_interfaces &operator=(const known_interfaces &) = delete;

    /* The interface that the port had when it was configured under this name, or 0. */
    int32_t find(uint32_t port, const std::string &name) const;
    /* Stores the interface of a port that is configured under this name. */
    void set(uint32_t port, const std::string &name, int32_t index);
    /* Clears the file; called when the server has ended. */
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
