/* SPDX-License-Identifier: Apache-2.0 */
/* port_details - the details of the ports that the board publishes. No record is kept: one has 20
   kB, and has mostly changed between two scrapes. Main thread only. */
#pragma once

#include "tesk_client/tesk_details.h"

#include <cstdint>
#include <memory>

namespace exporter
{

class port_details
{
  public:
    /* The port's record as it is now; null with the reason in result() where there is none. Of its
       lanes and rows of VDM only those that it counts have been written. */
    std::unique_ptr<const dolm_ric_details_record> read(uint32_t port_no);
    /* Of the last call. */
    tesk_details_result result() const
    {
        return result_;
    }

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
};

} // namespace exporter
