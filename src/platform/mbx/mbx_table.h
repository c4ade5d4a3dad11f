/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_table - the connections of a mailbox by their ids. Guarded by the mailbox's lock.

   A send to one of a thousand receivers finds everything of its connection cold, so the way there
   is one look at a table of pointers. The place is the id's low bits: since we give the ids, we
   give none whose place is taken, and nothing ever collides. */
#pragma once

#include "platform/mbx/mbx_block.h"
#include "platform/mbx/mbx_socket.h"

#include <cstdint>
#include <memory>
#include <vector>

/* A connection to another mailbox. It has descriptors while it lives. A dead one stays while
   signals that were read from it wait for the owner. What each signal needs comes first, in one
   line of the cache. */
struct alignas(64) connection {
    uint32_t id = 0; /* what the other mailbox is called here; never used twice */
    owned_fd control;
    owned_fd tx;
    owned_fd rx;
    block_queue out;     /* what the kernel did not take */
    block_queue ahead;   /* what was read and not yet received */
    uint64_t served = 0; /* when the owner took a signal last */
    uint32_t batch = 1;  /* how many signals to read at once */
    uint32_t next = 0;   /* the connection that was sent to after this one */

    uint32_t calm = 0;    /* receptions until the next try to read more than one */
    bool watched = false; /* the helper waits until tx takes more */
    uint64_t look = 0;    /* which look at the sources gave it a turn last */
    block_queue monitors;
    size_t out_bytes = 0;
    owned_fd life; /* a pidfd of the process at the other end, where there can be one */
    pid_t process = 0;
    mailbox_token peer{};

    bool alive() const
    {
        return static_cast<bool>(control);
    }
};

/* Set in the ids of our own mailboxes only. */
constexpr uint32_t mailbox_id_bit = 0x80000000u;

/* Counts up, so that an id comes back after two thousand million connections at the earliest. The
   lowest numbers are left to other sources of signals. */
uint32_t next_connection_id();

class connection_table
{
  public:
    size_t size() const
    {
        return size_;
    }
    bool empty() const
    {
        return size_ == 0;
    }
    /* The connection that is called so, or null. */
    connection *find(uint32_t id) const
    {
        connection *c = places_[place(id)].get();
        return c && c->id == id ? c : nullptr;
    }
    /* Soon the connection will be looked for. */
    void expect(uint32_t id) const
    {
        __builtin_prefetch(places_[place(id)].get());
    }
    /* Makes one, with an id of its own. */
    connection &add();
    void remove(uint32_t id);
    void clear();
    /* Calls the function with each; it may remove the one that it is called with. */
    template <typename function>
    void for_each(function &&call)
    {
        for (std::unique_ptr<connection> &c : places_)
            if (c)
                call(*c);
    }

  private:
    size_t place(uint32_t id) const
    {
        return id & (places_.size() - 1);
    }
    void grow();

    size_t size_ = 0;
    std::vector<std::unique_ptr<connection>> places_{
        4}; /* a power of two of them, half in use at most */
};
