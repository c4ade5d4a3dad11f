/* SPDX-License-Identifier: Apache-2.0 */
/* simulated_ports - a port source that is nothing but memory.

   A port that nobody touched costs a few words: what its module reports is shared by all ports that
   report the same, until one of them is changed. */
#pragma once

#include "platform/dolm_ric/port_source.h"
#include "platform/dolm_ric/simulator/board_text.h"

#include <memory>
#include <vector>

namespace board
{

class simulated_ports final : public port_source
{
  public:
    /* Empty cages, started, links down. `listener` hears of all later changes. */
    simulated_ports(uint32_t count, port_events &listener);

    uint32_t ports() const override;
    int32_t read(uint32_t port, dolm_ric_port_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_link_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_info &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_diag &out) const override;

    /* Throws a board_error for a list that holds a port which the board doesn't have. */
    void require(const port_list &list) const;

    /* The changes touch all ports of the list or, with a board_error, none. With `again` the
       listener hears of the values that are set even where they stay what they were. */
    void set(const port_list &list, const std::vector<setting> &settings, bool again);
    /* Puts in a fresh module of that kind, or with null the one that was there last, else an lc. */
    void insert(const port_list &list, const module_kind *kind,
                const std::vector<setting> &settings);
    void remove(const port_list &list);

    /* The raw value of a field as text. */
    std::string value_of(uint32_t port, const field &source) const;

  private:
    using module_ptr = std::shared_ptr<const module_values>;
    struct port_slot {
        port_values values;
        module_ptr module;
    };
    struct told_anyway {
        bool port = false;
        bool link = false;
    };

    class writer;

    bool inserted(uint32_t port) const;
    template <typename edit>
    void change(const port_list &list, told_anyway anyway, edit &&apply);
    template <typename record>
    void tell(uint32_t port, void (port_events::*changed)(const record &));

    std::vector<port_slot> slots;
    port_events &listener;
    const module_ptr no_module;
};

} // namespace board
