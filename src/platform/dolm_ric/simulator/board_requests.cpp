/* SPDX-License-Identifier: Apache-2.0 */
/* One row per request in request_kinds. A request is read to its end before anything is changed, so
   that a wrong one changes nothing; what is wrong is thrown and answered in one place. */
#include "platform/dolm_ric/simulator/board_requests.h"

#include "platform/dolm_ric/dolm_ric_board.h"

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

/* Makes a change and says what it came to. The events are those that were queued: what nobody
   subscribes to has none. */
template <typename change>
static std::string answer_change(const stage &on, const port_list &ports, change &&make)
{
    const uint64_t before = on.events.events_queued;
    make();
    uint64_t count = 0;
    for (const port_range &range : ports)
        count += range.last - range.first + 1;
    std::string answer = "ok";
    add_line(answer, "ports", count);
    add_line(answer, "events", on.events.events_queued - before);
    return answer;
}

static std::string answer_set(const stage &on, words args)
{
    const port_list ports = parse_ports(args[0]);
    const bool again = args[1] == "again";
    const auto settings = parse_settings(args.subspan(again ? 2 : 1));
    return answer_change(on, ports, [&] { on.ports.set(ports, settings, again); });
}

static std::string answer_insert(const stage &on, words args)
{
    const port_list ports = parse_ports(args[0]);
    const module_kind *kind = args[1] == "-" ? nullptr : &parse_module_kind(args[1]);
    const auto settings = parse_settings(args.subspan(2));
    return answer_change(on, ports, [&] { on.ports.insert(ports, kind, settings); });
}

static std::string answer_remove(const stage &on, words args)
{
    const port_list ports = parse_ports(args[0]);
    return answer_change(on, ports, [&] { on.ports.remove(ports); });
}

/* The id stands at the same place in both records, whatever the type: an event of a type that
   nobody knows bears one too. */
static std::string answer_event(const stage &on, words args)
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
    return answer_change(on, {}, [&] { on.events.queue_raw(event); });
}

/* Ports that the board doesn't have would never fail; that is a slip of the one who asks. */
static std::string answer_fail(const stage &on, words args)
{
    failure order = parse_failure(parse_operation(args[0]), args.subspan(1));
    on.ports.require(order.ports);
    on.events.order_failure(std::move(order));
    return "ok";
}

static std::string answer_heal(const stage &on, words args)
{
    std::optional<operation> op;
    if (!args.empty())
        op = parse_operation(args[0]);
    std::string answer = "ok";
    add_line(answer, "failures", on.events.withdraw_failures(op));
    return answer;
}

/* Of a list the first port. */
static std::string answer_show(const stage &on, words args)
{
    const port_list ports = parse_ports(args[0]);
    on.ports.require(ports);
    const uint32_t port = ports.front().first;
    std::string answer = "ok";
    add_line(answer, "port", port);
    for (const field &source : fields())
        add_line(answer, source.name, on.ports.value_of(port, source));
    add_line(answer, "subscribed_port", on.events.held[port].port);
    add_line(answer, "subscribed_link", on.events.held[port].link);
    return answer;
}

/* As the request "fail" takes it. */
static std::string format_failure(const failure &order)
{
    std::string text(operation_name(order.op));
    text += " " + std::to_string(order.code) + " ";
    text += order.left == failure::always ? "always" : std::to_string(order.left);
    return order.ports.empty() ? text : text + " " + format_ports(order.ports);
}

