/* SPDX-License-Identifier: Apache-2.0 */
/* port_source - what the operations of dolm_ric.h need from whatever has the ports. The simulated
   board is one source; hardware would be another. All calls are made under the desk's lock, and a
   source calls its port_events under it too. */
#pragma once

#include "platform/dolm_ric/dolm_ric.h"

#include <cstdint>

namespace board
{

/* Told by a source as soon as a value is another than before; the desk decides who hears of it. */
struct port_events {
    virtual ~port_events() = default;
    virtual void port_changed(const dolm_ric_port_status &now) = 0;
    virtual void link_changed(const dolm_ric_link_status &now) = 0;
};

/* Ports are numbered from 0. Each read gives a result code and fills `out` on 0. */
struct port_source {
    virtual ~port_source() = default;
    virtual uint32_t ports() const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_port_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_link_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_info &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_status &out) const = 0;
    virtual int32_t read(uint32_t port, dolm_ric_module_diag &out) const = 0;
};

} // namespace board
