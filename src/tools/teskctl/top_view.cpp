/* SPDX-License-Identifier: Apache-2.0 */
/* A column is one row of a table: its head, its width, when it goes in a narrow window, and how to
   show it of a port. So that a line never wraps, columns are left out until the others fit, the
   least important first; and a page never has more lines than the window, but says how many ports
   it leaves out.

   The letters are the server's grades, which come with indications alone; the values beside them
   are read at an interval of their own. So a letter can be older than its value: AGE tells. */
#include "tools/teskctl/top_view.h"

#include "tools/common/clock.h"
#include "tools/common/units.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/words.h"

#include <algorithm>
#include <fmt/format.h>

static const char *link_word(uint32_t link)
{
    switch (link) {
    case TESK_CLIENT_LINK_OPERATIONAL:
        return "up";
    case TESK_CLIENT_LINK_NOT_OPERATIONAL:
        return "down";
    default:
        return "?";
    }
}

static const char *module_word(const port_view &view)
{
    /* Both kinds tell it. Only the SFP info follows a module that comes or goes. */
    const uint32_t type = view.sfp      ? view.sfp->type
                          : view.status ? view.status->sfp_type
                                        : static_cast<uint32_t>(TESK_CLIENT_SFP_UNKNOWN);
    return type == TESK_CLIENT_SFP_NOT_PRESENT ? "none"
                                               : tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, type);
}

/* What is different, in words; empty if nothing is. */
static std::string difference(const tesk_client_port_status &before,
                              const tesk_client_port_status &now)
{
    std::vector<std::string> parts;
    if (before.link != now.link || before.link_speed != now.link_speed) {
        parts.push_back(fmt::format("link {}", link_word(now.link)));
        if (now.link_speed != 0)
            parts.back() += " " + gbps(now.link_speed);
    }
    if (before.sfp_type != now.sfp_type)
        parts.push_back(
            fmt::format("module {}", tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, now.sfp_type)));
    for (uint32_t i = 0; i < TESK_CLIENT_MEASUREMENTS; i++)
        if (before.level[i] != now.level[i])
            parts.push_back(fmt::format("{} {}", tesk_client_text(TESK_CLIENT_TEXT_MEASUREMENT, i),
                                        tesk_client_text(TESK_CLIENT_TEXT_LEVEL, now.level[i])));
    if (before.environment != now.environment)
        parts.push_back(fmt::format(
            "environment {}", tesk_client_text(TESK_CLIENT_TEXT_ENVIRONMENT, now.environment)));
    return fmt::format("{}", fmt::join(parts, ", "));
}

static char level_letter(uint32_t level)
{
    constexpr char letters[] = "owWaA-.";
    return level < sizeof(letters) - 1 ? letters[level] : '?';
}

static tint level_tint(uint32_t level)
{
    switch (level) {
    case TESK_CLIENT_LEVEL_OK:
        return tint::green;
    case TESK_CLIENT_LEVEL_LOW_WARNING:
    case TESK_CLIENT_LEVEL_HIGH_WARNING:
        return tint::yellow;
    case TESK_CLIENT_LEVEL_LOW_ALARM:
    case TESK_CLIENT_LEVEL_HIGH_ALARM:
        return tint::red;
    default:
        return tint::dim;
    }
}

static std::string age_text(std::chrono::steady_clock::duration age)
{
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(age).count();
    if (seconds < 60)
        return fmt::format("{}s", seconds);
    if (seconds < 3600)
        return fmt::format("{}m", seconds / 60);
    if (seconds < 86400)
        return fmt::format("{}h", seconds / 3600);
    return fmt::format("{}d", seconds / 86400);
}

namespace
{

struct cell {
    std::string text;
    tint shade = tint::none;
};

} // namespace

/* The letter of the level, and the value as far as one was read. */
template <tesk_client_measurement measurement, auto has, auto value, auto write>
static cell measured(uint32_t, const port_view &view)
{
    const uint32_t level =
        view.status ? view.status->level[measurement] : uint32_t{TESK_CLIENT_LEVEL_NOT_MEASURED};
    std::string text(1, level_letter(level));
    if (view.pm && (*view.pm).*has)
        text += " " + write((*view.pm).*value);
    return {text, level_tint(level)};
}

/* The numbers alone: their units stand in the heads. */
static std::string dbm_number(uint32_t microwatts)
{
    const auto value = to_dbm(microwatts);
    return value ? fmt::format("{:.2f}", *value) : "<-30";
}

static std::string milliampere_number(uint32_t hundredths)
{
    return fmt::format("{:.2f}", hundredths / 100.0);
}

static std::string volt_number(uint32_t tenths_of_millivolts)
{
    return fmt::format("{:.3f}", tenths_of_millivolts / 10000.0);
}

static std::string celsius_number(int32_t tenths)
{
    return fmt::format("{:.1f}", tenths / 10.0);
}

static cell link_cell(uint32_t, const port_view &view)
{
    return {view.status ? link_word(view.status->link) : ""};
}

static cell speed_cell(uint32_t, const port_view &view)
{
    const bool known = view.status && view.status->link_speed != 0;
    return {known ? fmt::format("{:.1f}G", view.status->link_speed / 10.0) : ""};
}

static cell age_cell(uint32_t, const port_view &view)
{
    return {view.status ? age_text(std::chrono::steady_clock::now() - view.status_time) : ""};
}

namespace
{

struct column {
    const char *head;
    size_t width;
    int leaves; /* of those that are shown, the one with the lowest number leaves first */
    cell (*show)(uint32_t port_no, const port_view &view);
};

using pm = tesk_client_pm;

} // namespace

