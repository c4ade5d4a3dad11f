/* SPDX-License-Identifier: Apache-2.0 */
/* A page never has more lines than the window, and no line wraps. In a low window the title goes
   first, then the head, then the rows; the last line remains. If there are more ports than rows,
   the worst ports come first, and a line reports changes outside the window. */
#include "tools/teskctl/top_view.h"

#include "program/clock.h"
#include "program/exit_code.h"
#include "program/port_list.h"
#include "program/words.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/top_columns.h"

#include <algorithm>
#include <cctype>
#include <fmt/format.h>

static constexpr size_t narrowest_event = 20;

static constexpr const char *help[] = {
    "q         quit                      up down   move the cursor",
    "s         sort: worst first, port   pages     page up and down, Home, End",
    "/         filter: 0-3,eth7 or text  g         read the grades of the port anew",
    "?         this page                 Esc       remove the filter",
    "",
    "Letters are the server's grades: o ok, w W low and high warning, a A low and high alarm,",
    "- not measured. They come only with a change of link or module; AGE is their age.",
    "Grey with ? : the value has moved since (1 dB, 5 degrees, 2 % of voltage, 10 % of bias).",
    "g subscribes anew, which leaves three records in the server's history of 30 actions.",
};

top_view::top_view(const std::vector<uint32_t> &ports)
{
    for (const uint32_t port_no : ports)
        ports_[port_no];
}

std::vector<uint32_t> top_view::all() const
{
    std::vector<uint32_t> ports;
    for (const auto &entry : ports_)
        ports.push_back(entry.first);
    return ports;
}

static std::string lower(std::string text)
{
    for (char &letter : text)
        letter = static_cast<char>(std::tolower(static_cast<unsigned char>(letter)));
    return text;
}

void top_view::name(const port_name_map &names)
{
    names_ = names;
    for (auto &[port_no, port] : ports_) {
        const auto found = names.find(port_no);
        port.name = found == names.end() ? "" : found->second;
    }
}

/* The ports in a filter such as "0-3,eth7"; nothing if it isn't a list. */
static std::optional<std::set<uint32_t>> ports_in(const std::string &filter,
                                                  const port_name_map &names)
{
    try {
        const auto ports = parse_ports({filter}, names);
        return std::set<uint32_t>(ports.begin(), ports.end());
    } catch (const tool_error &) {
        return std::nullopt;
    }
}

static std::string searched_text(const top_port &port)
{
    std::string text = port.name + " " + module_text(module_of(port));
    if (port.sfp)
        text += " " + describe(*port.sfp);
    if (port.status)
        text += " " + link_text(*port.status) + " " + describe_levels(port.status->level);
    return lower(text + " " + event_text(port));
}

bool top_view::is_by_rank(size_t height) const
{
    return by_rank_.value_or(ports_.size() > height);
}

/* Filters and sorts the ports, and moves the window so that the cursor is in it. */
void top_view::arrange(size_t height)
{
    const auto listed = ports_in(filter_, names_);
    const std::string text = lower(filter_);
    order_.clear();
    for (const auto &[port_no, port] : ports_)
        if (filter_.empty() || (listed ? listed->contains(port_no)
                                       : searched_text(port).find(text) != std::string::npos))
            order_.push_back(port_no);
    was_by_rank_ = is_by_rank(height);
    if (was_by_rank_)
        std::ranges::stable_sort(order_, std::ranges::greater{},
                                 [this](uint32_t port_no) { return rank(ports_[port_no]); });
    const auto at = cursor_ ? std::ranges::find(order_, *cursor_) : order_.begin();
    if (at == order_.end())
        cursor_.reset();
    const auto row = cursor_ ? static_cast<size_t>(at - order_.begin()) : 0;
    first_ = std::min(first_, order_.size() - std::min(order_.size(), rows_));
    if (row < first_ || !cursor_)
        first_ = row;
    else if (row >= first_ + rows_)
        first_ = row + 1 - std::max<size_t>(rows_, 1);
}

std::optional<uint32_t> top_view::selected() const
{
    if (cursor_)
        return cursor_;
    return order_.empty() ? std::nullopt : std::optional(order_.front());
}

void top_view::move(ptrdiff_t rows)
{
    if (order_.empty())
        return;
    const auto now = cursor_ ? std::ranges::find(order_, *cursor_) - order_.begin() : 0;
    const auto last = static_cast<ptrdiff_t>(order_.size()) - 1;
    const ptrdiff_t row = std::clamp<ptrdiff_t>(now + rows, 0, last);
    /* At the top the cursor stays in the first row, so that the worst port remains visible. */
    cursor_ = row == 0 ? std::nullopt : std::optional(order_[static_cast<size_t>(row)]);
}

void top_view::edit_filter(const key &pressed)
{
    switch (pressed.code) {
    case key_code::letter:
        filter_ += pressed.letter;
        break;
    case key_code::backspace:
        if (!filter_.empty())
            filter_.pop_back();
        break;
    case key_code::escape:
        filter_.clear();
        is_editing_ = false;
        break;
    case key_code::enter:
        is_editing_ = false;
        break;
    default:
        break;
    }
}

/* The number of rows by which a key moves the cursor, negative upwards; 0 for any other key. */
ptrdiff_t top_view::rows_of(key_code code) const
{
    const auto page = static_cast<ptrdiff_t>(std::max<size_t>(rows_, 1));
    const auto all = static_cast<ptrdiff_t>(ports_.size());
    switch (code) {
    case key_code::up:
        return -1;
    case key_code::down:
        return 1;
    case key_code::page_up:
        return -page;
    case key_code::page_down:
        return page;
    case key_code::home:
        return -all;
    case key_code::end:
        return all;
    default:
        return 0;
    }
}

