/* SPDX-License-Identifier: Apache-2.0 */
/* A port has its own values, and a shared module, which is never written: a change replaces the
   module by a changed copy, one copy for all ports of a command that had the same module. So a
   board of 65,535 equal ports stays small even after a change to all of them. */
#include "platform/dolm_ric/simulator/simulated_ports.h"

#include "platform/dolm_ric/details_record.h"
#include "platform/dolm_ric/fall_files.h"
#include "platform/dolm_ric/simulator/simulated_details.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <utility>

namespace board
{

/* Applies the settings of this kind to an empty cage. */
static module_values make_module(const module_kind &kind)
{
    module_values module;
    for (const std::string_view piece : kind.settings)
        for (const setting &value : parse_settings(split_words(piece)))
            write_setting(value, &module);
    return module;
}

/* All empty cages share one module of zeros, so that a port always has a module to read. */
simulated_ports::simulated_ports(uint32_t count, port_events &events)
    : events_(events), no_module_(std::make_shared<const module_values>()),
      falls_({.oldest_look = INT64_MAX, .youngest_look = 0})
{
    details_.watch([this](const dolm_ric_details_record &record) { falls_.see(record); });
    const port_values started = {.status = DOLM_RICRIPORT_STARTED,
                                 .link_state = DOLM_RICRILINKSTATE_NOOPERATION};
    slots_.assign(count, {started, no_module_});
}

uint32_t simulated_ports::count() const
{
    return static_cast<uint32_t>(slots_.size());
}

bool simulated_ports::has_port(uint32_t port) const
{
    return port < count();
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_port_status &out) const
{
    out = {.id = id_of_port_0 | port, .status = slots_[port].values.status, .reserved = {}};
    return DOLM_RICERR_OK;
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_link_status &out) const
{
    out = {};
    out.id = id_of_port_0 | port;
    out.state = slots_[port].values.link_state;
    out.speed = slots_[port].values.link_speed;
    return DOLM_RICERR_OK;
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_module_info &out) const
{
    if (!is_inserted(port) || !slots_[port].module->readable)
        return DOLM_RICERR_NOTAVAIL;
    out = slots_[port].module->info;
    return DOLM_RICERR_OK;
}

/* The status word belongs to the cage: it can be read even if the module's memory can't. */
int32_t simulated_ports::read(uint32_t port, dolm_ric_module_status &out) const
{
    if (!is_inserted(port))
        return DOLM_RICERR_NOTAVAIL;
    out = slots_[port].module->status;
    return DOLM_RICERR_OK;
}

int32_t simulated_ports::read(uint32_t port, dolm_ric_module_diag &out) const
{
    const module_values &module = *slots_[port].module;
    if (!is_inserted(port) || !module.readable)
        return DOLM_RICERR_NOTAVAIL;
    if (!module.has_diagnostics)
        return DOLM_RICERR_UNSUPPORTED;
    out = diagnostics_of(module);
    return DOLM_RICERR_OK;
}

bool simulated_ports::is_inserted(uint32_t port) const
{
    return (slots_[port].values.status & DOLM_RICRIPORT_MODINSERTED) != 0;
}

void simulated_ports::require(const port_list &list) const
{
    for (const port_range &range : list)
        if (range.last >= count())
            throw board_error("there is no port " + std::to_string(range.last) +
                              ": this board has the ports 0 to " + std::to_string(count() - 1));
}

/* A report has the values that a read at this moment would return. */
template <typename record>
void simulated_ports::report(uint32_t port, void (port_events::*changed)(const record &))
{
    record now;
    read(port, now);
    (events_.*changed)(now);
}

void simulated_ports::describe(uint32_t port)
{
    if (!has_details_ || port >= ports_with_details)
        return;
    const port_slot &slot = slots_[port];
    falls_.report_link(port, {.is_reported = true, .is_exact = true, .device = "board"});
    details_.update(port, [&slot, port](dolm_ric_details_record &record) {
        const std::string name = "port" + std::to_string(port);
        set_text(record.link.interface, sizeof(record.link.interface), name.c_str(), name.size());
        describe_port(slot.values, *slot.module, details_time(), record);
    });
}

void simulated_ports::start_details(const std::string &path)
{
    has_details_ = true;
    for (uint32_t port = 0; port < count(); port++)
        describe(port);
    details_.start(path);
    falls_.start(falls_folder(path), {});
}

void simulated_ports::stop_details() noexcept
{
    has_details_ = false;
    falls_.stop();
    details_.stop();
}

/* One report per port and kind, however many values a command changes. */
template <typename edit>
void simulated_ports::change(const port_list &list, forced_reports forced, edit &&apply)
{
    require(list);
    for (const port_range &range : list) {
        for (uint32_t port = range.first; port <= range.last; port++) {
            const port_values before = slots_[port].values;
            apply(slots_[port]);
            describe(port);
            const port_values &now = slots_[port].values;
            if (forced.port || now.status != before.status)
                report(port, &port_events::port_changed);
            if (forced.link || now.link_state != before.link_state ||
                now.link_speed != before.link_speed)
                report(port, &port_events::link_changed);
        }
    }
}

/* Writes settings to ports. The map keeps the old modules alive while it exists, so that no new
   module can have the address of an old one. */
class simulated_ports::writer
{
  public:
    explicit writer(const std::vector<setting> &settings) : settings_(settings)
    {
    }

