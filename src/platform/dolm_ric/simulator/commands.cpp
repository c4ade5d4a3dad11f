/* SPDX-License-Identifier: Apache-2.0 */
/* One row per command in command_kinds. A command is parsed to its end before anything is changed,
   so that a wrong command changes nothing. Errors are thrown and answered in one place. */
#include "platform/dolm_ric/simulator/commands.h"

#include "platform/dolm_ric/simulator/control_protocol.h"

#include <algorithm>

namespace board
{

namespace
{

using words = std::span<const std::string_view>;

} // namespace

static void add_line(std::string &answer, std::string_view key, std::string_view value)
{
    answer.append("\n").append(key).append("=").append(value);
}

static void add_line(std::string &answer, std::string_view key, uint64_t value)
{
    add_line(answer, key, std::to_string(value));
}

/* Makes a change and answers with the numbers of ports and of queued events. A port without
   subscriptions has no events. */
template <typename change>
static std::string answer_change(simulator &board, const port_list &ports, change &&make)
{
    const uint64_t before = board.events.counts().queued;
    make();
    uint64_t count = 0;
    for (const port_range &range : ports)
        count += range.last - range.first + 1;
    std::string answer = "ok";
    add_line(answer, "ports", count);
    add_line(answer, "events", board.events.counts().queued - before);
    return answer;
}

static std::string answer_set(simulator &board, words args)
{
    const port_list ports = parse_ports(args[0]);
    const bool is_forced = args[1] == "again";
    const auto settings = parse_settings(args.subspan(is_forced ? 2 : 1));
    return answer_change(board, ports, [&] { board.set(ports, settings, is_forced); });
}

static std::string answer_insert(simulator &board, words args)
{
    const port_list ports = parse_ports(args[0]);
    const module_kind *kind = args[1] == "-" ? nullptr : &parse_module_kind(args[1]);
    const auto settings = parse_settings(args.subspan(2));
    return answer_change(board, ports, [&] { board.insert(ports, kind, settings); });
}

static std::string answer_remove(simulator &board, words args)
{
    const port_list ports = parse_ports(args[0]);
    return answer_change(board, ports, [&] { board.remove(ports); });
}

/* Both kinds of record begin with the port's id, so that an event of an unknown type has an id,
   too. */
static std::string answer_event(simulator &board, words args)
{
    const auto number = [&](size_t at) {
        return at < args.size() ? static_cast<uint32_t>(parse_number(args[at], UINT32_MAX)) : 0;
    };
    dolm_ric_event event = {.type = number(0), .link_status = {}};
    if (event.type == DOLM_RICEVT_RILINKSTATUS) {
        event.link_status.id = number(1);
        event.link_status.state = number(2);
        event.link_status.speed = number(3);
    } else {
        event.port_status.id = number(1);
        event.port_status.status = number(2);
    }
    return answer_change(board, {}, [&] { board.events.queue_raw(event); });
}

/* Parses the words after the operation, such as "busy 3 0-7". */
static fault parse_fault(operation op, words args)
{
    if (args.empty() || args.size() > 3)
        throw board_error("a failure is CODE [COUNT|always [PORTS]]");
    fault parsed = {.op = op, .code = parse_code(args[0])};
    if (args.size() > 1 && args[1] != "always")
        parsed.remaining = parse_number(args[1], INT64_MAX);
    if (parsed.remaining == 0)
        throw board_error("a failure lasts for 1 call or more, or always, not for 0 calls");
    if (args.size() > 2)
        parsed.ports = parse_ports(args[2]);
    return parsed;
}

/* A fault for a port that the board doesn't have would never occur, so it is refused as a
   mistake. */
static std::string answer_fail(simulator &board, words args)
{
    fault added = parse_fault(parse_operation(args[0]), args.subspan(1));
    board.require(added.ports);
    board.faults.add(std::move(added));
    /* The event thread may be in the wait that is to fail. */
    board.events.wake_event_thread();
    return "ok";
}

static std::string answer_heal(simulator &board, words args)
{
    std::optional<operation> op;
    if (!args.empty())
        op = parse_operation(args[0]);
    std::string answer = "ok";
    add_line(answer, "failures", board.faults.remove(op));
    return answer;
}

/* Lists only the values that the lane has itself, instead of those of the module. */
static void add_lane(std::string &answer, const field &source, uint32_t lane,
                     const std::string &value)
{
    if (value != "0" && value != std::to_string(lane_values::as_module))
        add_line(answer, std::string(source.name) + "." + std::to_string(lane), value);
}

/* Shows the first port of the list. */
static std::string answer_show(simulator &board, words args)
{
    const port_list ports = parse_ports(args[0]);
    board.require(ports);
    const uint32_t port = ports.front().first;
    std::string answer = "ok";
    add_line(answer, "port", port);
    for (const field &source : fields())
        add_line(answer, source.name, board.value_of(port, source));
    for (uint32_t lane = 0; lane < board.lane_count(port); lane++)
        for (const field &source : lane_fields())
            add_lane(answer, source, lane, board.value_of(port, source, lane));
    add_line(answer, "subscribed_port", board.events.subscribed(port, &subscriptions::port));
    add_line(answer, "subscribed_link", board.events.subscribed(port, &subscriptions::link));
    return answer;
}

/* Writes a fault in the form that the command "fail" takes. */
static std::string format_fault(const fault &shown)
{
    std::string text(operation_name(shown.op));
    text += " " + std::to_string(shown.code) + " ";
    text += shown.remaining == fault::always ? "always" : std::to_string(shown.remaining);
    return shown.ports.empty() ? text : text + " " + format_ports(shown.ports);
}

/* Faults that don't fit into the packet are left out. */
static std::string answer_board(simulator &board, words)
{
    const event_counts events = board.events.counts();
    std::string answer = "ok";
    add_line(answer, "ports", board.count());
    add_line(answer, "subscribed_port", board.events.subscribed(&subscriptions::port));
    add_line(answer, "subscribed_link", board.events.subscribed(&subscriptions::link));
    add_line(answer, "events_queued", events.queued);
    add_line(answer, "events_waiting", events.waiting);
    add_line(answer, "events_out", events.outstanding);
    for (size_t op = 0; op < operation_count; op++)
        add_line(answer, "calls." + std::string(operation_names()[op]),
                 board.faults.calls(static_cast<operation>(op)));
    for (const fault &shown : board.faults.faults()) {
        const std::string text = format_fault(shown);
        if (answer.size() + text.size() > DOLM_RIC_BOARD_PACKET_MAX - 64)
            break;
        add_line(answer, "failure", text);
    }
    return answer;
}

static subscription_kind parse_kind(std::string_view text)
{
    if (text == "port")
        return &subscriptions::port;
    if (text == "link")
        return &subscriptions::link;
    throw board_error("a subscription is one of port or link");
}

/* True once all the ports are subscribed or, with `is_wanted` false, none is. */
static std::function<bool()> subscription_condition(simulator &board, bool is_wanted, words args)
{
    const port_list ports = parse_ports(args[0]);
    board.require(ports);
    const subscription_kind kind = parse_kind(args[1]);
    return [&events = board.events, ports, kind, is_wanted] {
        for (const port_range &range : ports)
            for (uint32_t port = range.first; port <= range.last; port++)
                if ((events.subscribed(port, kind) > 0) != is_wanted)
                    return false;
        return true;
    };
}

/* A condition outlives its command and is evaluated after each call of the library: it has copies
   instead of views of the command's words, and is cheap. */
static std::function<bool()> parse_condition(simulator &board, words args)
{
    const std::string_view what = args[0];
    if (what == "idle")
        return [&events = board.events] { return events.is_idle(); };
    if (args.size() == 3 && what == "calls") {
        const operation op = parse_operation(args[1]);
        const uint64_t count = parse_number(args[2], INT64_MAX);
        return [&faults = board.faults, op, count] { return faults.calls(op) >= count; };
    }
    if (args.size() == 3 && (what == "subscribed" || what == "unsubscribed"))
        return subscription_condition(board, what == "subscribed", args.subspan(1));
    throw board_error("a wait is for subscribed or unsubscribed PORTS port|link, for calls "
                      "OPERATION COUNT, or for idle");
}

namespace
{

/* Before a row's function is called, the number of words after the verb is checked. "wait" has no
   row, since its answer comes later. */
struct command_kind {
    std::string_view verb;
    size_t fewest;
    size_t most;
    std::string (*answer)(simulator &board, words args);
    bool queues_events = false;
};

} // namespace

static constexpr size_t any_number = SIZE_MAX;
static constexpr command_kind command_kinds[] = {
    {"set", 2, any_number, answer_set, true},
    {"insert", 2, any_number, answer_insert, true},
    {"remove", 1, 1, answer_remove, true},
    {"event", 2, 4, answer_event, true},
    {"fail", 2, 4, answer_fail},
    {"heal", 0, 1, answer_heal},
    {"show", 1, 1, answer_show},
    {"board", 0, 0, answer_board},
};

/* "set, insert, remove". */
static std::string verbs()
{
    std::string list;
    for (const command_kind &kind : command_kinds)
        list += (list.empty() ? "" : ", ") + std::string(kind.verb);
    return list;
}

/* "1 word", "2 to 4 words". */
static std::string number_text(const command_kind &kind)
{
    std::string text = std::to_string(kind.fewest);
    if (kind.most == any_number)
        text += " or more";
    else if (kind.most != kind.fewest)
        text += " to " + std::to_string(kind.most);
    return text + (kind.most == 1 ? " word" : " words");
}

static std::string answer_words(std::string_view text, simulator &board, pending_answer &pending)
{
    const auto command = split_words(text);
    const std::string_view verb = command.empty() ? "" : command[0];
    const words args = words(command).subspan(command.empty() ? 0 : 1);
    if (verb == "wait" && !args.empty()) {
        pending = [is_true = parse_condition(board, args)] { return is_true() ? "ok" : ""; };
        return {};
    }
    const auto *kind = std::ranges::find(command_kinds, verb, &command_kind::verb);
    if (kind == std::end(command_kinds))
        throw board_error("no request is called '" + escape(verb, false) + "': take " + verbs() +
                          " or wait");
    if (args.size() < kind->fewest || args.size() > kind->most)
        throw board_error(std::string(verb) + " takes " + number_text(*kind) + ", not " +
                          std::to_string(args.size()));
    if (kind->queues_events && board.events.is_full()) {
        pending = [kept = std::string(text), &board] {
            pending_answer none;
            return board.events.is_full() ? "" : run_command(kept, board, none);
        };
        return {};
    }
    return kind->answer(board, args);
} // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks): the lambda is moved into `pending`

std::string run_command(std::string_view command, simulator &board, pending_answer &pending)
{
    try {
        return answer_words(command, board, pending);
    } catch (const board_error &error) {
        return "error " + std::string(error.what());
    } catch (const std::exception &error) {
        /* Any other failure, such as a lack of memory, is reported to the peer and doesn't affect
           the library's caller. */
        return "error the board is out of order: " + std::string(error.what());
    }
}

} // namespace board
