/* SPDX-License-Identifier: Apache-2.0 */
/* saved_numbers - the numbers of the ports of a machine without a configuration, kept over
   restarts: they must not depend on which drivers are loaded, or on which ports have a module. The
   file has the lines of a configuration. Only root and the service can write it. The reader has one
   thread. */
#pragma once

#include "platform/linux_interfaces/port_config.h"

#include <string>
#include <vector>

namespace module_reader
{

/* The ports that were saved in the directory; none if there is no file. */
std::vector<linux_board::configured_port> load_numbers(const std::string &directory);

/* Replaces the file, whole or not at all; if that fails, a line on stderr gives the reason. */
void save_numbers(const std::string &directory,
                  const std::vector<linux_board::configured_port> &ports);

/* Writes `text` to a temporary file beside `path`, which then replaces the file at `path`. Throws a
   std::system_error. */
void replace_file(const std::string &path, const std::string &text, mode_t mode);

} // namespace module_reader
