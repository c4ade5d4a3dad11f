/* SPDX-License-Identifier: Apache-2.0 */
/* A column is one row of a table: its head, its width, its importance in a narrow window, and the
   function that shows it.

   The letters are the server's grades, which are sent only with indications; the values beside them
   are read at intervals. A letter can therefore be older than its value: AGE shows the age, and if
   the value has moved since, the letter is grey and has a question mark. */
#include "tools/teskctl/top_columns.h"

#include "program/units.h"
#include "program/words.h"

#include <algorithm>
#include <fmt/format.h>

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

/* The letter of the level, and the value if one was read. */
template <tesk_client_measurement measurement, auto has, auto value, auto write>
static cell measured(uint32_t, const top_port &port)
{
    if (port.is_gone || module_of(port) == TESK_CLIENT_SFP_NOT_PRESENT)
        return {};
    const uint32_t level =
        port.status ? port.status->level[measurement] : uint32_t{TESK_CLIENT_LEVEL_NOT_MEASURED};
    const bool is_old = level <= TESK_CLIENT_LEVEL_HIGH_ALARM && has_moved(port, measurement);
    std::string text(1, level_letter(level));
    if (is_old)
        text += '?';
    if (port.pm && (*port.pm).*has)
        text += (is_old ? "" : " ") + write((*port.pm).*value);
    return {text, is_old ? tint::dim : level_tint(level)};
}

/* A number without unit, as the head has the unit. */
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

static cell port_cell(uint32_t port_no, const top_port &)
{
    return {std::to_string(port_no)};
}

static cell name_cell(uint32_t, const top_port &port)
{
    return {port.name};
}

static cell link_cell(uint32_t, const top_port &port)
{
    if (port.is_gone)
        return {"gone"};
    if (!port.status)
        return {};
    switch (port.status->link) {
    case TESK_CLIENT_LINK_OPERATIONAL:
        return {"up"};
    case TESK_CLIENT_LINK_NOT_OPERATIONAL:
        return {"down"};
    default:
        return {"?"};
    }
}

static cell speed_cell(uint32_t, const top_port &port)
{
    const bool is_known = port.status && port.status->link_speed != 0;
    return {is_known ? fmt::format("{:.1f}G", port.status->link_speed / 10.0) : ""};
}

static cell module_cell(uint32_t, const top_port &port)
{
    return {port.is_gone ? "" : module_text(module_of(port))};
}

static cell age_cell(uint32_t, const top_port &port)
{
    return {port.status ? age_text(std::chrono::steady_clock::now() - port.status_time) : ""};
}

static cell changes_cell(uint32_t, const top_port &port)
{
    return {std::to_string(port.changes)};
}

namespace
{

struct column {
    const char *head;
    size_t width;
    int importance; /* the column with the lowest number is left out first */
    cell (*show)(uint32_t port_no, const top_port &port);
};

using pm = tesk_client_pm;

} // namespace

static constexpr column columns[] = {
    {"PORT", 6, 12, port_cell},
    {"NAME", 0, 11, name_cell}, /* as wide as the longest name */
    {"LINK", 5, 10, link_cell},
    {"SPEED", 6, 5, speed_cell},
    {"MODULE", 17, 7, module_cell},
    {"AGE", 4, 4, age_cell},
    {"TX dBm", 9, 6, measured<TESK_CLIENT_TX_POWER, &pm::has_tx_power, &pm::tx_power, dbm_number>},
    {"RX dBm", 9, 8, measured<TESK_CLIENT_RX_POWER, &pm::has_rx_power, &pm::rx_power, dbm_number>},
    {"BIAS mA", 9, 2,
     measured<TESK_CLIENT_TX_BIAS, &pm::has_tx_bias, &pm::tx_bias, milliampere_number>},
    {"VCC V", 8, 1, measured<TESK_CLIENT_VCC, &pm::has_voltage, &pm::voltage, volt_number>},
    {"TEMP", 8, 9,
     measured<TESK_CLIENT_TEMPERATURE, &pm::has_temperature, &pm::temperature, celsius_number>},
    {"CHG", 4, 3, changes_cell},
};

static constexpr size_t marker_width = 1; /* before PORT, for the cursor */
static constexpr size_t widest_name = 15; /* of an interface; alternative names can be longer */

top_columns::top_columns(size_t width, size_t name_width)
    : name_width_(name_width == 0 ? 0 : std::clamp<size_t>(name_width, 4, widest_name) + 1)
{
    for (size_t i = 0; i < std::size(columns); i++)
        if (columns[i].show != name_cell || name_width_ > 0)
            shown_.push_back(i);
    port_width_ = columns[0].width;
    while (shown_.size() > 1 && this->width() > width)
        shown_.erase(std::ranges::min_element(
            shown_, {}, [](size_t index) { return columns[index].importance; }));
    port_width_ = std::min(port_width_, width - std::min(width, marker_width));
}

size_t top_columns::width_of(size_t index) const
{
    if (columns[index].show == name_cell)
        return name_width_;
    return index == 0 ? port_width_ : columns[index].width;
}

size_t top_columns::width() const
{
    size_t width = marker_width;
    for (const size_t index : shown_)
        width += width_of(index);
    return width;
}

std::string top_columns::head() const
{
    std::string line(marker_width, ' ');
    for (const size_t index : shown_) {
        std::string head = columns[index].head;
        if (head == "TEMP")
            head += std::string(" ") + celsius_unit();
        line += fit(head, width_of(index));
    }
    return line;
}

std::string top_columns::row(uint32_t port_no, const top_port &port, bool is_selected,
                             bool coloured) const
{
    std::string line(marker_width, is_selected ? '>' : ' ');
    for (const size_t index : shown_) {
        const cell content = columns[index].show(port_no, port);
        line += paint(fit(content.text, width_of(index)), content.shade, coloured);
    }
    return line;
}
