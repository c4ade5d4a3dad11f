/* SPDX-License-Identifier: Apache-2.0 */
/* A record isn't cleared before it is read: of its pages most have nothing in them and need no
   memory then. */
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

std::unique_ptr<const dolm_ric_details_record> port_details::read(uint32_t port_no)
{
    if (!open())
        return nullptr;
    auto record = std::make_unique_for_overwrite<dolm_ric_details_record>();
    result_ = tesk_details_read(details_.get(), port_no, record.get());
    if (result_ != TESK_DETAILS_OK)
        return nullptr;
    return record;
}

} // namespace exporter
