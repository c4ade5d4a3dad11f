/* text - how teskctl writes bytes, units, times and tables. No state. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "util/escape.h"
#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

using json_object = nlohmann::ordered_json; /* keys stay in the order in which they are set */

enum class tint { none, green, yellow, red, dim, bold };
std::string paint(const std::string &text, tint shade, bool enabled);

/* How many columns a text takes on the terminal. */
size_t display_width(std::string_view text);
/* The text in exactly so many columns: padded, or cut. */
std::string fit(std::string_view text, size_t width);

/* Units as on a data sheet. The arguments are those of tesk_client_pm. */
std::string milliwatts(uint32_t microwatts);
/* Nothing for 0, which has no logarithm; "< -30.00 dBm", the least that the protocol can tell. */
std::optional<double> to_dbm(uint32_t microwatts);
std::string dbm(uint32_t microwatts);
std::string celsius(int32_t tenths);
std::string volts(uint32_t tenths_of_millivolts);
std::string milliamperes(uint32_t hundredths);
std::string gbps(uint32_t tenths);

/* Microseconds since 1970 in local time. */
uint64_t now_us();
std::string clock_time(uint64_t time_us);    /* 14:02:11.123 */
std::string date_and_time(uint64_t time_us); /* 2026-03-01 14:02:11.123 */
std::string iso_time(uint64_t time_us);      /* 2026-03-01T14:02:11.123456+01:00 */

/* A table whose last column takes the room that is left and goes on in the lines below. */
class table
{
  public:
    explicit table(std::vector<std::string> header) : rows_{std::move(header)}
    {
    }
    void add(std::vector<std::string> row)
    {
        rows_.push_back(std::move(row));
    }
    /* `width` 0: as wide as it likes. */
    std::string text(size_t width) const;

  private:
    std::vector<std::vector<std::string>> rows_;
};

/* The public records in words, for one line, and as objects; the man page has their keys. */
std::string describe(const tesk_client_sfp_info &info);
std::string describe(const tesk_client_port_status &status);
std::string describe(const tesk_client_pm &pm);
std::string describe_levels(const uint32_t (&level)[TESK_CLIENT_MEASUREMENTS]);

json_object to_json(const tesk_client_sfp_info &info);
json_object to_json(const tesk_client_port_status &status);
json_object to_json(const tesk_client_pm &pm);
json_object to_json(const tesk_client_history_record &record, tesk_client_history_kind kind);

/* What a request was for: "subscribe status". */
std::string request_name(tesk_client_request_type type);
