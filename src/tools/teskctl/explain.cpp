/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: explain() takes the text of a result and adds a remedy. */
#include "tools/teskctl/explain.h"

#include "program/socket_group.h"
#include "util/escape.h"

#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

exit_code exit_code_of(tesk_client_result result)
{
    switch (result) {
    case TESK_CLIENT_OK:
        return exit_code::done;
    case TESK_CLIENT_REJECTED:
        return exit_code::rejected;
    case TESK_CLIENT_MISUSE:
        return exit_code::usage;
    case TESK_CLIENT_TIMEOUT:
        return exit_code::no_answer;
    default:
        return exit_code::no_server;
    }
}

std::string mailbox_directory()
{
    const char *directory = secure_getenv("MBX_DIR");
    return directory != nullptr && *directory != '\0' ? directory : default_mailbox_directory;
}

/* The path of the server's unit file, or of a link to /dev/null, which masks the unit; empty if
   there is no such file, or no systemd. */
static std::string unit_file()
{
    static constexpr const char *folders[] = {"/etc/systemd/system", "/run/systemd/system",
                                              "/usr/local/lib/systemd/system",
                                              "/usr/lib/systemd/system", "/lib/systemd/system"};
    if (access("/run/systemd/system", F_OK) != 0)
        return ""; /* systemd isn't the first process */
    for (const char *folder : folders)
        if (std::string file = fmt::format("{}/{}.service", folder, server_name);
            access(file.c_str(), F_OK) == 0)
            return file;
    return "";
}

/* The remedy if there is no server. A masked unit was stopped on purpose. */
static std::string how_to_start()
{
    const std::string directory = mailbox_directory();
    const std::string file = directory == default_mailbox_directory ? unit_file() : "";
    char target[16] = "";
    if (file.empty())
        return fmt::format("start it with \"MBX_DIR={} {}\"", escape(directory), server_name);
    if (readlink(file.c_str(), target, sizeof(target) - 1) > 0 &&
        std::string_view(target) == "/dev/null")
        return fmt::format("its unit is masked: \"systemctl unmask {}\" lets it start again",
                           server_name);
    return fmt::format("start it with \"systemctl start {}\"", server_name);
}

std::string explain(tesk_client_result result, const std::string &text)
{
    const std::string directory = mailbox_directory();
    switch (result) {
    case TESK_CLIENT_NO_SERVER:
        return fmt::format("no server: no process has the name \"{}\" in {}; {}, "
                           "or set MBX_DIR to the directory of the one that runs; "
                           "\"teskctl doctor\" looks for the cause",
                           server_name, escape(directory), how_to_start());
    case TESK_CLIENT_NO_ACCESS:
        return fmt::format("no access to \"{}\" in {}: become a member of group {}, or use sudo",
                           server_name, escape(directory),
                           socket_group(directory + "/" + server_name));
    case TESK_CLIENT_TIMEOUT:
        return fmt::format("{}: is {} stopped or busy? --timeout gives it longer", text,
                           server_name);
    case TESK_CLIENT_REJECTED:
        return "rejected by the server: " + escape(text);
    default:
        return text;
    }
}

std::string explain(const tesk_client_answer &answer)
{
    if (answer.rejection == TESK_CLIENT_REJECTION_NO_PORT)
        return "no such port";
    return explain(answer.result, answer.text);
}
