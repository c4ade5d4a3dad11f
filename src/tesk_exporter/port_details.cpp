/* SPDX-License-Identifier: Apache-2.0 */
/* The record isn't cleared before it is read: most of its pages stay untouched and need no
   memory. */
#include "tesk_exporter/port_details.h"

#include <algorithm>

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

/* A port's total cost starts again from 0 with its board. */
std::optional<double> port_details::share_of_time(const costs &totals, steady_time now)
{
    constexpr std::chrono::seconds shortest{10};
    const std::chrono::duration<double, std::nano> passed = now - costs_at_;
    if (!costs_before_.empty() && passed < shortest)
        return share_;
    double spent = 0;
    for (const auto &[port, total] : totals)
        if (const auto before = costs_before_.find(port); before != costs_before_.end())
            spent += static_cast<double>(std::max<int64_t>(total - before->second, 0));
    share_.reset();
    if (!costs_before_.empty())
        share_ = spent / passed.count();
    costs_before_ = totals;
    costs_at_ = now;
    return share_;
}

} // namespace exporter
