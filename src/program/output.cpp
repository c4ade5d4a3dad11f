/* SPDX-License-Identifier: Apache-2.0 */
/* The stream remembers a failed write, so that one check at the end of a tool covers all output:
   on a full disk the buffered text fails at the last flush, or any time before. */
#include "program/output.h"

#include "program/exit_code.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

/* errno of the first failed write. */
static int first_error;

static void note(bool is_done)
{
    if (!is_done && first_error == 0)
        first_error = errno;
}

void write_text(const std::string &text)
{
    note(std::fwrite(text.data(), 1, text.size(), stdout) == text.size());
}

void write_now(const std::string &text)
{
    write_text(text);
    note(std::fflush(stdout) == 0);
}

void check_output()
{
    note(std::fflush(stdout) == 0);
    if (first_error != 0 || std::ferror(stdout) != 0)
        throw tool_error(exit_code::no_output,
                         std::string("output could not be written: ") + std::strerror(first_error));
}

void complain(const char *tool, const std::string &text)
{
    std::fflush(stdout); /* keeps the order if both streams are written to one file */
    std::fprintf(stderr, "%s: %s\n", tool, text.c_str());
}