    void operator()(port_slot &slot)
    {
        bool touches_module = false;
        for (const setting &value : settings_) {
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
        module_ptr &copy = copies_[before];
        if (copy)
            return copy;
        auto changed_copy = std::make_shared<module_values>(*before);
        for (const setting &value : settings_) {
            if (value.target->in_module)
                write_setting(value, changed_copy.get());
            if (value.target->stride != 0)
                changed_copy->lane_count = std::max(changed_copy->lane_count, value.lane + 1);
        }
        return copy = std::move(changed_copy);
    }

    const std::vector<setting> &settings_;
    std::map<module_ptr, module_ptr> copies_;
};

void simulated_ports::set(const port_list &list, const std::vector<setting> &settings,
                          bool is_forced)
{
    /* Set for a value of the port's status or of its link; a module's values have no event. */
    forced_reports forced;
    for (const setting &value : settings) {
        const bool of_status = value.target->offset == offsetof(port_values, status);
        forced.port |= is_forced && !value.target->in_module && of_status;
        forced.link |= is_forced && !value.target->in_module && !of_status;
    }
    change(list, forced, writer(settings));
}

/* An inserted module is ready, unless the settings, which are applied last, change that. */
void simulated_ports::insert(const port_list &list, const module_kind *kind,
                             const std::vector<setting> &settings)
{
    const auto fresh = std::make_shared<const module_values>(
        make_module(kind != nullptr ? *kind : parse_module_kind("lc")));
    change(list, {}, [&, write = writer(settings)](port_slot &slot) mutable {
        if (kind != nullptr || slot.module == no_module_)
            slot.module = fresh;
        slot.values.status |= DOLM_RICRIPORT_MODINSERTED | DOLM_RICRIPORT_MODREADY;
        write(slot);
    });
}

/* The port stays started and keeps the module for the next insertion. Without a module the link
   goes down. */
void simulated_ports::remove(const port_list &list)
{
    change(list, {}, [](port_slot &slot) {
        slot.values.status &= DOLM_RICRIPORT_STARTED;
        if (slot.values.link_state == DOLM_RICRILINKSTATE_OPERATIONAL)
            slot.values.link_state = DOLM_RICRILINKSTATE_NOOPERATION;
    });
}

uint32_t simulated_ports::lane_count(uint32_t port) const
{
    return slots_[port].module->lane_count;
}

std::string simulated_ports::value_of(uint32_t port, const field &source, uint32_t lane) const
{
    const port_slot &slot = slots_[port];
    return source.in_module ? read_field(source, slot.module.get(), lane)
                            : read_field(source, &slot.values);
}

} // namespace board
