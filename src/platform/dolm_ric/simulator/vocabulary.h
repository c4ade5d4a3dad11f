/* SPDX-License-Identifier: Apache-2.0 */
/* vocabulary - the words that the board file, the control protocol and teskboard share: lists
   of ports, operations and result codes, kinds of modules, and the keys of all values that a port
   reports. Pure functions. Text that can't be parsed gives a board_error. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"
#include "platform/dolm_ric/operation.h"

#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace board
{

/* Ports in the order in which they were named. */
struct port_range {
    uint32_t first;
    uint32_t last;
};
using port_list = std::vector<port_range>;

/* Reads "0-3,7"; never an empty list. */
port_list parse_ports(std::string_view text);
std::string format_ports(const port_list &ports);
bool contains(const port_list &ports, uint32_t port);

/* The short name; operation_names() has all of them, in the order of the enumeration. */
std::string_view operation_name(operation op);
/* Takes the short name and the full one. */
operation parse_operation(std::string_view text);
std::span<const std::string_view> operation_names();

/* A result code by number or name ("busy"), any but 0. */
int32_t parse_code(std::string_view text);
/* A decimal or 0x number from 0 to `highest`. */
uint64_t parse_number(std::string_view text, uint64_t highest);

/* What a port is without its module, and what its module is. */
struct port_values {
    uint32_t status = 0;
    uint32_t link_state = 0;
    uint32_t link_speed = 0;
};
struct module_values {
    uint32_t readable = 0;        /* else getmoduleinfo and getmodulediag give -4 */
    uint32_t has_diagnostics = 0; /* else getmodulediag gives -6 */
    dolm_ric_module_info info = {};
    dolm_ric_module_status status = {};
    dolm_ric_module_diag diag = {};
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
    text,
};

/* One value that can be shown and set. */
struct field {
    std::string_view name;
    field_kind kind;
    bool in_module; /* the offset is one into module_values, else into port_values */
    uint16_t offset;
    uint16_t size;
    uint32_t mask = 0; /* of a flag */
};
/* All there are, in the order in which a port is shown. */
std::span<const field> fields();

/* A field and what it is to become. */
struct setting {
    const field *target;
    uint32_t number;   /* the raw value of all kinds but texts */
    std::string bytes; /* of a text */
};

/* Reads "temperature=71.5C". A number without a unit is in the unit of the library's records. */
setting parse_setting(std::string_view text);
/* Stores into the port_values or module_values that the field lies in. */
void write_setting(const setting &value, void *values);
/* The raw value as text; parse_setting takes it back. */
std::string read_field(const field &source, const void *values);
/* The raw value of all kinds but texts; of a flag 0 or 1. */
uint32_t read_number(const field &source, const void *values);
/* The words that stand for raw values of this kind, such as "up"; empty if there is none. */
std::string_view name_of_value(field_kind kind, uint32_t number);

/* A module as `insert` puts it in: the settings that make it from an empty cage, in pieces that are
   carried out one after the other; those that aren't needed are empty. */
struct module_kind {
    std::string_view name;
    std::array<std::string_view, 4> settings;
};
std::span<const module_kind> module_kinds();
const module_kind &parse_module_kind(std::string_view name);

/* The words are views into `text`. */
std::vector<std::string_view> split_words(std::string_view text);
std::vector<setting> parse_settings(std::span<const std::string_view> words);

/* What parse_setting takes back: bytes that are no printing ASCII become \xNN, a backslash \\. */
std::string escape(std::string_view bytes, bool spaces_too);

} // namespace board
