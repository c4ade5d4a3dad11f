/* SPDX-License-Identifier: Apache-2.0 */
/* new_file - makes a file of the board for other programs, whole or not at all: the content is
   written to a temporary file in the same directory, which is then renamed. Any thread, but one at
   a time for each path. */
#pragma once

#include "util/descriptor.h"

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace board
{

/* Creates an empty file beside `path`, open for reading and writing, with mode 0640 and the group
   of the directory, whose members may also connect to the board. Not open, with errno, on
   failure. */
util::descriptor make_new_file(const std::string &path);

/* Renames the new file to `path`, replacing an older one. False with errno. */
bool place_new_file(const std::string &path);

/* Removes the new file. Keeps errno. */
void drop_new_file(const std::string &path);

/* False with errno. */
bool write_fully(int descriptor, const void *bytes, size_t size, off_t offset);

} // namespace board
