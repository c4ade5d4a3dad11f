/* Tells those who bring the libraries of another board what tesk-server would miss in them. */
#include "abi.h"

#include <CLI/CLI.hpp>
#include <fmt/core.h>
#include <nlohmann/json.hpp>

namespace
{

enum exit_code { exit_complete = 0, exit_incomplete = 1, exit_usage = 2 };

void report(const abi_problem &problem, bool as_json)
{
    if (as_json) {
        nlohmann::ordered_json line = {
            {"library", problem.library}, {"name", nullptr}, {"text", problem.text}};
        if (!problem.name.empty())
            line["name"] = problem.name;
        fmt::print("{}\n", line.dump());
    } else if (problem.name.empty()) {
        fmt::print("{} {}\n", problem.library, problem.text);
    } else {
        fmt::print("{}: {} {}\n", problem.library, problem.name, problem.text);
    }
}

int run(int argc, char **argv)
{
    CLI::App app("Tells which names tesk-server would miss in the four libraries of a board.\n"
                 "Exits with 0 when nothing is missing, 1 when something is, 2 on wrong usage.");
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
        fmt::print("All four libraries offer everything that tesk-server needs.\n");
    return problems.empty() ? exit_complete : exit_incomplete;
}

} // namespace

int main(int argc, char **argv)
{
    try {
        return run(argc, argv);
    } catch (const std::exception &error) {
        std::fprintf(stderr, "tesk-abi-check: %s\n", error.what());
        return exit_usage;
    }
}
