/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_connection - the sending half of a connection to another mailbox, and the resources of both
   halves. The receiving half is a source of the inbox, with the same id. Guarded by the mailbox's
   lock. */
#pragma once

#include "platform/mbx/mbx_block.h"
#include "platform/mbx/mbx_record.h"
#include "platform/mbx/mbx_socket.h"
#include "platform/mbx/mbx_waker.h"

#include <array>
#include <list>
#include <memory>
#include <new>
#include <span>
#include <vector>

/* The signals for which the ring had no room, in their order. Each is in memory of its own. */
class backlog
{
  public:
    using bytes = std::span<const unsigned char>;

    bool is_empty() const
    {
        return signals_.empty();
    }
    /* Copies the signal. False when memory is out. */
    bool push(bytes signal)
    try {
        signals_.emplace_back(signal.begin(), signal.end());
        memory_ += memory_of(signal);
        return true;
    } catch (const std::bad_alloc &) {
        return false;
    }
    /* The oldest signal. Not to be called on an empty backlog. */
    bytes front() const
    {
        return signals_.front();
    }
    void pop()
    {
        memory_ -= memory_of(signals_.front());
        signals_.pop_front();
    }
    void clear()
    {
        signals_.clear();
        memory_ = 0;
    }
    /* Bytes of memory that it holds. */
    size_t memory() const
    {
        return memory_;
    }

  private:
    /* The signal, and its two allocations, of a node and of the bytes, each rounded up to 16 by the
       C library. */
    static size_t memory_of(bytes signal)
    {
        return signal.size() + 80;
    }

    std::list<std::vector<unsigned char>> signals_;
    size_t memory_ = 0;
};

/* Finds the fan-outs in the traffic of one sender: runs in which the sender wakes many different
   receivers and receives nothing in between. The first wake-ups of a run don't count as a fan-out,
   because the run may be short. A run after a long fan-out is expected to be long, too, so fewer
   wake-ups are left out: with twelve left out each time, a send to 100 receivers takes the sender
   1.05 to 1.1 times as long. */
class fan_out
{
  public:
    /* For up to ten wake-ups the waker costs more than it saves. */
    static constexpr uint32_t left_out_at_first = 12;

    /* To be called for each receiver that has to be woken. The caller keeps a `met` for each
       receiver, 0 at first. Returns whether this wake-up belongs to a fan-out. */
    bool includes(uint32_t &met)
    {
        if (met == number_)
            end();
        met = number_;
        return ++count_ > left_out_;
    }
    /* Ends the run of wake-ups. To be called at each reception, and when a bell can't be rung:
       the next signal may be an answer. A run of one or two wake-ups says nothing about the next
       run. */
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

struct source; /* mbx_inbox.h */

/* The parts of a connection, once both sides have greeted. */
struct connection_parts {
    owned_fd control; /* when it ends, the peer is dead */
    std::shared_ptr<mapped_area> area;
    int side = 0;          /* the number of the ring that is received from */
    owned_fd near_bell;    /* wakes this mailbox; belongs to the inbox later */
    owned_fd far_bell;     /* wakes the peer */
    mailbox_token token{}; /* of the peer */
    peer_identity peer;
    bool was_located = false; /* this process has located the peer */
};

struct connection : connection_parts {
    const uint32_t id; /* this process's id of the other mailbox */
    uint32_t met = 0;  /* for fan_out::includes() */
    /* Addresses in the connection that was sent to after this one, for a prefetch. That connection
       may have ended: nothing else may use them. */
    std::array<const void *, 5> expected{};
    source *incoming = nullptr; /* its receiving half, while the mailbox lives */
    record_sender ring;
    backlog waiting;
    time_point marked{};  /* when ring.mark() was called last */
    owned_fd life;        /* a pidfd of the peer's process, where there can be one */
    owned_block notice;   /* the monitor's notice; null without a monitor */
    uint32_t monitor = 0; /* the reference of the latest monitor */

    connection(uint32_t its_id, connection_parts &&parts)
        : connection_parts(std::move(parts)), id(its_id), ring(area->ring(1 - side))
    {
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    /* Whether this process is the accepting side, which has made the memory and the bells. */
    bool is_accepted() const
    {
        return side == 0;
    }
    /* Bytes of memory that are held for the receiver. */
    size_t held() const
    {
        return ring.touched() + waiting.memory();
    }
};

enum class ended_by {
    us,  /* the peer can still take its unread signals */
    peer /* the peer is gone or has broken the protocol: unread signals to it are released */
};
/* Releases the resources of the connection, except the signals that the inbox has not taken yet. */
void let_go(connection &c, ended_by who);

/* Writes a signal into the ring, or keeps it in the backlog. False when more than
   held_for_one_at_most bytes would be held for this receiver, or memory is out: the caller must end
   the connection. `run` is the sender's. */
bool deliver(connection &c, const block *b, fan_out &run);

/* Moves signals from the backlog to the ring, about one ring full at most. True: more can be moved
   at once; the helper releases the lock before its next call. False: the backlog is empty, or the
   receiver will report room. */
bool flush(connection &c);

/* Releases the pages of the ring whose signals have all been read. Returns whether pages of the
   rest remain in use. */
bool trim(connection &c);

/* What the connection holds, for shed() (mbx_peers.h) to compare. */
holding weigh(const connection &c, time_point now);
