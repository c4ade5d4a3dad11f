/* SPDX-License-Identifier: Apache-2.0 */
/* teskctl - the command line of tesk-server.

   CLI11 parses the words into the fields of command_line; a subcommand's callback only selects the
   function, which runs once all words are parsed. Every failure is a tool_error and ends the
   command in one place: with a line on standard error, with --json an object, and an exit code. */
#include "program/exit_code.h"
#include "program/known_command.h"
#include "program/run_tool.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/report.h"

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

static constexpr char footer[] =
    "PORTS are lists like 0-3,7 or eth0,eth3, several of them, or \"all\".\n"
    "\"teskctl help COMMAND\" explains a command.\n"
    "Exit codes: 0 done, 1 rejected by the server, 2 wrong usage,\n"
    "3 no server or no access, 4 no answer in time, 5 output could not be written,\n"
    "70 a fault of teskctl itself.";

static CLI::Option *add_ports(CLI::App *command, const std::string &name, ports_text &ports,
                              const std::string &help)
{
    return command->add_option(name, ports, help)->type_name("PORTS")->expected(1, -1);
}

namespace
{

/* Parses the command line and selects the command. */
class command_line
{
  public:
    /* Stores the global options in `common`. */
    explicit command_line(settings &common) : common_(common)
    {
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.set_version_flag("--version", "teskctl " TESK_VERSION);
        app_.footer(footer);
        app_.add_flag("--json", common_.json, "Write one JSON object a line");
        app_.add_option("--timeout", timeout_, "Wait so long for each answer")
            ->type_name("SECONDS")
            ->check(CLI::Range(0.001, 86400.0).description(""))
            ->capture_default_str();
        app_.add_option("--wait", common_.wait_seconds,
                        "Wait for a server that isn't there yet; --wait=SECONDS sets a limit")
            ->type_name("[=SECONDS]")
            ->check(CLI::Range(0.0, 1e6).description(""));
        add_reading_commands();
        add_following_commands();
        add_exporter_commands();
    }

    exit_code run(int argc, char **argv)
    {
        try {
            std::vector<std::string> words(argv + 1, argv + argc);
            /* If the value of an option is optional, CLI11 would take the next word as the
               value. */
            std::ranges::replace(words, "--wait", "--wait=1000000");
            require_known_command(app_, words);
            if (words.size() > 1 && words.front() == "help")
                words = {words[1], "--help"};
            else if (!words.empty() && words.front() == "help")
                words = {"--help"};
            std::ranges::reverse(words); /* the order in which CLI11 takes a vector */
            app_.parse(std::move(words));
        } catch (const CLI::ParseError &error) {
            if (error.get_exit_code() != 0)
                throw usage_error(app_, error);
            app_.exit(error); /* CLI11 prints the text of --help or --version */
            return exit_code::done;
        }
        common_.timeout_ms = static_cast<uint32_t>(timeout_ * 1000);
        /* The mailbox library locates the server, and only the environment can set its timeout.
           Unless the user has set it, it becomes the timeout of an answer. */
        setenv("MBX_LOCATE_MS", std::to_string(common_.timeout_ms).c_str(), 0);
        common_.on_terminal = isatty(STDOUT_FILENO) != 0;
        const char *no_colour = std::getenv("NO_COLOR");
        common_.coloured = common_.on_terminal && (no_colour == nullptr || *no_colour == '\0');
        return command_();
    }

  private:
    CLI::App *add(const char *name, const char *help, std::function<exit_code()> run)
    {
        CLI::App *command = app_.add_subcommand(name, help);
        /* Only stored here: global options may follow. */
        command->callback([this, run = std::move(run)] { command_ = run; });
        return command;
    }

    /* A command whose only argument is PORTS. */
    void add_port_command(const char *name, const char *help,
                          exit_code (*function)(const settings &, const ports_text &))
    {
        CLI::App *command = add(name, help, [this, function] {
            check_ports(ports_);
            return function(common_, ports_);
        });
        add_ports(command, "PORTS", ports_, "Which ports")->required();
    }

    void add_reading_commands()
    {
        add("capabilities", "Show the capabilities that the server declares",
            [this] { return run_capabilities(common_); });
        add("doctor", "Check the way from the ports' configuration to this user and to Prometheus",
            [this] { return run_doctor(common_, prometheus_); })
            ->add_option("--prometheus", prometheus_, "The one that reads the exporter")
            ->type_name("ADDRESS:PORT")
            ->capture_default_str();
        add("history", "Show the server's history of events and actions",
            [this] { return run_history(common_, history_); })
            ->add_option("KIND", history_, "status, sfp or actions; all of them without it")
            ->check(CLI::IsMember({"status", "sfp", "actions"}));
        CLI::App *module = add("module", "Show modules whole: lanes, limits, flags, costs", [this] {
            check_ports(module_.ports);
            return run_module(common_, module_);
        });
        add_ports(module, "PORTS", module_.ports, "Which ports")->required();
        CLI::Option *watching = module->add_flag("--watch", module_.is_watching,
                                                 "Show a port again when it has changed");
        add_seconds(module, "--for", module_.seconds, "With --watch: end after so long")
            ->needs(watching);
        add_port_command("pm", "Read the measured values of ports", run_pm);
        CLI::App *ports =
            add("ports", "List the ports with module, values and interface name", [this] {
                check_ports(listed_.ports);
                return run_ports(common_, listed_);
            });
        add_ports(ports, "PORTS", listed_.ports, "Only these ports");
        ports->add_flag(
            "--status", listed_.has_status,
            "Add link, worst grade and whether the module is ready; leaves two to four records for "
            "each port in the server's history of 30 actions");
        ports->add_flag("--numbers", listed_.numbers_only, "Write the numbers only, for scripts");
        ports->add_flag("--names", listed_.names_only, "Write the interface names only");
        add_port_command("sfp", "Show the modules in ports", run_sfp);
        add_port_command("status", "Show link and grades of ports", run_status);
    }

