/* SPDX-License-Identifier: Apache-2.0 */
/* What a port itself reports is held by value; its module is shared and never written. A change of
   the module puts a changed copy in its place, one copy for all ports of a request that had the
   same module, so that a board of 65,535 ports alike stays small after a change to all of them too.
 */
#include "platform/dolm_ric/simulator/simulated_ports.h"

#include <cstddef>
#include <map>
#include <utility>

namespace board
{

/* From an empty cage, by the settings of its kind. */
static module_values make_module(const module_kind &kind)
{
    module_values module;
    for (const std::string_view piece : kind.settings)
        for (const setting &value : parse_settings(split_words(piece)))
            write_setting(value, &module);
    return module;
}

/* One module of zeros stands for the empty cage in all slots: a slot has always a module to read.
 */
simulated_ports::simulated_ports(uint32_t count, port_events &events)
    : listener(events), no_module(std::make_shared<const module_values>())
{
    const port_values started = {.status = DOLM_RICRIPORT_STARTED,
                                 .link_state = DOLM_RICRILINKSTATE_NOOPERATION};
    slots.assign(count, {started, no_module});
}

uint32_t simulated_ports::ports() const
{
    return static_cast<uint32_t>(slots.size());
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_port_status &out) const
{
    out = {.id = id_of_port_0 | port, .status = slots[port].values.status, .reserved = {}};
    return DOLM_RICERR_OK;
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_link_status &out) const
{
    out = {};
    out.id = id_of_port_0 | port;
    out.state = slots[port].values.link_state;
    out.speed = slots[port].values.link_speed;
    return DOLM_RICERR_OK;
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_module_info &out) const
{
    if (!inserted(port) || !slots[port].module->readable)
        return DOLM_RICERR_NOTAVAIL;
    out = slots[port].module->info;
    return DOLM_RICERR_OK;
}

/* The status word is the cage's own: it is there even where the module's memory can't be read. */
int32_t simulated_ports::read(uint32_t port, dolm_ric_module_status &out) const
{
    if (!inserted(port))
        return DOLM_RICERR_NOTAVAIL;
    out = slots[port].module->status;
    return DOLM_RICERR_OK;
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_module_diag &out) const
{
    const module_values &module = *slots[port].module;
    if (!inserted(port) || !module.readable)
        return DOLM_RICERR_NOTAVAIL;
    if (!module.has_diagnostics)
        return DOLM_RICERR_UNSUPPORTED;
    out = module.diag;
    return DOLM_RICERR_OK;
}

bool simulated_ports::inserted(uint32_t port) const
{
    return (slots[port].values.status & DOLM_RICRIPORT_MODINSERTED) != 0;
}

void simulated_ports::require(const port_list &list) const
{
    for (const port_range &range : list)
        if (range.last >= ports())
            throw board_error("there is no port " + std::to_string(range.last) +
                              ": this board has the ports 0 to " + std::to_string(ports() - 1));
}

/* An event carries what a read at the same moment gives. */
template <typename record>
void simulated_ports::tell(uint32_t port, void (port_events::*changed)(const record &))
{
    record now;
    read(port, now);
    (listener.*changed)(now);
}

/* Each port is told of once per kind, however many of its values a request changes. */
template <typename edit>
void simulated_ports::change(const port_list &list, told_anyway anyway, edit &&apply)
{
    require(list);
    for (const port_range &range : list) {
        for (uint32_t port = range.first; port <= range.last; port++) {
            const port_values before = slots[port].values;
            apply(slots[port]);
            const port_values &now = slots[port].values;
            if (anyway.port || now.status != before.status)
                tell(port, &port_events::port_changed);
            if (anyway.link || now.link_state != before.link_state ||
                now.link_speed != before.link_speed)
                tell(port, &port_events::link_changed);
        }
    }
}

/* Writes settings to ports. The map keeps the old modules alive while it lasts, so that no new one
   can be mistaken for them. */
class simulated_ports::writer
{
  public:
    explicit writer(const std::vector<setting> &wanted) : settings(wanted)
    {
    }

    void operator()(port_slot &slot)
    {
        bool touches_module = false;
        for (const setting &value : settings) {
            touches_module |= value.target->in_module;
            if (!value.target->in_module)
                write_setting(value, &slot.values);
        }
        if (touches_module)
            slot.module = changed(slot.module);
    }

  private:
    module_ptr changed(const module_ptr &before)
    {
        module_ptr &copy = copies[before];
        if (copy)
            return copy;
        auto fresh = std::make_shared<module_values>(*before);
        for (const setting &value : settings)
            if (value.target->in_module)
                write_setting(value, fresh.get());
        return copy = std::move(fresh);
    }

    const std::vector<setting> &settings;
    std::map<module_ptr, module_ptr> copies;
};

void simulated_ports::set(const port_list &list, const std::vector<setting> &settings, bool again)
{
    /* An event tells of the port's status or of its link. The values of a module have none. */
    told_anyway anyway;
    for (const setting &value : settings) {
        const bool of_status = value.target->offset == offsetof(port_values, status);
        anyway.port |= again && !value.target->in_module && of_status;
        anyway.link |= again && !value.target->in_module && !of_status;
    }
    change(list, anyway, writer(settings));
}

/* A module comes ready, unless the settings say otherwise. They are written last. */
void simulated_ports::insert(const port_list &list, const module_kind *kind,
                             const std::vector<setting> &settings)
{
    const auto fresh = std::make_shared<const module_values>(
        make_module(kind != nullptr ? *kind : parse_module_kind("lc")));
    change(list, {}, [&, write = writer(settings)](port_slot &slot) mutable {
        if (kind != nullptr || slot.module == no_module)
            slot.module = fresh;
        slot.values.status |= DOLM_RICRIPORT_MODINSERTED | DOLM_RICRIPORT_MODREADY;
        write(slot);
    });
}

/* The port stays started and remembers the module, but a link without one can't be up. */
void simulated_ports::remove(const port_list &list)
{
    change(list, {}, [](port_slot &slot) {
        slot.values.status &= DOLM_RICRIPORT_STARTED;
        if (slot.values.link_state == DOLM_RICRILINKSTATE_OPERATIONAL)
            slot.values.link_state = DOLM_RICRILINKSTATE_NOOPERATION;
    });
}

std::string simulated_ports::value_of(uint32_t port, const field &source) const
{
    const port_slot &slot = slots[port];
    return source.in_module ? read_field(source, slot.module.get())
                            : read_field(source, &slot.values);
}

} // namespace board
