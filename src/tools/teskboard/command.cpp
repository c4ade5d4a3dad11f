/* SPDX-License-Identifier: Apache-2.0 */
/* CLI11 parses the words. Each subcommand then builds one request to the board from them. The
   values are checked here, with the board's own functions, so that a wrong value is a usage error
   and a scene can be checked without a board. */
#include "tools/teskboard/command.h"

#include "platform/dolm_ric/simulator/control_protocol.h"
#include "program/known_command.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <fmt/ranges.h>

namespace teskboard
{

namespace
{

/* The values of all subcommands' options; one command uses few of them. */
struct values {
    std::string ports;
    std::vector<std::string> settings;
    std::vector<std::string> texts;
    std::string state;
    std::string speed;
    std::string module = "-";
    std::string operation;
    std::string code;
    std::string count; /* empty: `fail` has no limit, `wait` waits for one call */
    std::string type;
    std::string id;
    std::string value;
    std::string subscribed;
    std::string unsubscribed;
    bool idle = false;
    bool again = false;
    bool not_ready = false;
};

/* The identity texts that `insert` has options for; `set` takes them by their keys. */
struct text_option {
    const char *option;
    const char *key;
};

} // namespace

static constexpr text_option text_options[] = {
    {"--vendor", "vendor_name"},       {"--pn", "vendor_pn"},
    {"--rev", "vendor_rev"},           {"--sn", "vendor_sn"},
    {"--date", "date_code"},           {"--rdh", "morvaine_rdh"},
    {"--rdh-ext", "morvaine_rdh_ext"},
};

/* Checks "key=value" and returns it as one word of a request. A blank ends a word, so the blanks of
   texts are escaped; other values stay as they are. */
static std::string setting_word(const std::string &text)
{
    const board::setting parsed = board::parse_setting(text);
    if (parsed.target->kind != board::field_kind::text)
        return text;
    return fmt::format("{}={}", parsed.target->name, board::escape(parsed.bytes, true));
}

static std::string setting_words(const std::vector<std::string> &texts)
{
    std::string words;
    for (const std::string &text : texts)
        words += " " + setting_word(text);
    return words;
}

/* A number would be taken as a code of the library's records, so a plain "7" is a mistake. */
static std::string is_speed(const std::string &text)
{
    for (const char *speed : {"1.2", "2.5", "4.9", "9.8", "10.1", "10"})
        if (text == speed)
            return "";
    return text.starts_with("0x") ? ""
                                  : text + " is not a speed: 1.2, 2.5, 4.9, 9.8, 10.1 or 10, or a "
                                           "code 0x...";
}

/* Examples of values for a kind of field, for the help. */
static const char *example_of(board::field_kind kind)
{
    using enum board::field_kind;
    switch (kind) {
    case flag:
        return "yes or no";
    case link_state:
        return "up, down, stopped";
    case speed:
        return "1.2, 2.5, 4.9, 9.8, 10.1, 10";
    case connector:
        return "unspec, lc, rj45, other";
    case eth_speed:
        return "unspec, 1000mb, 10gb";
    case temperature:
        return "71.5C";
    case voltage:
        return "3.3V, mV, uV";
    case current:
        return "6.0mA, A, uA";
    case power:
        return "0.5mW, W, uW, -3dBm";
    case decibels:
        return "18.5dB";
    case ratio:
        return "1e-6";
    case text:
        return "bytes; \\xNN for those that are no text";
    default:
        return "a whole number";
    }
}

static bool is_threshold(std::string_view name)
{
    return name.ends_with("_warn") || name.ends_with("_alarm");
}

/* The keys of `set`, from the board's own table. */
static std::string keys_help()
{
    std::string text = "Keys and their values:\n";
    for (const board::field &each : board::fields())
        if (!is_threshold(each.name))
            text += fmt::format("  {:<17} {}\n", each.name, example_of(each.kind));
    text += "Of a lane, for the details of the port, as in rx-power.3:\n";
    for (const board::field &each : board::lane_fields())
        text += fmt::format("  {:<17} {}\n", std::string(each.name) + ".N", example_of(each.kind));
    return text + "Thresholds: KEY_low_alarm, KEY_low_warn, KEY_high_warn, KEY_high_alarm.";
}

namespace
{

/* The subcommands with their options. A subcommand's function runs after all words are parsed. */
class command_parser
{
  public:
    command_parser(CLI::App &app, command &result) : app_(app), result_(result)
    {
        app_.require_subcommand(1);
        app_.fallthrough(); /* global options may follow those of a command */
        app_.add_option("--timeout", result_.timeout, "Seconds to wait for an answer")
            ->check(CLI::Range(0.0, 86400.0))
            ->capture_default_str();
        add_views();
        add_modules();
        add_values();
        add_faults();
        add_wait();
    }

