#include "teskctl/top_view.h"
#include <cmath>
#include <fmt/format.h>

namespace
{

struct column {
    const char *header;
    size_t width;
};

/* The columns before those of the measurements. */
constexpr column port_columns[] = {
    {"PORT", 6}, {"LINK", 5}, {"SPEED", 6}, {"MODULE", 11}, {"AGE", 4}};

/* Each measurement that the server grades: the letter of its level and its value. */
struct measurement_column {
    column shown;
    tesk_client_measurement measurement;
    bool tesk_client_pm::*has;
    std::string (*value)(const tesk_client_pm &pm);
};

std::string dbm_number(uint32_t microwatts)
{
    return microwatts == 0 ? "<-30" : fmt::format("{:.2f}", 10 * std::log10(microwatts / 1000.0));
}

constexpr measurement_column measurement_columns[] = {
    {{"TX dBm", 9},
     TESK_CLIENT_TX_POWER,
     &tesk_client_pm::has_tx_power,
     [](const tesk_client_pm &pm) { return dbm_number(pm.tx_power); }},
    {{"RX dBm", 9},
     TESK_CLIENT_RX_POWER,
     &tesk_client_pm::has_rx_power,
     [](const tesk_client_pm &pm) { return dbm_number(pm.rx_power); }},
    {{"BIAS mA", 9},
     TESK_CLIENT_TX_BIAS,
     &tesk_client_pm::has_tx_bias,
     [](const tesk_client_pm &pm) { return fmt::format("{:.2f}", pm.tx_bias / 100.0); }},
    {{"VCC V", 8},
     TESK_CLIENT_VCC,
     &tesk_client_pm::has_voltage,
     [](const tesk_client_pm &pm) { return fmt::format("{:.3f}", pm.voltage / 10000.0); }},
    {{"TEMP °C", 8},
     TESK_CLIENT_TEMPERATURE,
     &tesk_client_pm::has_temperature,
     [](const tesk_client_pm &pm) { return fmt::format("{:.1f}", pm.temperature / 10.0); }},
};

constexpr column changes_column = {"CHG", 4};
constexpr size_t narrowest_event = 20;

constexpr char legend[] = "o ok  w/W low/high warning  a/A low/high alarm  - not measured  q quits";

size_t width_before_event()
{
    size_t width = changes_column.width;
    for (const column &each : port_columns)
        width += each.width;
    for (const measurement_column &each : measurement_columns)
        width += each.shown.width;
    return width;
}

std::string header_line()
{
    std::string line;
    for (const column &each : port_columns)
        line += fit(each.header, each.width);
    for (const measurement_column &each : measurement_columns)
        line += fit(each.shown.header, each.shown.width);
    return line + fit(changes_column.header, changes_column.width);
}

const char *link_word(uint32_t link)
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

const char *module_word(const port_view &view)
{
    const uint32_t type = view.sfp      ? view.sfp->type
                          : view.status ? view.status->sfp_type
                                        : static_cast<uint32_t>(TESK_CLIENT_SFP_UNKNOWN);
    return type == TESK_CLIENT_SFP_NOT_PRESENT ? "none"
                                               : tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, type);
}

/* What is different, in words; empty if nothing is. */
std::string difference(const tesk_client_port_status &before, const tesk_client_port_status &now)
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

} // namespace

char level_letter(uint32_t level)
{
    constexpr char letters[] = "owWaA-.";
    return level < sizeof letters - 1 ? letters[level] : '?';
}

tint level_tint(uint32_t level)
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

std::string age_text(std::chrono::steady_clock::duration age)
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

top_view::top_view(const std::vector<uint32_t> &ports)
{
    for (const uint32_t port_no : ports)
        ports_[port_no];
}

void top_view::note_event(port_view &view, const std::string &what)
{
    view.changes++;
    view.last_event = clock_time(now_us()).substr(0, 8) + " " + what;
}

void top_view::heard(const tesk_client_port_status &status)
{
    port_view &view = port(status.port_no);
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

std::string top_view::port_line(uint32_t port_no, const port_view &view, bool coloured) const
{
    const bool known = view.status.has_value();
    const std::string cells[] = {
        std::to_string(port_no),
        known ? link_word(view.status->link) : "",
        known && view.status->link_speed != 0
            ? fmt::format("{:.1f}G", view.status->link_speed / 10.0)
            : "",
        module_word(view),
        known ? age_text(std::chrono::steady_clock::now() - view.status_time) : "",
    };
    std::string line;
    for (size_t i = 0; i < std::size(port_columns); i++)
        line += fit(cells[i], port_columns[i].width);
    for (const measurement_column &each : measurement_columns) {
        const uint32_t level =
            known ? view.status->level[each.measurement] : uint32_t{TESK_CLIENT_LEVEL_NOT_MEASURED};
        std::string cell(1, level_letter(level));
        if (view.pm && (*view.pm).*each.has)
            cell += " " + each.value(*view.pm);
        line += paint(fit(cell, each.shown.width), level_tint(level), coloured);
    }
    return line + fit(std::to_string(view.changes), changes_column.width);
}

std::vector<std::string> top_view::lines(size_t width, size_t height, bool coloured,
                                         const std::string &state) const
{
    const size_t taken = width_before_event();
    const bool beside = width >= taken + narrowest_event;
    std::vector<std::string> page;
    const std::string title = fmt::format("tesk-server  {}  {} ports  ",
                                          clock_time(now_us()).substr(0, 8), ports_.size());
    const size_t rest = width - std::min(width, title.size());
    page.push_back(paint(fit(title, std::min(width, title.size())), tint::bold, coloured) +
                   paint(fit(state, rest), tint::yellow, coloured));
    page.push_back(
        paint(fit(header_line() + (beside ? "LAST EVENT" : ""), width), tint::bold, coloured));
    size_t left = ports_.size();
    for (const auto &[port_no, view] : ports_) {
        /* In a narrow window the last event has a line of its own. */
        const bool below = !beside && !view.last_event.empty();
        const size_t lines_behind = left > 1 ? 2 : 1; /* the legend, and how many don't fit */
        if (page.size() + (below ? 2 : 1) + lines_behind > height)
            break;
        left--;
        page.push_back(port_line(port_no, view, coloured) +
                       (beside ? fit(view.last_event, width - taken) : ""));
        if (below)
            page.push_back(paint(fit("      " + view.last_event, width), tint::dim, coloured));
    }
    if (left > 0)
        page.push_back(fmt::format("{} more ports: make the window taller", left));
    page.push_back(paint(fit(legend, width), tint::dim, coloured));
    return page;
}
