/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: replay() finds the files; replayed_file reads line by line: the header with the
   port, the columns, then rows, each of which is fed to the forecast. */
#include "tesk_exporter/replay.h"

#include "forecast/forecast.h"
#include "program/exit_code.h"
#include "tesk_exporter/forecast_json.h"
#include "util/escape.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fmt/format.h>
#include <limits>
#include <map>
#include <nlohmann/json.hpp>
#include <optional>
#include <zlib.h>

namespace exporter
{

static constexpr int most_lanes = 64;
/* Six columns, and four for each lane, of at most 24 characters; a longer line is an error. */
static constexpr int longest_line = 8192;
static constexpr double not_measured = std::numeric_limits<double>::quiet_NaN();

namespace
{

enum class field : uint8_t { ignored, time, link, present, serial, temperature, voltage, lane };

struct column {
    field what = field::ignored;
    int lane = 0;
    double forecast::lane_reading::*member = nullptr;
};

struct line_source {
    gzFile file = nullptr;
    ~line_source()
    {
        if (file != nullptr)
            gzclose(file);
    }
};

} // namespace

static constexpr std::pair<std::string_view, field> port_columns[] = {
    {"time", field::time},
    {"link", field::link},
    {"present", field::present},
    {"serial", field::serial},
    {"temperature_c", field::temperature},
    {"voltage_v", field::voltage}};

static constexpr std::pair<std::string_view, double forecast::lane_reading::*> lane_columns[] = {
    {"rx_uw_", &forecast::lane_reading::rx_uw},
    {"tx_uw_", &forecast::lane_reading::tx_uw},
    {"bias_ma_", &forecast::lane_reading::bias_ma},
    {"error_ratio_", &forecast::lane_reading::error_ratio}};

/* The number, if the whole text is a finite one. */
static std::optional<double> number_in(std::string_view text)
{
    double number = 0;
    const auto end = std::from_chars(text.data(), text.data() + text.size(), number);
    if (end.ec != std::errc() || end.ptr != text.data() + text.size() || !std::isfinite(number))
        return std::nullopt;
    return number;
}

/* Removes the text up to the separator, and returns it. */
static std::string_view next_part(std::string_view &rest, char separator)
{
    const size_t end = std::min(rest.find(separator), rest.size());
    const std::string_view part = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    return part;
}

static column column_of(std::string_view name)
{
    for (const auto &[known, what] : port_columns)
        if (name == known)
            return {what, 0, nullptr};
    for (const auto &[known, member] : lane_columns) {
        if (!name.starts_with(known))
            continue;
        const auto lane = number_in(name.substr(known.size()));
        if (lane && *lane >= 1 && *lane <= most_lanes && *lane == std::floor(*lane))
            return {field::lane, static_cast<int>(*lane), member};
    }
    return {};
}

namespace
{

class replayed_file
{
  public:
    replayed_file(std::string path, FILE *out, FILE *errors)
        : path_(std::move(path)), out_(out), errors_(errors)
    {
        const std::string name = std::filesystem::path(path_).filename();
        port_ = name.substr(0, name.find('.'));
    }

    /* False: the file was unreadable, or ended too early. */
    bool run()
    {
        line_source source{gzopen(path_.c_str(), "rb")};
        if (source.file == nullptr) {
            complain(fmt::format("can't be opened: {}", std::strerror(errno)));
            return false;
        }
        gzbuffer(source.file, 64 * 1024);
        std::array<char, longest_line> buffer;
        while (is_usable_ && gzgets(source.file, buffer.data(), buffer.size()) != nullptr) {
            line_++;
            std::string_view text(buffer.data());
            if (!text.ends_with('\n') && text.size() + 1 == buffer.size())
                skip_line(source.file);
            else
                take(text.substr(0, text.find_last_not_of("\r\n") + 1));
        }
        int code = Z_OK;
        gzerror(source.file, &code);
        if (code != Z_OK && code != Z_STREAM_END) {
            complain(fmt::format("can't be read to its end: {}",
                                 code == Z_ERRNO       ? std::strerror(errno)
                                 : code == Z_BUF_ERROR ? "it is cut off"
                                                       : "it is damaged"));
            is_usable_ = false;
        } else if (is_usable_ && columns_.empty()) {
            complain("has no line with the names of columns, \"time,link,..\"");
            is_usable_ = false;
        }
        for (const auto &[kind, count] : complaints_)
            if (count > 1)
                fmt::print(errors_, "tesk-exporter: {}: {} more: {}\n", path_, count - 1, kind);
        return is_usable_;
    }

  private:
    void skip_line(gzFile file)
    {
        complain("a line is too long and is left out");
        std::array<char, longest_line> rest;
        while (gzgets(file, rest.data(), rest.size()) != nullptr)
            if (std::strchr(rest.data(), '\n') != nullptr)
                return;
    }

    /* There are few kinds of complaint, so that a bad file can't flood the terminal. */
    void complain(const std::string &kind, std::string_view detail = {})
    {
        if (complaints_[kind]++ > 0)
            return;
        fmt::print(errors_, "tesk-exporter: {}:{}: {}", path_, line_, kind);
        if (!detail.empty())
            fmt::print(errors_, ": \"{}\"", escape(detail.substr(0, 40)));
        fmt::print(errors_, "\n");
    }

    void take(std::string_view text)
    {
        if (text.starts_with('#'))
            take_head(text);
        else if (text.empty())
            return;
        else if (columns_.empty())
            take_columns(text);
        else
            take_row(text);
    }

