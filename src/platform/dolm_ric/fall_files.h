/* SPDX-License-Identifier: Apache-2.0 */
/* fall_files - the files with the falls of ports: in one folder, each with the number of its port
   as name and a JSON object of facts in each line, the newest last. One thread for each folder. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace board
{

/* The folder "falls" beside the file of the details. */
std::string falls_folder(const std::string &details);

/* Makes the folder, with the group of its parent folder, whose members may read it. False with
   errno. */
bool make_falls_folder(const std::string &folder);

/* A file holds at most so many falls, and bytes. */
constexpr size_t most_falls = 32;
constexpr size_t most_fall_bytes = size_t{64} * 1024;
/* All files of a folder together take at most so many bytes of memory, in whole pages. */
constexpr size_t most_folder_bytes = size_t{16} * 1024 * 1024;

/* Removes the oldest files of a folder, of ports that are no more, until the others take at most
   most_folder_bytes. Returns the size of those. */
size_t trim_falls(const std::string &folder);

/* Adds a line to the file of a port, in place of the last one if it `replaces` it; the file is
   replaced as a whole. `files` share the folder, which takes `taken` bytes: that is kept up to
   date, and the folder trimmed. False with errno. */
bool keep_fall(const std::string &folder, uint32_t port, const std::string &line, bool replaces,
               size_t files, size_t &taken);

} // namespace board
