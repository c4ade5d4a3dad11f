/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the table is a mapped file with an entry for each port; find() returns the
   interface that a port had, if the stored hash of its name is still the same. */
#include "tesk_module_reader/known_interfaces.h"

#include "util/descriptor.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <sys/mman.h>
#include <system_error>
#include <unistd.h>

namespace module_reader
{

static constexpr size_t table_size = size_t{known_interfaces::most_ports} * 2 * sizeof(int32_t);

/* The descriptor; after a failure, which is reported, -1: a later reader then has no record of the
   interfaces. */
static util::descriptor open_table(const std::string &directory)
{
    const std::string path = directory + "/interfaces";
    util::descriptor file(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file.is_open() || ftruncate(file.get(), table_size) != 0) {
        fprintf(stderr,
                "tesk-module-reader: %s: %s; an interface that is renamed isn't found after a "
                "restart\n",
                path.c_str(), strerror(errno));
        file.reset();
    }
    return file;
}

known_interfaces::known_interfaces(const std::string &directory)
{
    const util::descriptor file = directory.empty() ? util::descriptor() : open_table(directory);
    const int flags = file.is_open() ? MAP_SHARED : MAP_PRIVATE | MAP_ANONYMOUS;
    void *table = mmap(nullptr, table_size, PROT_READ | PROT_WRITE, flags, file.get(), 0);
    if (table == MAP_FAILED)
        throw std::system_error(errno, std::generic_category(), "table of the interfaces");
    static_assert(table_size == most_ports * sizeof(entry));
    entries_ = {static_cast<entry *>(table), most_ports};
}

known_interfaces::~known_interfaces()
{
    munmap(entries_.data(), table_size);
}

/* All processes of one build get the same hash; after an upgrade the server is restarted, too. */
uint32_t known_interfaces::hashed(const std::string &name)
{
    return static_cast<uint32_t>(std::hash<std::string>()(name));
}

int32_t known_interfaces::find(uint32_t port, const std::string &name) const
{
    return entries_[port].name == hashed(name) ? entries_[port].index : 0;
}

void known_interfaces::set(uint32_t port, const std::string &name, int32_t index)
{
    entries_[port] = {index, hashed(name)};
}

void known_interfaces::forget()
{
    std::ranges::fill(entries_, entry{});
}

} // namespace module_reader