    void add_exporter(CLI::App *command)
    {
        command->add_option("--exporter", trend_.exporter.address, "Ask the tesk-exporter there")
            ->type_name("ADDRESS:PORT")
            ->capture_default_str();
    }

    void add_exporter_commands()
    {
        add_exporter(add("forecast", "List what will fail, and when, soonest first",
                         [this] { return run_forecast(common_, trend_.exporter); }));
        add_exporter(add("modules", "List all modules that were ever seen, and where",
                         [this] { return run_modules(common_, trend_.exporter); }));
        CLI::App *trend = add("trend", "Plot the readings of a port over days or years",
                              [this] { return run_trend(common_, trend_); });
        add_exporter(trend);
        trend->add_option("PORT", trend_.port, "Number or interface name")->required();
        trend->add_option("--days", trend_.days, "Go back so far")
            ->type_name("N")
            ->check(CLI::Range(0.05, 731.0).description(""))
            ->capture_default_str();
        trend->add_flag("--csv", trend_.csv, "Write comma-separated values");
        CLI::App *why = add("why", "Say why links fell", [this] {
            if (!why_.ports.empty())
                check_ports(why_.ports);
            return run_why(common_, why_);
        });
        CLI::Option *ports = add_ports(why, "PORTS", why_.ports, "Which ports; all without them");
        why->add_option("--facts", why_.facts,
                        "Judge the facts in a file, JSON; - for standard input")
            ->type_name("FILE")
            ->excludes(ports);
        why->add_option("--facts-out", why_.facts_out, "Write the facts to a file, too")
            ->type_name("FILE");
        why->add_option("--other-end", why_.other_end, "Facts of the same fall at the other end")
            ->type_name("FILE");
        add_count(why, "--last", why_.last, "Show at most this many falls, the newest");
    }

    void add_following_commands()
    {
        CLI::App *ping = add("ping", "Measure how long the server takes to answer",
                             [this] { return run_ping(common_, ping_); });
        add_count(ping, "-c,--count", ping_.count, "End after so many requests");
        add_seconds(ping, "-i,--interval", ping_.interval, "Between two requests")
            ->capture_default_str();

        CLI::App *top = add("top", "Show ports live; q ends, ? helps", [this] {
            check_ports(top_.ports);
            return run_top(common_, top_);
        });
        add_ports(top, "PORTS", top_.ports, "Which ports")->required();
        add_seconds(top, "--interval", top_.interval, "Between two reads of the measured values")
            ->capture_default_str();
        add_seconds(top, "--for", top_.seconds, "End after so long");

        CLI::App *watch = add("watch", "Print changes as they come", [this] {
            if (watch_.sfp.empty() && watch_.status.empty())
                throw tool_error(exit_code::usage,
                                 "watch needs --sfp PORTS, --status PORTS, or both");
            for (const ports_text *ports : {&watch_.sfp, &watch_.status})
                if (!ports->empty())
                    check_ports(*ports);
            return run_watch(common_, watch_);
        });
        add_ports(watch, "--sfp", watch_.sfp, "Watch the modules in these ports");
        add_ports(watch, "--status", watch_.status, "Watch link and grades of these ports");
        add_seconds(watch, "--for", watch_.seconds, "End after so long");
        add_count(watch, "--count", watch_.count, "End after so many indications");
        watch->add_flag("!--no-falls", watch_.has_falls, "Don't show why links fell");
    }

    static void add_count(CLI::App *command, const std::string &name, uint64_t &value,
                          const std::string &help)
    {
        command->add_option(name, value, help)
            ->type_name("N")
            ->check(CLI::Range(uint64_t{1}, uint64_t{UINT32_MAX}).description(""));
    }

    static CLI::Option *add_seconds(CLI::App *command, const std::string &name, double &value,
                                    const std::string &help)
    {
        return command->add_option(name, value, help)
            ->type_name("SECONDS")
            ->check(CLI::Range(0.001, 1e6).description(""));
    }

    CLI::App app_{"Shows the SFP ports of a board as tesk-server sees them.", "teskctl"};
    settings &common_;
    double timeout_ = 2;
    std::function<exit_code()> command_;
    ports_text ports_;
    std::string history_;
    std::string prometheus_ = "127.0.0.1:9090";
    ports_options listed_;
    module_options module_;
    ping_options ping_;
    watch_options watch_;
    top_options top_;
    trend_options trend_;
    why_options why_;
};

} // namespace

/* With --json a program that reads the output gets the error as an object, too. */
static exit_code run_and_report(int argc, char **argv)
{
    settings common;
    try {
        return command_line(common).run(argc, argv);
    } catch (const tool_error &error) {
        reporter(common).error_object(error.code(), error.what());
        throw;
    } catch (const std::exception &error) {
        reporter(common).error_object(exit_code::fault, error.what());
        throw;
    }
}

int main(int argc, char **argv)
{
    return run_tool("teskctl", [&] { return run_and_report(argc, argv); });
}
