/* SPDX-License-Identifier: Apache-2.0 */
#include "tools/teskctl/explain.h"

#include "tools/common/socket_group.h"
#include "util/escape.h"

#include <cstdlib>
#include <fmt/format.h>

static constexpr char server_name[] = "tesk-server";

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

std::string explain(tesk_client_result result, const std::string &text)
{
    switch (result) {
    case TESK_CLIENT_NO_SERVER:
        return fmt::format("no server: nobody answers to the name \"{0}\" in {1}; start it with "
                           "\"MBX_DIR={1} {0}\", or set MBX_DIR to the directory of the one that "
                           "runs",
                           server_name, mailbox_directory());
    case TESK_CLIENT_NO_ACCESS:
        return fmt::format("no access to \"{}\" in {}: become a member of group {}, or use sudo",
                           server_name, mailbox_directory(),
                           socket_group(mailbox_directory() + "/" + server_name));
    case TESK_CLIENT_TIMEOUT:
        return fmt::format("{}: is {} stopped or busy? --timeout gives it longer", text,
                           server_name);
    case TESK_CLIENT_REJECTED:
        return "rejected by the server: " + escape(text);
    default:
        return text;
    }
}

std::string mailbox_directory()
{
    const char *directory = std::getenv("MBX_DIR");
    return directory != nullptr && *directory != '\0' ? directory : "/run/mbx";
}
