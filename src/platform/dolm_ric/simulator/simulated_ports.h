/* SPDX-License-Identifier: Apache-2.0 */
/* simulated_ports - ports that consist of values in memory. All methods are called with the core's
   lock held.

   Modules with the same values are shared by their ports until one of them is changed, so that an
   untouched port costs a few words. */
#pragma once

#include "platform/dolm_ric/fall_recorder.h"
#include "platform/dolm_ric/port_details.h"
#include "platform/dolm_ric/port_source.h"
#include "platform/dolm_ric/simulator/vocabulary.h"

#include <memory>
#include <string>
#include <vector>

namespace board
{

class simulated_ports : public port_source
{
  public:
    /* `count` empty cages, numbered from 0, started, with links down. Later changes are reported to
       `events`. */
    simulated_ports(uint32_t count, port_events &events);

    uint32_t count() const;
    bool has_port(uint32_t port) const override;
    int32_t read(uint32_t port, dolm_ric_port_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_link_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_info &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_diag &out) const override;

    /* Throws a board_error if the list contains a port that the board doesn't have. */
    void require(const port_list &list) const;

    /* These functions change all ports of the list; after a board_error they have changed none.
       With `is_forced` the new values are reported even if they equal the old ones. */
    void set(const port_list &list, const std::vector<setting> &settings, bool is_forced);
    /* Inserts a new module of that kind. With null inserts the port's previous module or, if it
       never had one, an lc. */
    void insert(const port_list &list, const module_kind *kind,
                const std::vector<setting> &settings);
    void remove(const port_list &list);

    /* The raw value of a field, as text. */
    std::string value_of(uint32_t port, const field &source, uint32_t lane = 0) const;
    /* The number of lanes with values of their own. */
    uint32_t lane_count(uint32_t port) const;

  protected:
    /* Only the first ports have details; those of a very large board would take much memory. */
    static constexpr uint32_t ports_with_details = 1024;

    /* Starts publishing the details of the ports in a file at `path`. */
    void start_details(const std::string &path); /* and the falls of their links */
    /* Takes no lock. */
    void stop_details() noexcept;

  private:
    using module_ptr = std::shared_ptr<const module_values>;
    struct port_slot {
        port_values values;
        module_ptr module;
    };
    /* The reports to make even if nothing has changed. */
    struct forced_reports {
        bool port = false;
        bool link = false;
    };

    class writer;

    bool is_inserted(uint32_t port) const;
    template <typename edit>
    void change(const port_list &list, forced_reports forced, edit &&apply);
    template <typename record>
    void report(uint32_t port, void (port_events::*changed)(const record &));
    void describe(uint32_t port);

    std::vector<port_slot> slots_;
    port_events &events_;
    const module_ptr no_module_;
    fall_recorder falls_;
    port_details details_;
    bool has_details_ = false;
};

} // namespace board
