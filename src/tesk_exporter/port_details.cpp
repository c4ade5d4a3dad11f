/* SPDX-License-Identifier: Apache-2.0 */
/* Whether a record has changed costs a read of its first bytes; the record itself has 20 kB and
   more. */
#include "tesk_exporter/port_details.h"

namespace exporter
{

bool port_details::open()
{
    if (details_)
        return true;
    tesk_details *opened = nullptr;
    result_ = tesk_details_open(nullptr, &opened);
    details_.reset(opened);
    return opened != nullptr;
}

const dolm_ric_details_record *port_details::find(uint32_t port_no)
{
    if (!open())
        return nullptr;
    auto &known = records_[port_no];
    if (known && !tesk_details_is_newer(details_.get(), known.get())) {
        result_ = TESK_DETAILS_OK;
        return known.get();
    }
    if (!known)
        known = std::make_unique<dolm_ric_details_record>();
    result_ = tesk_details_read(details_.get(), port_no, known.get());
    if (result_ == TESK_DETAILS_OK)
        return known.get();
    records_.erase(port_no);
    return nullptr;
}

} // namespace exporter
