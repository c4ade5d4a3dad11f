/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-abi-check - checks the libraries of another board before the server is started on them: all
   missing names at once, where the loader would stop at the first, and for another processor, where
   nothing can be started. */
#include "tools/common/output.h"
#include "tools/common/run_tool.h"
#include "tools/tesk_abi_check/abi.h"

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

static void report(const abi_problem &problem, bool as_json)
{
    if (as_json) {
        nlohmann::ordered_json line = {
            {"library", problem.library}, {"name", nullptr}, {"text", problem.text}};
        if (!problem.name.empty())
            line["name"] = problem.name;
        write_text(line.dump() + "\n");
    } else if (problem.name.empty()) {
        write_text(problem.library + " " + problem.text + "\n");
    } else {
        write_text(problem.library + ": " + problem.name + " " + problem.text + "\n");
    }
}

static exit_code run(int argc, char **argv)
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
        return app.exit(error) == 0 ? exit_code::done : exit_code::usage;
    }

    const auto problems = check_abi(directory);
    for (const abi_problem &problem : problems)
        report(problem, as_json);
    if (problems.empty() && !as_json)
        write_text("All four libraries offer everything that tesk-server needs.\n");
    return problems.empty() ? exit_code::done : exit_code::rejected;
}

int main(int argc, char **argv)
{
    return run_tool("tesk-abi-check", [&] { return run(argc, argv); });
}
