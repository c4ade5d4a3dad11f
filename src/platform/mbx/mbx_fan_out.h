/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_fan_out - finds the fan-outs of one sender among its other traffic. With the lock of the
   sender's mailbox.

   In a fan-out the sender wakes many different receivers and receives nothing in between. The first
   few wake-ups don't count, because they may be all; after a long fan-out another one is expected,
   and fewer of them are left out: twelve each time cost the sender of 100 a twentieth to a tenth
   more. */
#pragma once

#include <cstdint>

class fan_out
{
  public:
    /* More than ten, for which the waker costs more than it saves. */
    static constexpr uint32_t left_out_at_first = 12;

    /* To be called for each receiver that has to be woken; `met` is the receiver's own mark, 0 at
       first. Returns whether it belongs to a fan-out. */
    bool includes(uint32_t &met)
    {
        if (met == number_)
            end();
        met = number_;
        return ++count_ > left_out_;
    }
    /* Ends the run of wake-ups: called at any other event, as the next signal may be an answer to
       it. A run of two predicts nothing. */
    void end()
    {
        if (count_ > 2)
            left_out_ = count_ > long_fan_out ? left_out_later : left_out_at_first;
        number_++;
        count_ = 0;
    }

  private:
    static constexpr uint32_t left_out_later = 3;
    static constexpr uint32_t long_fan_out = 32;

    uint32_t number_ = 1; /* of this run of wake-ups */
    uint32_t count_ = 0;  /* wake-ups in it */
    uint32_t left_out_ = left_out_at_first;
};
