/* SPDX-License-Identifier: Apache-2.0 */
/* Each name must be in its own library. The loader would find it for the server in any of the four,
   but clients load libmbx alone. */
#include "tools/tesk_abi_check/abi.h"

#include "tools/tesk_abi_check/elf_names.h"

#include <optional>
#include <span>

static constexpr const char *mbx_names[] = {
    "mbx_init",  "mbx_exit",    "mbx_create_mailbox", "mbx_delete_mailbox", "mbx_get_fd",
    "mbx_alloc", "mbx_send",    "mbx_receive",        "mbx_free",           "mbx_sender",
    "mbx_size",  "mbx_monitor", "mbx_unmonitor",      "mbx_locate",
};
static constexpr const char *zel_names[] = {
    "zel_init",
    "zel_register_thread_name",
    "formatStr",
    "short_fname",
    "lttngZelTrace",
    "lttngZelRecSigTrace",
    "lttngZelSendSigTrace",
    "procInfo",
};
static constexpr const char *tesktmo_names[] = {"tmo_service_init", "tmo_service_stop",
                                                "tmo_request_sig"};
static constexpr const char *dolm_ric_names[] = {
    "dolm_ric_init",
    "dolm_ric_shutdown",
    "dolm_ric_waitevent",
    "dolm_ric_freeevent",
    "dolm_ric_ri_getportstatus",
    "dolm_ric_ri_subsport",
    "dolm_ric_ri_unsubsport",
    "dolm_ric_ri_subslink",
    "dolm_ric_ri_unsubslink",
    "dolm_ric_ri_getlinkstatus",
    "dolm_ric_ri_getmoduleinfo",
    "dolm_ric_ri_getmodstatus",
    "dolm_ric_ri_getmodulediag",
};

namespace
{

struct needed_library {
    const char *file;
    std::span<const char *const> names;
};

} // namespace

static constexpr needed_library needed[] = {
    {"libmbx.so.1", mbx_names},
    {"libzel.so.0", zel_names},
    {"libtesktmo.so.0", tesktmo_names},
    {"libdolm_ric.so.0", dolm_ric_names},
};

/* The only name that is not a function's. */
static constexpr std::string_view per_thread_block = "procInfo";
static constexpr uint64_t per_thread_block_size = 8 * sizeof(uint32_t);

static std::optional<std::string> fault_of(const elf_library &library, const std::string &name)
{
    const auto found = library.names.find(name);
    if (found == library.names.end())
        return "is missing";
    const elf_symbol &symbol = found->second;
    if (name != per_thread_block)
        return symbol.kind == symbol_kind::function
                   ? std::nullopt
                   : std::optional("is data, but must be a function");
    if (symbol.kind != symbol_kind::thread_local_data)
        return "is one for all threads, but must be thread-local (__thread)";
    if (symbol.size < per_thread_block_size)
        return "has " + std::to_string(symbol.size) + " bytes, but must have " +
               std::to_string(per_thread_block_size);
    return std::nullopt;
}

/* Appends the faults in the names of a library. */
static void check_names(const needed_library &wanted, const elf_library &library,
                        std::vector<abi_problem> &problems)
{
    for (const char *name : wanted.names)
        if (const auto fault = fault_of(library, name))
            problems.push_back({wanted.file, name, *fault});
}

std::vector<abi_problem> check_abi(const std::string &directory)
{
    std::vector<abi_problem> problems;
    std::optional<elf_library> first;
    for (const needed_library &wanted : needed) {
        try {
            const auto library = read_elf_library(directory + "/" + wanted.file);
            if (!library) {
                problems.push_back({wanted.file, "", "is missing"});
                continue;
            }
            if (!first)
                first = library;
            if (library->machine != first->machine || library->is_64_bit != first->is_64_bit)
                problems.push_back(
                    {wanted.file, "", "is for another processor than the ones before it"});
            check_names(wanted, *library, problems);
        } catch (const elf_error &error) {
            problems.push_back({wanted.file, "", error.what()});
        }
    }
    return problems;
}

std::optional<std::vector<abi_problem>> check_library(const std::string &path)
{
    const std::string file = path.substr(path.find_last_of('/') + 1);
    for (const needed_library &wanted : needed) {
        const std::string_view stem = wanted.file;
        if (!file.starts_with(stem.substr(0, stem.find(".so") + 3)))
            continue;
        std::vector<abi_problem> problems;
        try {
            const auto library = read_elf_library(path);
            if (library)
                check_names(wanted, *library, problems);
            else
                problems.push_back({wanted.file, "", "is missing"});
        } catch (const elf_error &error) {
            problems.push_back({wanted.file, "", error.what()});
        }
        return problems;
    }
    return std::nullopt;
}
