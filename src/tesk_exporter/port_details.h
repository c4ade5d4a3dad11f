/* SPDX-License-Identifier: Apache-2.0 */
/* port_details - the details of the ports that the board publishes, with a copy of each record, so
   that only records that have changed are read again. Main thread only. */
#pragma once

#include "tesk_client/tesk_details.h"

#include <cstdint>
#include <map>
#include <memory>

namespace exporter
{

class port_details
{
  public:
    /* The port's record as it is now; null with the reason in result() where there is none. Valid
       until the next call for this port. */
    const dolm_ric_details_record *find(uint32_t port_no);
    /* Of the last call. */
    tesk_details_result result() const
    {
        return result_;
    }
    /* Gives back the copies of ports for which `is_there` says no. */
    template <typename question>
    void keep_only(question is_there)
    {
        std::erase_if(records_, [&](const auto &row) { return !is_there(row.first); });
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
    std::map<uint32_t, std::unique_ptr<dolm_ric_details_record>> records_;
    tesk_details_result result_ = TESK_DETAILS_NO_FILE;
};

} // namespace exporter