top_view::action top_view::press_letter(char letter)
{
    switch (letter) {
    case 'q':
    case 'Q':
        return action::quit;
    case 'g':
        return action::grade;
    case 's':
        by_rank_ = !was_by_rank_;
        cursor_.reset();
        break;
    case '/':
        is_editing_ = true;
        has_help_ = false;
        break;
    case '?':
        has_help_ = !has_help_;
        break;
    default:
        break;
    }
    return action::none;
}

top_view::action top_view::press(const key &pressed)
{
    const bool is_letter = pressed.code == key_code::letter;
    if (is_editing_ && (is_letter || pressed.code >= key_code::enter)) {
        edit_filter(pressed);
        return action::none;
    }
    if (is_letter)
        return press_letter(pressed.letter);
    if (pressed.code == key_code::escape) {
        filter_.clear();
        has_help_ = false;
    }
    if (const ptrdiff_t rows = rows_of(pressed.code); rows != 0)
        move(rows);
    return action::none;
}

/* The clock and the number of ports are left out if the state of the connection needs the room. */
std::string top_view::title(size_t width, bool coloured, const std::string &state) const
{
    std::string text = fmt::format("tesk-server  {}  {} ports{}  ", clock_seconds(now_us()),
                                   ports_.size(), was_by_rank_ ? ", worst first" : "");
    if (text.size() + state.size() > width)
        text = "tesk-server  ";
    const size_t taken = std::min(width, text.size());
    return paint(fit(text, taken), tint::bold, coloured) +
           paint(fit(state, width - taken), tint::yellow, coloured);
}

std::string top_view::footer() const
{
    if (is_editing_)
        return fmt::format("/{}_  {} ports; Enter keeps the filter, Esc removes it", filter_,
                           order_.size());
    std::string text;
    const size_t hidden = order_.size() - std::min(order_.size(), rows_);
    if (rows_ == 0 && hidden > 0)
        return fmt::format("{} of {} ports not shown: window too low", hidden, ports_.size());
    if (hidden > 0)
        text = fmt::format("rows {}-{} of {}  ", first_ + 1, first_ + rows_, order_.size());
    if (!filter_.empty())
        text += fmt::format("filter \"{}\"  ", filter_);
    return text + "q quit  ? help  o ok  w/W low/high warning  a/A low/high alarm  - not measured";
}

/* The newest change outside the window; without one, in a window too narrow for events beside the
   rows, the newest change of all. */
std::string top_view::news(bool has_events_beside) const
{
    size_t unseen = 0;
    const std::pair<const uint32_t, top_port> *hidden = nullptr, *newest = nullptr;
    for (const auto &entry : ports_) {
        const top_port &port = entry.second;
        if (newest == nullptr || newest->second.last_event < port.last_event)
            newest = &entry;
        if (!port.is_unseen)
            continue;
        unseen++;
        if (hidden == nullptr || hidden->second.last_event < port.last_event)
            hidden = &entry;
    }
    if (hidden != nullptr)
        return fmt::format("outside of the window {} port{} changed, last port {}: {}", unseen,
                           unseen == 1 ? "" : "s", hidden->first, event_text(hidden->second));
    if (has_events_beside || newest == nullptr || newest->second.last_event.empty())
        return "";
    return fmt::format("port {}: {}", newest->first, event_text(newest->second));
}

/* The rows that arrange() has chosen; without events if `event_width` is 0. */
void top_view::add_rows(std::vector<std::string> &page, const top_columns &columns,
                        size_t event_width, bool coloured)
{
    for (size_t i = first_; i < std::min(first_ + rows_, order_.size()); i++) {
        const uint32_t port_no = order_[i];
        top_port &port = ports_[port_no];
        port.is_unseen = false;
        page.push_back(columns.row(port_no, port, selected() == port_no, coloured) +
                       (event_width > 0 ? fit(event_text(port), event_width) : ""));
    }
}

std::vector<std::string> top_view::lines(size_t width, size_t height, bool coloured,
                                         const std::string &state)
{
    size_t name_width = 0;
    for (const auto &entry : names_)
        name_width = std::max(name_width, entry.second.size());
    const top_columns columns(width, name_width);
    const size_t taken = columns.width();
    const bool has_events = width >= taken + narrowest_event;
    std::vector<std::string> page;
    if (height >= 4)
        page.push_back(title(width, coloured, state));
    if (has_help_) {
        for (const char *line : help)
            page.push_back(fit(line, width));
        page.resize(std::min(page.size(), height));
        return page;
    }
    if (height >= 3)
        page.push_back(paint(fit(columns.head() + (has_events ? "LAST EVENT" : ""), width),
                             tint::bold, coloured));
    const size_t most_rows = height - std::min(height, page.size() + 1);
    rows_ = most_rows;
    arrange(most_rows);
    /* If the page doesn't show all ports, one line shows changes of the others. */
    const bool has_hidden = order_.size() > rows_ || order_.size() < ports_.size();
    if (has_hidden && rows_ > 1) {
        rows_--;
        arrange(most_rows);
    }
    add_rows(page, columns, has_events ? width - taken : 0, coloured);
    if (height >= 4) /* after arrange(), whose result the title shows */
        page.front() = title(width, coloured, state);
    const std::string newest = news(has_events);
    if ((has_hidden || !newest.empty()) && page.size() + 1 < height)
        page.push_back(paint(fit(newest, width), tint::yellow, coloured));
    page.push_back(paint(fit(footer(), width), tint::dim, coloured));
    page.resize(std::min(page.size(), height));
    return page;
}