/* Failures that don't fit into the packet are left out. */
static std::string answer_board(const stage &on, words)
{
    const desk &events = on.events;
    uint64_t port_subscriptions = 0;
    uint64_t link_subscriptions = 0;
    for (const subscriptions &held : events.held) {
        port_subscriptions += held.port;
        link_subscriptions += held.link;
    }
    std::string answer = "ok";
    add_line(answer, "ports", on.ports.ports());
    add_line(answer, "subscribed_port", port_subscriptions);
    add_line(answer, "subscribed_link", link_subscriptions);
    add_line(answer, "events_queued", events.events_queued);
    add_line(answer, "events_waiting", events.events_waiting());
    add_line(answer, "events_out", events.events_out());
    for (size_t op = 0; op < operation_count; op++)
        add_line(answer, "calls." + std::string(operation_names()[op]), events.calls[op]);
    for (const failure &order : events.orders) {
        const std::string text = format_failure(order);
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

/* All ports must have it, or all must not. */
static condition subscription_condition(const stage &on, bool wanted, words args)
{
    const port_list ports = parse_ports(args[0]);
    on.ports.require(ports);
    const subscription_kind kind = parse_kind(args[1]);
    return [&events = on.events, ports, kind, wanted] {
        for (const port_range &range : ports)
            for (uint32_t port = range.first; port <= range.last; port++)
                if ((events.held[port].*kind > 0) != wanted)
                    return false;
        return true;
    };
}

/* A condition outlives its request, and is looked at after each call of the library: it holds
   copies of what it needs, never views of the request's words, and does little. */
static condition parse_condition(const stage &on, words args)
{
    const std::string_view what = args[0];
    if (what == "idle")
        return [&events = on.events] { return events.idle(); };
    if (args.size() == 3 && what == "calls") {
        const auto op = static_cast<size_t>(parse_operation(args[1]));
        const uint64_t count = parse_number(args[2], INT64_MAX);
        return [&events = on.events, op, count] { return events.calls[op] >= count; };
    }
    if (args.size() == 3 && (what == "subscribed" || what == "unsubscribed"))
        return subscription_condition(on, what == "subscribed", args.subspan(1));
    throw board_error("a wait is for subscribed or unsubscribed PORTS port|link, for calls "
                      "OPERATION COUNT, or for idle");
}

namespace
{

/* The words behind the verb are counted before the row's function sees them. "wait" has no row,
   since its answer comes later. */
struct request_kind {
    std::string_view verb;
    size_t fewest;
    size_t most;
    std::string (*answer)(const stage &on, words args);
};

} // namespace

static constexpr size_t any_number = SIZE_MAX;
static constexpr request_kind request_kinds[] = {
    {"set", 2, any_number, answer_set}, {"insert", 2, any_number, answer_insert},
    {"remove", 1, 1, answer_remove},    {"event", 2, 4, answer_event},
    {"fail", 2, 4, answer_fail},        {"heal", 0, 1, answer_heal},
    {"show", 1, 1, answer_show},        {"board", 0, 0, answer_board},
};

static std::string answer_words(words request, const stage &on, condition &pending)
{
    const std::string_view verb = request.empty() ? "" : request[0];
    const words args = request.subspan(request.empty() ? 0 : 1);
    if (verb == "wait" && !args.empty()) {
        pending = parse_condition(on, args);
        return {};
    }
    const auto *kind = std::ranges::find(request_kinds, verb, &request_kind::verb);
    if (kind == std::end(request_kinds))
        throw board_error("no request is called '" + escape(verb, false) + "'");
    if (args.size() < kind->fewest || args.size() > kind->most)
        throw board_error(std::string(verb) + ": wrong number of words");
    return kind->answer(on, args);
}

std::string answer_request(std::string_view request, const stage &on, condition &pending)
{
    try {
        return answer_words(split_words(request), on, pending);
    } catch (const board_error &error) {
        return "error " + std::string(error.what());
    } catch (const std::exception &error) {
        /* Such as a lack of memory. The peer is told; the library's caller must not notice. */
        return "error the board is out of order: " + std::string(error.what());
    }
}

failure parse_failure(operation op, std::span<const std::string_view> args)
{
    if (args.empty() || args.size() > 3)
        throw board_error("a failure is CODE [COUNT|always [PORTS]]");
    failure order = {.op = op, .code = parse_code(args[0])};
    if (args.size() > 1 && args[1] != "always")
        order.left = parse_number(args[1], INT64_MAX);
    if (order.left == 0)
        throw board_error("a failure of no calls is none: it takes a count from 1, or always");
    if (args.size() > 2)
        order.ports = parse_ports(args[2]);
    return order;
}

} // namespace board
