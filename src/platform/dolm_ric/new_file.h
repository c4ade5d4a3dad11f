/* SPDX-License-Identifier: Apache-2.0 */
/* new_file - makes a file of the board for other programs, whole or not at all: it is filled beside
   its place and then renamed there. Any thread, but one at a time for each path. */
#pragma once

#include "util/descriptor.h"

#include <cstddef>
#include <string>
#include <sys/types.h>

namespace board
{

/* A new and empty file beside `path`, open for reading and writing, with the mode 0640 and the
   group of the directory, whose members may connect to the board as well. Not open, with errno,
   where it can't be made. */
util::descriptor make_new_file(const std::string &path);

/* Renames the new file to `path`, in the place of an older one. False with errno. */
bool place_new_file(const std::string &path);

/* Removes the new file. Keeps errno. */
void drop_new_file(const std::string &path);

/* False with errno. */
bool write_fully(int descriptor, const void *bytes, size_t size, off_t offset);

} // namespace board
