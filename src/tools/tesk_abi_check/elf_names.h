/* SPDX-License-Identifier: Apache-2.0 */
/* elf_names - the names that a shared library exports, read from its file. No code of the library
   runs, so it may be for another processor and its dependencies may be missing. No state. */
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

enum class symbol_kind { function, thread_local_data, data };

struct elf_symbol {
    symbol_kind kind;
    uint64_t size;
};

struct elf_library {
    uint16_t machine; /* an EM_ constant of elf.h */
    bool is_64_bit;
    std::map<std::string, elf_symbol> names;
};

/* Why a file can't be used, as words that continue the file's name. */
class elf_error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/* Throws an elf_error if the file is not a little-endian shared library. Empty if there is no
   file. */
std::optional<elf_library> read_elf_library(const std::string &path);
