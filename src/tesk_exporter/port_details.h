/* SPDX-License-Identifier: Apache-2.0 */
/* port_details - the details of the ports that the board publishes. No record is stored: a record
   has 20 kB and has usually changed between two scrapes. Main thread only. */
#pragma once

#include "tesk_client/tesk_details.h"
#include "tesk_exporter/facts.h"

#include <cstdint>
#include <map>
#include <memory>
#include <optional>

namespace exporter
{

class port_details
{
  public:
    /* The port's present record; if there is none, null, with the reason in result(). Only as many
       lanes and VDM rows are filled as the record says. */
    std::unique_ptr<const dolm_ric_details_record> read(uint32_t port_no);
    /* The result of the last call. */
    tesk_details_result result() const
    {
        return result_;
    }

    /* The total cost of reading, in ns, by port number. */
    using costs = std::map<uint32_t, int64_t>;
    /* The share of the time that readings of all ports took between two calls at least ten seconds
       apart; nothing before the second call. A port counts only if it existed at both calls. */
    std::optional<double> share_of_time(const costs &totals, steady_time now);

  private:
    bool open();

    struct closes {
        void operator()(tesk_details *details) const
        {
            tesk_details_close(details);
        }
    };
    std::unique_ptr<tesk_details, closes> details_;
    tesk_details_result result_ = TESK_DETAILS_NO_FILE;
    costs costs_before_;
    steady_time costs_at_{};
    std::optional<double> share_;
};

} // namespace exporter