    void take_head(std::string_view text)
    {
        next_part(text, ' ');
        const std::string_view what = next_part(text, ' ');
        if (what == "port" && !text.empty())
            port_ = text;
        if (what != "limit")
            return;
        const std::string_view name = next_part(text, ' ');
        std::array<double, 4> limit{};
        for (double &each : limit) {
            const auto found = number_in(next_part(text, ' '));
            if (!found) {
                complain("a limit needs four numbers and is left out", name);
                return;
            }
            each = *found;
        }
        if (!columns_.empty()) {
            complain("a limit behind the names of columns is left out", name);
            return;
        }
        for (int i = 0; i < forecast::quantities; i++)
            if (const auto value = static_cast<forecast::quantity>(i);
                name == forecast::name_of(value))
                limits_[value] = {limit[0], limit[1], limit[2], limit[3]};
    }

    void take_columns(std::string_view text)
    {
        int lanes = 0;
        while (!text.empty()) {
            columns_.push_back(column_of(next_part(text, ',')));
            lanes = std::max(lanes, columns_.back().lane);
        }
        const auto is_time = [](const column &each) { return each.what == field::time; };
        if (std::none_of(columns_.begin(), columns_.end(), is_time) || lanes == 0) {
            complain("the columns need \"time\" and a value of a lane, as \"rx_uw_1\"; the file "
                     "is left out");
            is_usable_ = false;
            return;
        }
        lanes_.resize(static_cast<size_t>(lanes));
        state_.emplace();
        for (const auto &[value, own] : limits_)
            state_->set_limits(value, own);
    }

    double number(std::string_view text)
    {
        if (text.empty())
            return not_measured;
        const auto found = number_in(text);
        if (!found)
            complain("a value that isn't a number counts as not measured", text);
        return found.value_or(not_measured);
    }

    void take_row(std::string_view text)
    {
        if (static_cast<size_t>(std::count(text.begin(), text.end(), ',')) + 1 != columns_.size()) {
            complain(fmt::format("a row without {} columns is left out", columns_.size()), text);
            return;
        }
        forecast::reading row{.time = -1,
                              .has_link = true,
                              .has_module = true,
                              .serial = {},
                              .temperature_c = not_measured,
                              .voltage_v = not_measured,
                              .lanes = lanes_};
        std::fill(lanes_.begin(), lanes_.end(),
                  forecast::lane_reading{not_measured, not_measured, not_measured, not_measured});
        for (const column &each : columns_)
            take_field(each, next_part(text, ','), row);
        if (row.time < 0) {
            complain("a row without a time in seconds is left out");
            return;
        }
        if (row.time < latest_)
            complain(
                "the time goes back: rows are left out until their time has passed that of the "
                "latest row, or for a day");
        latest_ = std::max(latest_, row.time);
        reports_.clear();
        state_->feed(row, reports_);
        for (const forecast::report &told : reports_) {
            const auto replace = nlohmann::json::error_handler_t::replace;
            fmt::print(out_, "{}\n",
                       report_json({{"port", port_}}, told).dump(-1, ' ', true, replace));
        }
    }

    void take_field(const column &to, std::string_view text, forecast::reading &row)
    {
        switch (to.what) {
        case field::time:
            if (const auto found = number_in(text); found && *found >= 0 && *found <= 1e12)
                row.time = static_cast<int64_t>(*found);
            break;
        case field::link:
            row.has_link = text != "0";
            break;
        case field::present:
            row.has_module = text != "0";
            break;
        case field::serial:
            row.serial = text;
            break;
        case field::temperature:
            row.temperature_c = number(text);
            break;
        case field::voltage:
            row.voltage_v = number(text);
            break;
        case field::lane:
            lanes_[static_cast<size_t>(to.lane) - 1].*to.member = number(text);
            break;
        case field::ignored:
            break;
        }
    }

    std::string path_, port_;
    FILE *out_, *errors_;
    uint64_t line_ = 0;
    bool is_usable_ = true;
    int64_t latest_ = 0;
    std::map<std::string, uint64_t> complaints_;
    std::map<forecast::quantity, forecast::limits> limits_;
    std::vector<column> columns_;
    std::vector<forecast::lane_reading> lanes_;
    std::vector<forecast::report> reports_;
    std::optional<forecast::port> state_;
};

} // namespace

static std::vector<std::string> files_in(const std::string &path)
{
    std::error_code error;
    if (!std::filesystem::is_directory(path, error))
        return {path};
    std::vector<std::string> found;
    for (const auto &entry : std::filesystem::directory_iterator(path, error))
        if (const std::string name = entry.path();
            name.ends_with(".csv.gz") || name.ends_with(".csv"))
            found.push_back(name);
    std::sort(found.begin(), found.end());
    return found;
}

int replay(const std::vector<std::string> &paths, FILE *out, FILE *errors)
{
    bool is_complete = true;
    for (const std::string &path : paths) {
        const auto files = files_in(path);
        if (files.empty()) {
            fmt::print(errors, "tesk-exporter: {}: no file *.csv.gz or *.csv in it\n", path);
            is_complete = false;
        }
        for (const std::string &file : files) {
            is_complete &= replayed_file(file, out, errors).run();
            if (std::ferror(out) != 0)
                return static_cast<int>(exit_code::no_output);
        }
    }
    if (std::fflush(out) != 0)
        return static_cast<int>(exit_code::no_output);
    return static_cast<int>(is_complete ? exit_code::done : exit_code::rejected);
}

} // namespace exporter
