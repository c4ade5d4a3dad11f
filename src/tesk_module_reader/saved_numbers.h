/* SPDX-License-Identifier: Apache-2.0 */
/* saved_numbers - the numbers that the ports of a machine without a configuration got, kept over
   restarts: they must not depend on which drivers are loaded or which cages are full. The file has
   the lines of a configuration. Only root and the service can write it. The reader has one thread.
   */
#pragma once

#include "platform/linux_interfaces/port_config.h"

#include <string>
#include <vector>

namespace module_reader
{

/* The ports that were saved in the directory; none where there is no such file. */
std::vector<linux_board::configured_port> load_numbers(const std::string &directory);

/* Replaces the file, whole or not at all; a line on stderr has the reason why it can't be written.
 */
void save_numbers(const std::string &directory,
                  const std::vector<linux_board::configured_port> &ports);

/* Writes `text` beside the file at `path`, and then puts it in its place. Throws a
   std::system_error. */
void replace_file(const std::string &path, const std::string &text, mode_t mode);

} // namespace module_reader
