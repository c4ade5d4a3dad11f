/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_paths - the paths of a board's files, from environment variables. No state, any
   thread. */
#pragma once

#include <cstdlib>
#include <string>
#include <string_view>

/* Empty if it isn't set, and in a program with more rights than its caller. */
inline std::string value_of_variable(const char *name)
{
    const char *set = secure_getenv(name);
    return set != nullptr ? set : "";
}

/* Files at the default path belong to the board of the system's server: not where MBX_DIR selects
   another one. */
inline bool is_default_board()
{
    const std::string directory = value_of_variable("MBX_DIR");
    return directory.empty() || directory == std::string_view("/run/mbx");
}
