/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_fan_out - finds the fan-outs of one sender among its other traffic. Guarded by the sender's
   owner.

   In a fan-out the sender wakes many different receivers and receives nothing in between. The first
   few wake-ups don't count, because they may be all; after a long fan-out another one is expected,
   and fewer of them are left out: twelve each time cost the sender of 100 some 2 % more. */
#pragma once

#include <cstdint>

/* More than ten, for which the waker costs more than it saves. */
constexpr uint32_t left_out_at_first = 12;

class fan_out
{
  public:
    /* To be called for each receiver that has to be woken; `met` is the receiver's own mark, 0 at
       first. Returns whether it belongs to a fan-out. */
    bool includes(uint32_t &met);
    /* Ends the run of wake-ups: called at any other event, as the next signal may be an answer to
       it. */
    void end();

  private:
    uint32_t number_ = 1; /* of this run of wake-ups */
    uint32_t count_ = 0;  /* wake-ups in it */
    uint32_t left_out_ = left_out_at_first;
};