    /* Options and commands that a line of a scene must not have. */
    void add_global(settings &global)
    {
        const char *path = secure_getenv(DOLM_RIC_BOARD_SOCKET_ENV);
        global.socket = path != nullptr && *path != '\0' ? path : DOLM_RIC_BOARD_SOCKET;
        app_.set_version_flag("--version", "teskboard " TESK_VERSION);
        app_.add_option("--socket", global.socket, "Where the board listens")
            ->capture_default_str();
        app_.add_flag("--json", global.json, "One JSON object a line");
        CLI::App *play = add("play", "Play a scene: one timed step a line",
                             [this] { result_.what = action::play; });
        play->add_option("FILE", result_.scene)->required();
    }

  private:
    CLI::App *add(const char *name, const char *about, std::function<void()> finish)
    {
        CLI::App *sub = app_.add_subcommand(name, about);
        /* Runs once, after all options; CLI11's other kind of callback runs while words are
           parsed. */
        sub->final_callback(std::move(finish));
        return sub;
    }

    CLI::Option *takes_ports(CLI::App *sub)
    {
        return sub->add_option("PORTS", given_.ports, "A list such as 0-3,7")->required();
    }

    /* Checks the list and returns it unchanged: only the board knows which ports exist. */
    const std::string &ports()
    {
        if (!given_.ports.empty())
            result_.ports = board::parse_ports(given_.ports);
        return given_.ports;
    }

    /* Most commands that change a port send this request. */
    void set(const std::vector<std::string> &texts)
    {
        result_.request =
            fmt::format("set {}{}{}", ports(), given_.again ? " again" : "", setting_words(texts));
    }

    CLI::App *add_set(const char *name, const char *about, const std::vector<std::string> &texts)
    {
        CLI::App *sub = add(name, about, [this, texts] { set(texts); });
        takes_ports(sub);
        takes_again(sub);
        return sub;
    }

    /* Without this option the board sends an event only if the value changes. */
    void takes_again(CLI::App *sub)
    {
        sub->add_flag("--again", given_.again, "Send the event even if nothing is new");
    }

    void add_views()
    {
        CLI::App *show = add("show", "Show ports, all or those named in full", [this] {
            ports();
            result_.what = action::show;
        });
        /* Accepts several lists, so that the shell's {0..3} works like 0-3. */
        show->add_option_function<std::vector<std::string>>(
            "PORTS",
            [this](const std::vector<std::string> &lists) {
                given_.ports = fmt::format("{}", fmt::join(lists, ","));
            },
            "Lists such as 0-3,7");
        add("ports", "Show the board: counts, calls, failures",
            [this] { result_.what = action::ports; });
    }

    void add_modules()
    {
        CLI::App *insert = add("insert", "Put a module in", [this] {
            if (given_.not_ready)
                given_.settings.push_back("ready=no");
            result_.request =
                fmt::format("insert {} {}{}{}", ports(), given_.module, setting_words(given_.texts),
                            setting_words(given_.settings));
        });
        takes_ports(insert);
        std::vector<std::string> kinds;
        for (const board::module_kind &kind : board::module_kinds())
            kinds.emplace_back(kind.name);
        insert->add_option("--module", given_.module, "What to put in, instead of the last one")
            ->check(CLI::IsMember(kinds));
        for (const text_option &text : text_options)
            insert->add_option_function<std::string>(
                text.option,
                [this, key = text.key](const std::string &value) {
                    given_.texts.push_back(fmt::format("{}={}", key, value));
                },
                fmt::format("Its {}", text.key));
        insert->add_flag("--not-ready", given_.not_ready, "Leave it not ready");
        insert->add_option("KEY=VALUE", given_.settings, "As for set");
        takes_ports(add("remove", "Take the module out",
                        [this] { result_.request = fmt::format("remove {}", ports()); }));
    }

    void add_values()
    {
        add_set("ready", "The module is ready", {"ready=yes"});
        add_set("not-ready", "The module is not ready", {"ready=no"});
        CLI::App *link = add("link", "Change a link", [this] {
            std::vector<std::string> texts = {"link=" + given_.state};
            if (!given_.speed.empty())
                texts.push_back("speed=" + given_.speed);
            set(texts);
        });
        takes_ports(link);
        link->add_option("STATE", given_.state, "up, down or stopped")->required();
        link->add_option("--speed", given_.speed,
                         "In Gbps: 1.2 2.5 4.9 9.8 10.1 10, or a code 0x...")
            ->check(is_speed);
        takes_again(link);
        CLI::App *set_values =
            add("set", "Change anything that a port reports", [this] { set(given_.settings); });
        takes_ports(set_values);
        set_values->add_option("KEY=VALUE", given_.settings, "Such as temperature=71.5C")
            ->required();
        set_values->footer(keys_help());
        takes_again(set_values);
    }

