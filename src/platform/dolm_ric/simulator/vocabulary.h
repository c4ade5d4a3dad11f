/* SPDX-License-Identifier: Apache-2.0 */
/* vocabulary - the names that the board file, the control protocol and teskboard share: operations
   and result codes, kinds of modules, and the keys of all values of a port. Pure functions. Text
   that can't be parsed throws a board_error. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"
#include "platform/dolm_ric/operation.h"
#include "platform/dolm_ric/simulator/words.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace board
{

/* The short name. operation_names() returns all short names, in the order of the enumeration. */
std::string_view operation_name(operation op);
/* Parses the short or the full name. */
operation parse_operation(std::string_view text);
std::span<const std::string_view> operation_names();

/* A result code by its number or its name ("busy"); 0 is refused. */
int32_t parse_code(std::string_view text);
/* The values of a port without its module; module_values has those of a module. */
struct port_values {
    uint32_t status = 0;
    uint32_t link_state = 0;
    uint32_t link_speed = 0;
};
/* The values that a lane can have instead of the module's. */
struct lane_values {
    static constexpr uint32_t as_module = UINT32_MAX;
    uint32_t tx_bias = as_module; /* like the next two, in the units of dolm_ric_module_diag */
    uint32_t tx_power = as_module;
    uint32_t rx_power = as_module;
    uint32_t signals = 0;     /* bit n: condition n of enum dolm_ric_details_signal is present */
    uint32_t snr = 0;         /* in hundredths of a dB; 0: not measured */
    uint32_t pre_fec_ber = 0; /* -1000 times the decimal logarithm; 0: not measured */
};
inline constexpr uint32_t lanes_at_most = 16;

struct module_values {
    uint32_t readable = 0;        /* if 0, getmoduleinfo and getmodulediag return -4 */
    uint32_t has_diagnostics = 0; /* if 0, getmodulediag returns -6 */
    dolm_ric_module_info info = {};
    dolm_ric_module_status status = {};
    dolm_ric_module_diag diag = {};
    /* The library's calls have no lanes, see diagnostics_of(). 0: one lane with the module's
       values. */
    uint32_t lane_count = 0;
    std::array<lane_values, lanes_at_most> lanes = {};
};

enum class field_kind : uint8_t {
    flag,
    number,
    link_state,
    speed,
    connector,
    eth_speed,
    temperature,
    voltage,
    current,
    power,
    decibels,
    ratio,
    text,
};

/* One value that can be shown and set. */
struct field {
    std::string_view name;
    field_kind kind;
    bool in_module; /* the offset is into module_values, else into port_values */
    uint16_t offset;
    uint16_t size;
    uint32_t mask = 0;   /* bit of a flag */
    uint16_t stride = 0; /* of a lane's field: distance to the next lane's member */
};
/* All fields, in the order in which a port is shown. */
std::span<const field> fields();
/* The fields that each lane has; the lane's number ends their names: "rx-power.3". */
std::span<const field> lane_fields();
/* The field with that name, of a port or of a lane; null if there is none. */
const field *find_field(std::string_view name);

/* A field and its new value. */
struct setting {
    const field *target;
    uint32_t number;   /* the raw value of any field but a text */
    std::string bytes; /* the value of a text */
    uint32_t lane = 0; /* lane of a lane's field */
};

/* Parses "temperature=71.5C". A number without a unit is in the unit of the library's records. */
setting parse_setting(std::string_view text);
/* Stores the value into the port_values or module_values that contains the field. */
void write_setting(const setting &value, void *values);
/* The raw value as text, which parse_setting can parse. */
std::string read_field(const field &source, const void *values, uint32_t lane = 0);
/* The raw value of any field but a text; 0 or 1 for a flag. */
uint32_t read_number(const field &source, const void *values, uint32_t lane = 0);
/* The word for a raw value of this kind, such as "up"; empty if there is none. */
std::string_view name_of_value(field_kind kind, uint32_t number);

/* A kind of module: the settings that make it from an empty cage, in parts that are applied in
   order; unused parts are empty. */
struct module_kind {
    std::string_view name;
    std::array<std::string_view, 4> settings;
};
std::span<const module_kind> module_kinds();
const module_kind &parse_module_kind(std::string_view name);

std::vector<setting> parse_settings(std::span<const std::string_view> words);

} // namespace board
