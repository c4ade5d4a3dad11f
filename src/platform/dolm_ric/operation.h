/* SPDX-License-Identifier: Apache-2.0 */
/* operation - names and limits that the core, every port source and the tools share. No state. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <stdexcept>

namespace board
{

/* An id of dolm_ric.h is id_of_port_0 | port; ports are numbers below max_ports. */
constexpr uint32_t max_ports = 65535;
constexpr uint32_t id_of_port_0 = 0x00020000;

/* The thirteen operations of dolm_ric.h, named without their common prefix. */
enum class operation : uint8_t {
    init,
    shutdown,
    waitevent,
    freeevent,
    getportstatus,
    subsport,
    unsubsport,
    subslink,
    unsubslink,
    getlinkstatus,
    getmoduleinfo,
    getmodstatus,
    getmodulediag,
};
constexpr size_t operation_count = 13;

/* An error in a setting, a file or a command, with one line of text for people. */
struct board_error : std::runtime_error {
    using std::runtime_error::runtime_error;
};

} // namespace board
