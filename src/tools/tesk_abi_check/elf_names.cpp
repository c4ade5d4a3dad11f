/* SPDX-License-Identifier: Apache-2.0 */
/* The dynamic symbol table is found through the section headers, which every linker writes and
   strip doesn't remove. The file is untrusted input: every record is copied out of it by a function
   that checks the bounds first. */
#include "tools/tesk_abi_check/elf_names.h"

#include <cstring>
#include <elf.h>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace
{

struct layout_32 {
    using header = Elf32_Ehdr;
    using section = Elf32_Shdr;
    using symbol = Elf32_Sym;
};

struct layout_64 {
    using header = Elf64_Ehdr;
    using section = Elf64_Shdr;
    using symbol = Elf64_Sym;
};

} // namespace

template <typename record>
static record record_at(const std::string &bytes, uint64_t offset)
{
    if (offset > bytes.size() || bytes.size() - offset < sizeof(record))
        throw elf_error("is damaged: it ends too early");
    record copy;
    std::memcpy(&copy, bytes.data() + offset, sizeof(copy));
    return copy;
}

static std::string text_at(const std::string &bytes, uint64_t offset)
{
    if (offset >= bytes.size())
        throw elf_error("is damaged: a name lies outside it");
    return bytes.c_str() + offset;
}

static symbol_kind kind_of(unsigned char type)
{
    switch (type) {
    case STT_FUNC:
    case STT_GNU_IFUNC:
        return symbol_kind::function;
    case STT_TLS:
        return symbol_kind::thread_local_data;
    default:
        return symbol_kind::data;
    }
}

/* Both ELF layouts have the same fields and encodings. */
template <typename symbol>
static bool is_exported(const symbol &entry)
{
    const auto binding = ELF64_ST_BIND(entry.st_info);
    const auto visibility = ELF64_ST_VISIBILITY(entry.st_other);
    return entry.st_shndx != SHN_UNDEF && binding != STB_LOCAL &&
           (visibility == STV_DEFAULT || visibility == STV_PROTECTED);
}

template <typename layout>
static elf_library parse(const std::string &bytes)
{
    using section = typename layout::section;
    using symbol = typename layout::symbol;
    const auto header = record_at<typename layout::header>(bytes, 0);
    if (header.e_type != ET_DYN)
        throw elf_error("is no shared library");
    auto section_at = [&](uint64_t index) {
        return record_at<section>(bytes, header.e_shoff + index * sizeof(section));
    };

    elf_library library{header.e_machine, std::is_same_v<layout, layout_64>, {}};
    for (uint64_t i = 0; i < header.e_shnum; ++i) {
        const section table = section_at(i);
        if (table.sh_type != SHT_DYNSYM)
            continue;
        const section texts = section_at(table.sh_link);
        for (uint64_t at = 0; at + sizeof(symbol) <= table.sh_size; at += sizeof(symbol)) {
            const auto entry = record_at<symbol>(bytes, table.sh_offset + at);
            if (is_exported(entry))
                library.names[text_at(bytes, texts.sh_offset + entry.st_name)] = {
                    kind_of(ELF64_ST_TYPE(entry.st_info)), entry.st_size};
        }
    }
    return library;
}

std::optional<elf_library> read_elf_library(const std::string &path)
{
    if (!std::filesystem::exists(path))
        return std::nullopt;
    std::ifstream file(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(file), {}};
    if (file.bad() || !file)
        throw elf_error("can't be read");
    if (bytes.size() < EI_NIDENT || !bytes.starts_with(ELFMAG))
        throw elf_error("is no shared library");
    if (bytes[EI_DATA] != ELFDATA2LSB)
        throw elf_error("is for a big-endian processor, on which tesk-server doesn't run");
    return bytes[EI_CLASS] == ELFCLASS64 ? parse<layout_64>(bytes) : parse<layout_32>(bytes);
}
