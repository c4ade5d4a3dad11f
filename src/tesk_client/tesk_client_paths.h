/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_paths - the paths of a board's files, from environment variables. No state, any
   thread. */
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

/* Empty if the variable isn't set, and in a program with more rights than its caller. */
inline std::string value_of_variable(const char *name)
{
    const char *set = secure_getenv(name);
    return set != nullptr ? set : "";
}

/* Whether files at the default paths are those of the selected server: they belong to the system's
   server, and MBX_DIR may select another one. */
inline bool is_default_board()
{
    const std::string directory = value_of_variable("MBX_DIR");
    return directory.empty() || directory == std::string_view("/run/mbx");
}
