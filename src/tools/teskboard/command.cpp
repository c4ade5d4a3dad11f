/* SPDX-License-Identifier: Apache-2.0 */
#include "tools/teskboard/command.h"

#include "platform/dolm_ric/simulator/control_protocol.h"

#include <algorithm>
#include <cstdlib>
#include <fmt/format.h>
#include <fmt/ranges.h>

/* CLI11 reads the words. Each subcommand, once its words are read, makes of them one request to the
   board. The values in a request are found right here already, with the board's own functions, so
   that a wrong one is wrong usage, and a scene is checked without a board. */

namespace teskboard
{

namespace
{

/* Where the options of all subcommands leave their values: one command uses few of them. */
struct values {
    std::string ports;
    std::vector<std::string> settings;
    std::vector<std::string> texts;
    std::string state;
    std::string speed;
    std::string module = "-";
    std::string operation;
    std::string code;
    std::string count; /* empty: `fail` lasts for ever, `wait` is for one call */
    std::string type;
    std::string id;
    std::string value;
    std::string subscribed;
    std::string unsubscribed;
    bool idle = false;
    bool again = false;
    bool not_ready = false;
};

/* The identity texts that `insert` takes as options; `set` takes them by their keys. */
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

/* "key=value" as one word of a request, once it has been found right. Only texts are written anew:
   a request ends a word at a blank, so theirs are escaped. */
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

namespace
{

/* The subcommands with their options. A subcommand's function runs after all words are read. */
class reader
{
  public:
    reader(CLI::App &where, command &into) : app(where), result(into)
    {
        app.require_subcommand(1);
        app.fallthrough(); /* the common options may stand behind a command's own */
        app.add_option("--timeout", result.timeout, "Seconds to wait for an answer")
            ->check(CLI::Range(0.0, 86400.0))
            ->capture_default_str();
        add_views();
        add_modules();
        add_values();
        add_faults();
        add_wait();
    }

    /* What a line of a scene can't have. */
    void add_whole(settings &whole)
    {
        const char *path = std::getenv(DOLM_RIC_BOARD_SOCKET_ENV);
        whole.socket = path != nullptr && *path != '\0' ? path : DOLM_RIC_BOARD_SOCKET;
        app.set_version_flag("--version", "teskboard " TESK_VERSION);
        app.add_option("--socket", whole.socket, "Where the board listens")->capture_default_str();
        app.add_flag("--json", whole.json, "One JSON object a line");
        CLI::App *play = add("play", "Play a scene: one timed step a line",
                             [this] { result.what = action::play; });
        play->add_option("FILE", result.scene)->required();
    }

  private:
    CLI::App *add(const char *name, const char *about, std::function<void()> finish)
    {
        CLI::App *sub = app.add_subcommand(name, about);
        /* The final one runs once, behind all options; the other kind runs as the words come. */
        sub->final_callback(std::move(finish));
        return sub;
    }

    CLI::Option *takes_ports(CLI::App *sub)
    {
        return sub->add_option("PORTS", given.ports, "A list such as 0-3,7")->required();
    }

    /* The list as it was given, once it has been found right: the board reads it itself, since only
       it knows which ports there are. */
    const std::string &ports()
    {
        if (!given.ports.empty())
            result.ports = board::parse_ports(given.ports);
        return given.ports;
    }

    /* Most changes of a port come down to this request. */
    void set(const std::vector<std::string> &texts)
    {
        result.request =
            fmt::format("set {}{}{}", ports(), given.again ? " again" : "", setting_words(texts));
    }

    CLI::App *add_set(const char *name, const char *about, const std::vector<std::string> &texts)
    {
        CLI::App *sub = add(name, about, [this, texts] { set(texts); });
        takes_ports(sub);
        takes_again(sub);
        return sub;
    }

    /* The board tells the server of a value only when it is another than before. */
    void takes_again(CLI::App *sub)
    {
        sub->add_flag("--again", given.again, "Send the event even if nothing is new");
    }

    void add_views()
    {
        CLI::App *show = add("show", "Show ports, all or those named in full", [this] {
            ports();
            result.what = action::show;
        });
        /* Several lists, so that the shell's {0..3} does as well as 0-3. */
        show->add_option_function<std::vector<std::string>>(
            "PORTS",
            [this](const std::vector<std::string> &lists) {
                given.ports = fmt::format("{}", fmt::join(lists, ","));
            },
            "Lists such as 0-3,7");
        add("ports", "Show the board: counts, calls, failures",
            [this] { result.what = action::ports; });
    }

    void add_modules()
    {
        CLI::App *insert = add("insert", "Put a module in", [this] {
            if (given.not_ready)
                given.settings.push_back("ready=no");
            result.request = fmt::format("insert {} {}{}{}", ports(), given.module,
                                         setting_words(given.texts), setting_words(given.settings));
        });
        takes_ports(insert);
        std::vector<std::string> kinds;
        for (const board::module_kind &kind : board::module_kinds())
            kinds.emplace_back(kind.name);
        insert->add_option("--module", given.module, "What to put in, instead of the last one")
            ->check(CLI::IsMember(kinds));
        for (const text_option &text : text_options)
            insert->add_option_function<std::string>(
                text.option,
                [this, key = text.key](const std::string &value) {
                    given.texts.push_back(fmt::format("{}={}", key, value));
                },
                fmt::format("Its {}", text.key));
        insert->add_flag("--not-ready", given.not_ready, "Leave it not ready");
        insert->add_option("KEY=VALUE", given.settings, "As for set");
        takes_ports(add("remove", "Take the module out",
                        [this] { result.request = fmt::format("remove {}", ports()); }));
    }

