/* SPDX-License-Identifier: Apache-2.0 */
/* teskctl - the command line of tesk-server.

   CLI11 reads the words into the fields of command_line; a subcommand's callback only notes which
   function is to run. It runs after all words are read, since options may stand behind it. Whatever
   goes wrong comes out as a tool_error, so that one place ends the command: with a line on standard
   error, an object for programs, and the exit code. */
#include "tools/common/port_list.h"
#include "tools/common/run_tool.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/report.h"

#include <CLI/CLI.hpp>
#include <cstdlib>
#include <fmt/format.h>
#include <unistd.h>

static constexpr char footer[] =
    "PORTS are lists like 0-3,7; several may be given.\n"
    "Exit codes: 0 done, 1 rejected by the server, 2 wrong usage,\n"
    "3 no server or no access, 4 no answer in time, 5 output could not be written,\n"
    "70 a fault of teskctl itself.";

namespace
{

using ports_text = std::vector<std::string>;

} // namespace

static CLI::Option *add_ports(CLI::App *command, const std::string &name, ports_text &ports,
                              const std::string &help)
{
    return command->add_option(name, ports, help)->type_name("PORTS")->expected(1, -1);
}

namespace
{

/* The command line, and the command that it asks for. */
class command_line
{
  public:
    /* Writes into `common` what the options say. */
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
        add_reading_commands();
        add_following_commands();
    }

    exit_code run(int argc, char **argv)
    {
        try {
            app_.parse(argc, argv);
        } catch (const CLI::ParseError &error) {
            return app_.exit(error) == 0 ? exit_code::done : exit_code::usage;
        }
        common_.timeout_ms = static_cast<uint32_t>(timeout_ * 1000);
        /* Finding the server is the mailbox library's part of a connection, with a time of its own
           that no call can set. It gets the same as each answer, unless the environment says more
           or less: who has set it means it. */
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
        command->callback([this, run = std::move(run)] { command_ = run; });
        return command;
    }

    void add_reading_commands()
    {
        add("capabilities", "Show what the server says it can do",
            [this] { return run_capabilities(common_); });
        add_ports(add("pm", "Read the measured values of ports",
                      [this] { return run_pm(common_, parse_ports(ports_)); }),
                  "PORTS", ports_, "Which ports")
            ->required();
        add_ports(add("sfp", "Show which modules are in ports",
                      [this] {
                          return run_first_indication(common_, TESK_CLIENT_SFP_INFO,
                                                      parse_ports(ports_));
                      }),
                  "PORTS", ports_, "Which ports")
            ->required();
        add_ports(add("status", "Show link and levels of ports",
                      [this] {
                          return run_first_indication(common_, TESK_CLIENT_PORT_STATUS,
                                                      parse_ports(ports_));
                      }),
                  "PORTS", ports_, "Which ports")
            ->required();
        add("history", "Show what the server remembers",
            [this] { return run_history(common_, history_); })
            ->add_option("KIND", history_, "status, sfp or actions; all of them without it")
            ->check(CLI::IsMember({"status", "sfp", "actions"}));
    }

    void add_following_commands()
    {
        CLI::App *ping = add("ping", "Measure how long the server takes to answer",
                             [this] { return run_ping(common_, ping_); });
        ping->add_option("-c,--count", ping_.count, "End after so many requests");
        add_seconds(ping, "-i,--interval", ping_.interval, "Between two requests")
            ->capture_default_str();

        CLI::App *watch = add("watch", "Print what changes, as it changes", [this] {
            watch_.sfp = parse_ports(sfp_);
            watch_.status = parse_ports(status_);
            if (watch_.sfp.empty() && watch_.status.empty())
                throw tool_error(exit_code::usage, "watch what? Name ports with --sfp or --status");
            return run_watch(common_, watch_);
        });
        add_ports(watch, "--sfp", sfp_, "Watch the modules in these ports");
        add_ports(watch, "--status", status_, "Watch link and levels of these ports");
        add_seconds(watch, "--for", watch_.seconds, "End after so long");
        watch->add_option("--count", watch_.count, "End after so many indications");

        CLI::App *top = add("top", "Show ports live; q ends", [this] {
            top_.ports = parse_ports(ports_);
            return run_top(common_, top_);
        });
        add_ports(top, "PORTS", ports_, "Which ports")->required();
        add_seconds(top, "--interval", top_.interval, "Between two reads of the measured values")
            ->capture_default_str();
        add_seconds(top, "--for", top_.seconds, "End after so long");
    }

    static CLI::Option *add_seconds(CLI::App *command, const std::string &name, double &value,
                                    const std::string &help)
    {
        return command->add_option(name, value, help)
            ->type_name("SECONDS")
            ->check(CLI::Range(0.001, 1e6).description(""));
    }

    CLI::App app_{"Talks to tesk-server: what is in its ports, how they are, what they measure."};
    settings &common_;
    double timeout_ = 2;
    std::function<exit_code()> command_;
    ports_text ports_, sfp_, status_;
    std::string history_;
    ping_options ping_;
    watch_options watch_;
    top_options top_;
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