static constexpr column columns[] = {
    {"PORT", 6, 11,
     [](uint32_t port_no, const port_view &) { return cell{std::to_string(port_no)}; }},
    {"LINK", 5, 10, link_cell},
    {"SPEED", 6, 5, speed_cell},
    {"MODULE", 11, 7, [](uint32_t, const port_view &view) { return cell{module_word(view)}; }},
    {"AGE", 4, 4, age_cell},
    {"TX dBm", 9, 6, measured<TESK_CLIENT_TX_POWER, &pm::has_tx_power, &pm::tx_power, dbm_number>},
    {"RX dBm", 9, 8, measured<TESK_CLIENT_RX_POWER, &pm::has_rx_power, &pm::rx_power, dbm_number>},
    {"BIAS mA", 9, 2,
     measured<TESK_CLIENT_TX_BIAS, &pm::has_tx_bias, &pm::tx_bias, milliampere_number>},
    {"VCC V", 8, 1, measured<TESK_CLIENT_VCC, &pm::has_voltage, &pm::voltage, volt_number>},
    {"TEMP °C", 8, 9,
     measured<TESK_CLIENT_TEMPERATURE, &pm::has_temperature, &pm::temperature, celsius_number>},
    {"CHG", 4, 3,
     [](uint32_t, const port_view &view) { return cell{std::to_string(view.changes)}; }},
};

static constexpr size_t narrowest_event = 20;

/* What a narrow window cuts off is what the manual has, too: how to get out comes first. */
static constexpr char legend[] =
    "q quits  o ok  w/W low/high warning  a/A low/high alarm  - not measured";

static size_t width_of(const std::vector<column> &shown)
{
    size_t width = 0;
    for (const column &each : shown)
        width += each.width;
    return width;
}

/* PORT stays however narrow the window is. */
static std::vector<column> columns_that_fit(size_t width)
{
    std::vector<column> shown(std::begin(columns), std::end(columns));
    while (shown.size() > 1 && width_of(shown) > width)
        shown.erase(std::ranges::min_element(shown, {}, &column::leaves));
    shown.front().width = std::min(shown.front().width, width);
    return shown;
}

static std::string head_line(const std::vector<column> &shown)
{
    std::string line;
    for (const column &each : shown)
        line += fit(each.head, each.width);
    return line;
}

static std::string port_line(const std::vector<column> &shown, uint32_t port_no,
                             const port_view &view, bool coloured)
{
    std::string line;
    for (const column &each : shown) {
        const cell content = each.show(port_no, view);
        line += paint(fit(content.text, each.width), content.shade, coloured);
    }
    return line;
}

/* The clock and the count of the ports give way to what is to be said of the connection. */
static std::string title_line(size_t width, size_t ports, bool coloured, const std::string &state)
{
    std::string title = fmt::format("tesk-server  {}  {} ports  ", clock_seconds(now_us()), ports);
    if (title.size() + state.size() > width)
        title = "tesk-server  ";
    const size_t taken = std::min(width, title.size());
    return paint(fit(title, taken), tint::bold, coloured) +
           paint(fit(state, width - taken), tint::yellow, coloured);
}

/* Kept free: the legend, and as long as ports are left, the line that would say so. */
static size_t lines_behind(size_t left)
{
    return left > 0 ? 2 : 1;
}

top_view::top_view(const std::vector<uint32_t> &ports)
{
    for (const uint32_t port_no : ports)
        ports_[port_no];
}

void top_view::note_event(port_view &view, const std::string &what)
{
    view.changes++;
    view.last_event = clock_seconds(now_us()) + " " + what;
}

void top_view::heard(const tesk_client_port_status &status)
{
    port_view &view = port(status.port_no);
    /* The first one is no event: it tells how the port is. So are those after a reconnection,
       unless something has changed meanwhile. */
    if (view.status) {
        const std::string what = difference(*view.status, status);
        if (!what.empty())
            note_event(view, what);
    }
    view.status = status;
    view.status_time = std::chrono::steady_clock::now();
}

void top_view::heard(const tesk_client_sfp_info &info)
{
    port_view &view = port(info.port_no);
    if (view.sfp && describe(*view.sfp) != describe(info))
        note_event(view, info.type == TESK_CLIENT_SFP_NOT_PRESENT ? "module out"
                                                                  : "module in: " + describe(info));
    view.sfp = info;
}

std::vector<std::string> top_view::lines(size_t width, size_t height, bool coloured,
                                         const std::string &state) const
{
    const std::vector<column> shown = columns_that_fit(width);
    const size_t taken = width_of(shown);
    const bool beside = width >= taken + narrowest_event;
    std::vector<std::string> page = {
        title_line(width, ports_.size(), coloured, state),
        paint(fit(head_line(shown) + (beside ? "LAST EVENT" : ""), width), tint::bold, coloured)};
    size_t left = ports_.size();
    for (const auto &[port_no, view] : ports_) {
        if (page.size() + 1 + lines_behind(left - 1) > height)
            break;
        left--;
        page.push_back(port_line(shown, port_no, view, coloured) +
                       (beside ? fit(view.last_event, width - taken) : ""));
        /* In a narrow window the last event has a line of its own, if there is one left. */
        if (!beside && !view.last_event.empty() && page.size() + 1 + lines_behind(left) <= height)
            page.push_back(paint(fit("      " + view.last_event, width), tint::dim, coloured));
    }
    if (left > 0)
        page.push_back(fit(
            fmt::format("{} of {} ports not shown: window too low", left, ports_.size()), width));
    page.push_back(paint(fit(legend, width), tint::dim, coloured));
    /* Where not even the frame has room, the line about the ports is the last to go. */
    if (page.size() > height)
        page.pop_back();
    if (page.size() > height)
        page.erase(page.begin(), page.end() - static_cast<std::ptrdiff_t>(height));
    return page;
}