    void add_values()
    {
        add_set("ready", "The module is ready", {"ready=yes"});
        add_set("not-ready", "The module is not ready", {"ready=no"});
        CLI::App *link = add("link", "Change a link", [this] {
            std::vector<std::string> texts = {"link=" + given.state};
            if (!given.speed.empty())
                texts.push_back("speed=" + given.speed);
            set(texts);
        });
        takes_ports(link);
        link->add_option("STATE", given.state, "up, down or stopped")->required();
        link->add_option("--speed", given.speed,
                         "In Gbps: 1.2 2.5 4.9 9.8 10.1 10, or a code 0x...");
        takes_again(link);
        CLI::App *set_values =
            add("set", "Change anything that a port reports", [this] { set(given.settings); });
        takes_ports(set_values);
        set_values->add_option("KEY=VALUE", given.settings, "Such as temperature=71.5C")
            ->required();
        takes_again(set_values);
    }

    void add_faults()
    {
        CLI::App *fail = add("fail", "Make an operation of the library fail", [this] {
            const board::operation op = board::parse_operation(given.operation);
            board::parse_code(given.code);
            result.request = fmt::format("fail {} {} {} {}", board::operation_name(op), given.code,
                                         given.count.empty() ? "always" : given.count, ports());
        });
        fail->add_option("OPERATION", given.operation)->required();
        fail->add_option("CODE", given.code, "A number or a name such as busy")->required();
        fail->add_option("--port", given.ports, "Only on these ports");
        fail->add_option("--count", given.count, "Only the next so many calls")
            ->check(CLI::Range(1, INT32_MAX));
        CLI::App *heal = add("heal", "Let operations work again",
                             [this] { result.request = "heal " + given.operation; });
        heal->add_option("OPERATION", given.operation, "Only this one");
        CLI::App *event = add("event", "Send a raw event, subscribed or not",
                              [this] { result.request = event_request(); });
        event->add_option("TYPE", given.type, "port-status, link-status, shutdown or a number")
            ->required();
        event->add_option("--port", given.ports, "The port that it tells of");
        event->add_option("--id", given.id, "The same as a raw id");
        event->add_option("--value", given.value, "The port's status word or the link's state");
        event->add_option("--speed", given.speed, "The link's speed");
    }

    /* The value is a word that the field of that kind of event knows, or a number. */
    std::string event_request()
    {
        const auto raw = [](const char *key, const std::string &value) {
            return value.empty() ? 0 : board::parse_setting(key + ("=" + value)).number;
        };
        uint64_t type = DOLM_RICEVT_SHUTDOWN;
        if (given.type == "port-status")
            type = DOLM_RICEVT_RIPORTSTATUS;
        else if (given.type == "link-status")
            type = DOLM_RICEVT_RILINKSTATUS;
        else if (given.type != "shutdown")
            type = board::parse_number(given.type, UINT32_MAX);
        ports();
        uint64_t id = board::id_of_port_0;
        if (!given.id.empty())
            id = board::parse_number(given.id, UINT32_MAX);
        else if (!result.ports.empty())
            id |= result.ports[0].first;
        const bool of_link = type == DOLM_RICEVT_RILINKSTATUS;
        return fmt::format("event {} {} {} {}", type, id,
                           raw(of_link ? "link" : "port_status", given.value),
                           raw("speed", given.speed));
    }

    void add_wait()
    {
        CLI::App *wait = add("wait", "Wait for what the server does with the board", [this] {
            result.what = action::wait;
            result.request = wait_request();
        });
        takes_ports(wait)->required(false); /* two of the conditions are about no port */
        const CLI::IsMember kinds({"port", "link"});
        CLI::Option_group *what = wait->add_option_group("condition");
        what->require_option(1);
        what->add_option("--subscribed", given.subscribed, "Until it is, for port or link")
            ->check(kinds);
        what->add_option("--unsubscribed", given.unsubscribed, "Until it is not")->check(kinds);
        what->add_option("--calls", given.operation, "Until this operation was called");
        what->add_flag("--idle", given.idle, "Until all events were taken");
        wait->add_option("--count", given.count, "With --calls: so many times since the start")
            ->check(CLI::Range(0, INT32_MAX));
    }

    /* CLI11 has seen to it that there is just one condition. */
    std::string wait_request()
    {
        if (given.idle)
            return "wait idle";
        if (!given.operation.empty())
            return fmt::format("wait calls {} {}",
                               board::operation_name(board::parse_operation(given.operation)),
                               given.count.empty() ? "1" : given.count);
        if (given.ports.empty())
            throw board::board_error("wait: subscriptions of which ports?");
        const bool wanted = !given.subscribed.empty();
        return fmt::format("wait {} {} {}", wanted ? "subscribed" : "unsubscribed", ports(),
                           wanted ? given.subscribed : given.unsubscribed);
    }

    CLI::App &app;
    command &result;
    values given;
};

} // namespace

/* CLI11 only says that one of the subcommands is required. Options in front of the command are left
   to it. */
static void require_known(const CLI::App &app, const std::string &name)
{
    std::string known;
    for (const CLI::App *sub : app.get_subcommands({})) {
        if (name.starts_with('-') || sub->get_name() == name)
            return;
        known += (known.empty() ? "" : ", ") + sub->get_name();
    }
    throw board::board_error(fmt::format("no command is called '{}': there are {}", name, known));
}

command parse_command(std::vector<std::string> words, settings *whole, CLI::App &app)
{
    command result;
    reader all(app, result);
    if (whole != nullptr)
        all.add_whole(*whole);
    if (!words.empty())
        require_known(app, words[0]);
    std::reverse(words.begin(), words.end()); /* CLI11 takes them from the end of a vector */
    app.parse(std::move(words));
    return result;
}

} // namespace teskboard
