/* SPDX-License-Identifier: Apache-2.0 */
/* Tells those who bring the libraries of another board what tesk-server would miss in them: before
   they start it, where the loader would tell one name at a time, and for another processor, where
   nothing can be started at all. */
#include "tools/tesk_abi_check/abi.h"

#include <CLI/CLI.hpp>
#include <cstdio>
#include <nlohmann/json.hpp>

namespace
{

enum exit_code {
    exit_complete = 0,
    exit_incomplete = 1,
    exit_usage = 2,
    exit_no_output = 5,
    exit_fault = 70, /* EX_SOFTWARE: our own */
};

} // namespace

/* No exception where it fails: main looks at the stream in the end. */
static void write(const std::string &line)
{
    std::puts(line.c_str());
}

static void report(const abi_problem &problem, bool as_json)
{
    if (as_json) {
        nlohmann::ordered_json line = {
            {"library", problem.library}, {"name", nullptr}, {"text", problem.text}};
        if (!problem.name.empty())
            line["name"] = problem.name;
        write(line.dump());
    } else if (problem.name.empty()) {
        write(problem.library + " " + problem.text);
    } else {
        write(problem.library + ": " + problem.name + " " + problem.text);
    }
}

static int run(int argc, char **argv)
{
    CLI::App app(
        "Tells which names tesk-server would miss in the four libraries of a board.\n"
        "Exits with 0 when nothing is missing, 1 when something is, 2 on wrong usage, 5 when\n"
        "the output could not be written, 70 on a fault of its own.");
    std::string directory;
    bool as_json = false;
    app.add_option("DIR", directory,
                   "Holds libmbx.so.1, libzel.so.0, libtesktmo.so.0 and libdolm_ric.so.0")
        ->required()
        ->check(CLI::ExistingDirectory);
    app.add_flag("--json", as_json, "One object for each problem: library, name, text");
    app.set_version_flag("--version", "tesk-abi-check " TESK_VERSION);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_complete : exit_usage;
    }

    const auto problems = check_abi(directory);
    for (const abi_problem &problem : problems)
        report(problem, as_json);
    if (problems.empty() && !as_json)
        write("All four libraries offer everything that tesk-server needs.");
    return problems.empty() ? exit_complete : exit_incomplete;
}

int main(int argc, char **argv)
{
    try {
        const int code = run(argc, argv);
        if (std::fflush(stdout) == 0 && std::ferror(stdout) == 0)
            return code;
        std::fputs("tesk-abi-check: output could not be written: is the disk full?\n", stderr);
        return exit_no_output;
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tesk-abi-check: unexpected: %s\n", error.what());
        return exit_fault;
    }
}
