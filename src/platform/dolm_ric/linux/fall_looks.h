/* SPDX-License-Identifier: Apache-2.0 */
/* fall_looks - what the kernel and a driver say of a link that fell, beside the messages of
   link_follower. One thread, which waits for the kernel's lock. */
#pragma once

#include "causes/facts.h"
#include "platform/dolm_ric/linux/netlink.h"

#include <cstdint>
#include <optional>

namespace linux_board
{

class fall_looks
{
  public:
    /* Asks the driver of that interface for its extended state; what it doesn't tell stays as it
       is. */
    void look(int32_t index, causes::facts &seen);

  private:
    std::optional<netlink::connection> ethtool_; /* made by the first look */
    uint16_t family_ = 0;
};

/* The facts in an answer to ETHTOOL_MSG_LINKSTATE_GET. Pure. */
void take_link_state(netlink::byte_view attributes, causes::facts &seen);

} // namespace linux_board
