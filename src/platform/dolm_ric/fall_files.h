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

/* The most falls, and bytes, of one file. */
constexpr size_t most_falls = 32;
constexpr size_t most_fall_bytes = size_t{64} * 1024;
/* The most bytes of memory, in whole pages, that all files of a folder take together. */
constexpr size_t most_folder_bytes = size_t{16} * 1024 * 1024;

/* Removes the oldest files of a folder, those of ports that no longer exist, until the others take
   at most most_folder_bytes. Returns the size of the remaining files. */
size_t trim_falls(const std::string &folder);

/* Adds a line to the file of a port; if `replaces`, the line takes the place of the last one. The
   file is replaced as a whole. `files` is the number of files that share the folder, which takes
   `taken` bytes: this function keeps `taken` up to date and trims the folder. False with errno. */
bool keep_fall(const std::string &folder, uint32_t port, const std::string &line, bool replaces,
               size_t files, size_t &taken);

} // namespace board
