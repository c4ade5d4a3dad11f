/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: choose_format() evaluates which formats a client accepts; begin() writes the head
   of a family, and sample() one line. */
#include "tesk_exporter/metrics_text.h"

#include "util/escape.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <optional>

namespace exporter
{

static std::string_view trim(std::string_view text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string_view::npos)
        return {};
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

/* Removes the part before the separator from the text, and returns it. */
static std::string_view take(std::string_view &text, char separator)
{
    const size_t end = text.find(separator);
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(end == std::string_view::npos ? text.size() : end + 1);
    return trim(taken);
}

/* The quality of one entry of an Accept header, 1 by default; nothing for a version that isn't
   supported. */
static std::optional<double> quality(std::string_view parameters, std::string_view version)
{
    double found = 1;
    while (!parameters.empty()) {
        std::string_view value = take(parameters, ';');
        const std::string_view key = take(value, '=');
        if (key == "q" &&
            std::from_chars(value.data(), value.data() + value.size(), found).ec != std::errc{})
            return std::nullopt;
        if (key == "version" && value != version)
            return std::nullopt;
    }
    return found;
}

text_format choose_format(std::string_view accept)
{
    double open_metrics = 0, text = 0;
    while (!accept.empty()) {
        std::string_view entry = take(accept, ',');
        const std::string_view type = take(entry, ';');
        if (type == "application/openmetrics-text")
            open_metrics = std::max(open_metrics, quality(entry, "1.0.0").value_or(0));
        else if (type == "text/plain" || type == "text/*" || type == "*/*")
            text = std::max(text, quality(entry, "0.0.4").value_or(0));
    }
    return open_metrics > 0 && open_metrics >= text ? text_format::open_metrics
                                                    : text_format::prometheus;
}

const char *content_type(text_format format)
{
    return format == text_format::open_metrics
               ? "application/openmetrics-text; version=1.0.0; charset=utf-8"
               : "text/plain; version=0.0.4; charset=utf-8";
}

std::string label_value(std::string_view text)
{
    std::string value;
    value.reserve(text.size());
    for (const char letter : text) {
        if (letter == '\\' || letter == '"')
            value += '\\';
        if (letter == '\n')
            value += "\\n";
        else
            value += letter;
    }
    return value;
}

template <size_t width>
static std::string module_text(const char (&field)[width])
{
    std::string_view text(field, strnlen(field, width));
    text = text.substr(0, text.find_last_not_of(' ') + 1);
    return label_value(escape(text));
}

std::string module_labels(const tesk_client_sfp_info &info)
{
    const std::pair<const char *, std::string> labels[] = {
        {"type", tesk_client_text(TESK_CLIENT_TEXT_SFP_TYPE, info.type)},
        {"vendor", module_text(info.vendor_name)},
        {"part", module_text(info.vendor_pn)},
        {"revision", module_text(info.vendor_rev)},
        {"serial", module_text(info.vendor_sn)},
        {"date_code", module_text(info.date_code)},
        {"product", module_text(info.morvaine_rdh)},
    };
    std::string text;
    for (const auto &[name, value] : labels)
        text += std::string(text.empty() ? "" : ",") + name + "=\"" + value + "\"";
    return text;
}

void metrics_writer::header(std::string_view keyword, std::string_view content)
{
    text_.append("# ").append(keyword).append(" ").append(name_);
    /* In the older format a head names the series, not a family. */
    if (format_ == text_format::prometheus)
        text_.append(suffix_);
    text_.append(" ").append(content).append("\n");
}

void metrics_writer::begin(const family &described)
{
    static constexpr const char *suffixes[] = {"", "_total", "_info", ""};
    static constexpr const char *types[][2] = {
        {"gauge", "gauge"}, {"counter", "counter"}, {"gauge", "info"}, {"histogram", "histogram"}};
    const auto type = static_cast<size_t>(described.type);
    name_ = described.name;
    suffix_ = suffixes[type];
    header("HELP", described.help);
    header("TYPE", types[type][format_ == text_format::open_metrics]);
    if (format_ == text_format::open_metrics && *described.unit != '\0')
        header("UNIT", described.unit);
}

void metrics_writer::sample(std::string_view suffix, std::string_view labels,
                            std::string_view more_labels, double value)
{
    text_.append(name_).append(suffix);
    if (!labels.empty() || !more_labels.empty()) {
        text_.append("{").append(labels);
        text_.append(labels.empty() || more_labels.empty() ? "" : ",");
        text_.append(more_labels).append("}");
    }
    char digits[32] = {' '};
    /* The shortest text that reads back as the same number. */
    char *end = std::to_chars(digits + 1, digits + sizeof(digits) - 1, value).ptr;
    *end++ = '\n';
    text_.append(digits, static_cast<size_t>(end - digits));
}

std::string metrics_writer::finish()
{
    if (format_ == text_format::open_metrics)
        text_ += "# EOF\n";
    return std::move(text_);
}

} // namespace exporter
