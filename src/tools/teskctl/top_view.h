/* SPDX-License-Identifier: Apache-2.0 */
/* top_view - what `teskctl top` knows of its ports, and the lines that show it. No terminal, no
   session: given records in, lines out. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <vector>

using steady_time = std::chrono::steady_clock::time_point;

struct port_view {
    std::optional<tesk_client_port_status> status;
    steady_time status_time{};
    std::optional<tesk_client_sfp_info> sfp;
    std::optional<tesk_client_pm> pm;
    bool reading = false; /* a read of the measured values is on its way */
    uint64_t changes = 0;
    std::string last_event; /* with its time */
};

class top_view
{
  public:
    explicit top_view(const std::vector<uint32_t> &ports);

    void heard(const tesk_client_port_status &status);
    void heard(const tesk_client_sfp_info &info);
    port_view &port(uint32_t port_no)
    {
        return ports_[port_no];
    }

    /* The page: at most `height` lines, none wider than `width`. `state` is what to say of the
       connection, empty if all is well. */
    std::vector<std::string> lines(size_t width, size_t height, bool coloured,
                                   const std::string &state) const;

  private:
    void note_event(port_view &view, const std::string &what);

    std::map<uint32_t, port_view> ports_;
};