    void add_faults()
    {
        CLI::App *fail = add("fail", "Make an operation of the library fail", [this] {
            const board::operation op = board::parse_operation(given_.operation);
            board::parse_code(given_.code);
            result_.request =
                fmt::format("fail {} {} {} {}", board::operation_name(op), given_.code,
                            given_.count.empty() ? "always" : given_.count, ports());
        });
        fail->add_option("OPERATION", given_.operation)->required();
        fail->add_option("CODE", given_.code, "A number or a name such as busy")->required();
        fail->add_option("--port", given_.ports, "Only on these ports");
        fail->add_option("--count", given_.count, "Only the next so many calls")
            ->check(CLI::Range(1, INT32_MAX));
        CLI::App *heal = add("heal", "Let operations work again",
                             [this] { result_.request = "heal " + given_.operation; });
        heal->add_option("OPERATION", given_.operation, "Only this one");
        CLI::App *event = add("event", "Send a raw event, subscribed or not",
                              [this] { result_.request = event_request(); });
        event->add_option("TYPE", given_.type, "port-status, link-status, shutdown or a number")
            ->required();
        event->add_option("--port", given_.ports, "The port that it is about");
        event->add_option("--id", given_.id, "The same as a raw id");
        event->add_option("--value", given_.value, "The port's status word or the link's state");
        event->add_option("--speed", given_.speed, "The link's speed");
    }

    /* The value is a number, or a word of the field that this kind of event carries. */
    std::string event_request()
    {
        const auto raw = [](const char *key, const std::string &value) {
            return value.empty() ? 0 : board::parse_setting(key + ("=" + value)).number;
        };
        uint64_t type = DOLM_RICEVT_SHUTDOWN;
        if (given_.type == "port-status")
            type = DOLM_RICEVT_RIPORTSTATUS;
        else if (given_.type == "link-status")
            type = DOLM_RICEVT_RILINKSTATUS;
        else if (given_.type != "shutdown")
            type = board::parse_number(given_.type, UINT32_MAX);
        ports();
        uint64_t id = board::id_of_port_0;
        if (!given_.id.empty())
            id = board::parse_number(given_.id, UINT32_MAX);
        else if (!result_.ports.empty())
            id |= result_.ports[0].first;
        const bool of_link = type == DOLM_RICEVT_RILINKSTATUS;
        return fmt::format("event {} {} {} {}", type, id,
                           raw(of_link ? "link" : "port_status", given_.value),
                           raw("speed", given_.speed));
    }

    void add_wait()
    {
        CLI::App *wait = add("wait", "Wait for what the server does with the board", [this] {
            result_.what = action::wait;
            result_.request = wait_request();
        });
        takes_ports(wait)->required(false); /* two of the conditions need no port */
        const CLI::IsMember kinds({"port", "link"});
        CLI::Option_group *what = wait->add_option_group("condition");
        what->require_option(1);
        what->add_option("--subscribed", given_.subscribed, "Until PORTS are, for port or link")
            ->check(kinds);
        what->add_option("--unsubscribed", given_.unsubscribed, "Until PORTS are not")
            ->check(kinds);
        what->add_option("--calls", given_.operation, "Until this operation was called");
        what->add_flag("--idle", given_.idle, "Until all events were taken");
        wait->add_option("--count", given_.count, "With --calls: this many calls since the start")
            ->check(CLI::Range(0, INT32_MAX));
    }

    /* CLI11 has checked that there is exactly one condition. */
    std::string wait_request()
    {
        if (given_.idle)
            return "wait idle";
        if (!given_.operation.empty())
            return fmt::format("wait calls {} {}",
                               board::operation_name(board::parse_operation(given_.operation)),
                               given_.count.empty() ? "1" : given_.count);
        if (given_.ports.empty())
            throw board::board_error(given_.subscribed.empty()
                                         ? "wait --unsubscribed needs PORTS, such as 0-3"
                                         : "wait --subscribed needs PORTS, such as 0-3");
        const bool wanted = !given_.subscribed.empty();
        return fmt::format("wait {} {} {}", wanted ? "subscribed" : "unsubscribed", ports(),
                           wanted ? given_.subscribed : given_.unsubscribed);
    }

    CLI::App &app_;
    command &result_;
    values given_;
};

} // namespace

command parse_command(std::vector<std::string> words, settings *global, CLI::App &app)
{
    command result;
    command_parser parser(app, result);
    if (global != nullptr)
        parser.add_global(*global);
    if (words.size() > 1 && words[0] == "help" && global != nullptr)
        words = {words[1], "--help"};
    require_known_command(app, words);
    std::reverse(words.begin(), words.end()); /* CLI11 takes them from the end of a vector */
    app.parse(std::move(words));
    return result;
}

} // namespace teskboard
