/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_source - one sender of an inbox, and the queue of the sources that have a signal. Guarded as
   the inbox. */
#pragma once

#include "platform/mbx/mbx_fd.h"
#include "platform/mbx/mbx_record.h"

#include <memory>

struct source {
    uint32_t id = 0; /* the sender of its signals */
    bool is_in_line = false;
    bool is_ended = false;
    bool is_watched = false; /* its bell is in the epoll */
    source *next = nullptr;  /* in the line */
    record_receiver ring;
    block_queue notices; /* for the time after its last signal */
    std::shared_ptr<mapped_area> area;
    owned_fd bell;
};

/* The sources that have something, in the order of their turns. */
class turn_line
{
  public:
    bool is_empty() const
    {
        return first_ == nullptr;
    }
    size_t size() const
    {
        return size_;
    }
    void push_back(source &s);
    source &pop_front();
    /* Puts all of another line, which is empty then, in front. */
    void prepend(turn_line &other);
    void push_front(source &s);

  private:
    source *first_ = nullptr;
    source *last_ = nullptr;
    size_t size_ = 0;
};
