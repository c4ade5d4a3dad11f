/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: includes() counts the receivers of a run of sends and leaves out the first ones,
   which are woken singly; end() sets by the length of the run how many those are in the next one.
   */
#include "platform/mbx/mbx_fan_out.h"

static constexpr uint32_t left_out_later = 3;
static constexpr uint32_t long_fan_out = 32;

bool fan_out::includes(uint32_t &met)
{
    if (met == number_)
        end();
    met = number_;
    return ++count_ > left_out_;
}

/* A run of two predicts nothing. */
void fan_out::end()
{
    if (count_ > 2)
        left_out_ = count_ > long_fan_out ? left_out_later : left_out_at_first;
    number_++;
    count_ = 0;
}
