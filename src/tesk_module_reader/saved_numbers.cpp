/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: load_numbers() reads the ports that an earlier start has numbered; save_numbers()
   replaces the file by a new one. */
#include "tesk_module_reader/saved_numbers.h"

#include "util/descriptor.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>

namespace module_reader
{

static std::string path_in(const std::string &directory)
{
    return directory + "/numbers";
}

std::vector<linux_board::configured_port> load_numbers(const std::string &directory)
{
    const std::string path = path_in(directory);
    const util::descriptor file(linux_board::open_port_config(path));
    if (directory.empty() || !file.is_open())
        return {};
    linux_board::port_config saved = linux_board::read_port_config(file.get(), path);
    for (const std::string &message : saved.messages)
        fprintf(stderr, "tesk-module-reader: %s\n", message.c_str());
    return std::move(saved.ports);
}

void replace_file(const std::string &path, const std::string &text, mode_t mode)
{
    const std::string beside = path + ".new";
    const auto check = [&](bool succeeded) {
        if (succeeded)
            return;
        const int error = errno;
        unlink(beside.c_str());
        throw std::system_error(error, std::generic_category(), beside);
    };
    unlink(beside.c_str());
    const util::descriptor file(
        open(beside.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, mode));
    check(file.is_open());
    check(fchmod(file.get(), mode) == 0);
    check(write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    check(fsync(file.get()) == 0);
    check(rename(beside.c_str(), path.c_str()) == 0);
}

void save_numbers(const std::string &directory,
                  const std::vector<linux_board::configured_port> &ports)
{
    if (directory.empty())
        return;
    std::string text = "# The numbers of the ports of a machine without /etc/tesk/ports.\n";
    for (const linux_board::configured_port &port : ports)
        text += std::to_string(port.number) + " " + name_of(port) + "\n";
    try {
        replace_file(path_in(directory), text, 0644);
    } catch (const std::system_error &error) {
        fprintf(stderr, "tesk-module-reader: %s: the next start may number the ports otherwise\n",
                error.what());
    }
}

} // namespace module_reader
