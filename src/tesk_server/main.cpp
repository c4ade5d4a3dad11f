/* SPDX-License-Identifier: Apache-2.0 */
/* The executable; all other sources are in the static library, which the tests link, too. */
#include "tesk_server/tesk_main.h"

#include <cstdio>
#include <cstring>

static constexpr int wrong_usage = 2;
static constexpr int output_failed = 5;

static constexpr char help[] =
    "Usage: tesk-server [--help | --version]\n"
    "Runs the transceiver and link-status service in the foreground until SIGTERM or SIGINT.\n"
    "It takes no other arguments; tesk-server(8) has the environment variables.\n";

static int print(const char *text)
{
    return fputs(text, stdout) >= 0 && fflush(stdout) == 0 ? 0 : output_failed;
}

int main(int argc, char **argv)
{
    if (argc <= 1)
        return tesk_run();
    if (argc == 2 && strcmp(argv[1], "--help") == 0)
        return print(help);
    if (argc == 2 && strcmp(argv[1], "--version") == 0)
        return print("tesk-server " TESK_VERSION "\n");
    fprintf(stderr, "tesk-server: takes no arguments but --help or --version\n");
    return wrong_usage;
}
