/* SPDX-License-Identifier: Apache-2.0 */
/* A line of sources, linked through themselves, so that a place in it needs no memory. */
#include "platform/mbx/mbx_source.h"

void turn_line::push_back(source &s)
{
    s.is_in_line = true;
    s.next = nullptr;
    (last_ ? last_->next : first_) = &s;
    last_ = &s;
    size_++;
}

source &turn_line::pop_front()
{
    source &s = *first_;
    first_ = s.next;
    if (!first_)
        last_ = nullptr;
    s.is_in_line = false;
    size_--;
    return s;
}

void turn_line::prepend(turn_line &other)
{
    if (other.is_empty())
        return;
    other.last_->next = first_;
    if (!last_)
        last_ = other.last_;
    first_ = other.first_;
    size_ += other.size_;
    other = {};
}

void turn_line::push_front(source &s)
{
    turn_line front;
    front.push_back(s);
    prepend(front);
}
