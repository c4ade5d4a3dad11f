/* SPDX-License-Identifier: Apache-2.0 */
/* tesk-abi-check - checks the libraries of another board before the server is started with them. It
   reports all missing names at once, whereas the loader stops at the first one, and also works for
   another processor, whose programs can't be started here. */
#include "program/known_command.h"
#include "program/output.h"
#include "program/run_tool.h"
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

static std::vector<abi_problem> check(const std::string &directory, const std::string &library)
{
    if (library.empty())
        return check_abi(directory);
    const auto problems = check_library(library);
    if (!problems)
        throw tool_error(exit_code::usage, library +
                                               ": the name must begin with libmbx.so, libzel.so, "
                                               "libtesktmo.so or libdolm_ric.so");
    return *problems;
}

static exit_code run(int argc, char **argv)
{
    CLI::App app("Lists the names that tesk-server needs and the libraries of a board lack.\n"
                 "Exit codes: 0 nothing is missing, 1 something is, 2 wrong usage,\n"
                 "5 output could not be written, 70 a fault of tesk-abi-check itself.");
    std::string directory, library;
    bool as_json = false;
    CLI::Option *in_directory =
        app.add_option("DIR", directory,
                       "Holds libmbx.so.1, libzel.so.0, libtesktmo.so.0 and libdolm_ric.so.0")
            ->check(CLI::ExistingDirectory);
    app.add_option("--library", library, "Check only this one of the four")
        ->type_name("FILE")
        ->excludes(in_directory);
    app.add_flag("--json", as_json, "One object for each problem: library, name, text");
    app.set_version_flag("--version", "tesk-abi-check " TESK_VERSION);
    try {
        app.parse(argc, argv);
        if (directory.empty() && library.empty())
            throw CLI::RequiredError("DIR or --library");
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            throw usage_error(app, error);
        app.exit(error);
        return exit_code::done;
    }

    const auto problems = check(directory, library);
    for (const abi_problem &problem : problems)
        report(problem, as_json);
    if (problems.empty() && !as_json)
        write_text(library.empty()
                       ? "All four libraries export everything that tesk-server needs.\n"
                       : library + " exports everything that tesk-server needs of it.\n");
    return problems.empty() ? exit_code::done : exit_code::rejected;
}

int main(int argc, char **argv)
{
    return run_tool("tesk-abi-check", [&] { return run(argc, argv); });
}
