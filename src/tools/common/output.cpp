/* SPDX-License-Identifier: Apache-2.0 */
/* The stream remembers a failed write, so that one check at the end of a tool covers all output:
   on a full disk the buffered text fails at the last flush, or any time before. */
#include "tools/common/output.h"

#include "tools/common/exit_code.h"

#include <cstdio>

void write_text(const std::string &text)
{
    std::fwrite(text.data(), 1, text.size(), stdout);
}

void write_now(const std::string &text)
{
    write_text(text);
    std::fflush(stdout);
}

void check_output()
{
    if (std::fflush(stdout) != 0 || std::ferror(stdout) != 0)
        throw tool_error(exit_code::no_output, "output could not be written: is the disk full?");
}

void complain(const char *tool, const std::string &text)
{
    std::fflush(stdout); /* keeps the order where both streams go to one place */
    std::fprintf(stderr, "%s: %s\n", tool, text.c_str());
}
