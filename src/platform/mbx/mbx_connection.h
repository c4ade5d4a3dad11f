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

/* The signals that a ring had no room for, in order, each in memory of its own. */
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
    /* The oldest one. Not to be called on an empty backlog. */
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
    /* With the two allocations of a node and its bytes, each rounded up to 16 by the C library. */
    static size_t memory_of(bytes signal)
    {
        return signal.size() + 80;
    }

    std::list<std::vector<unsigned char>> signals_;
    size_t memory_ = 0;
};

/* Finds the fan-outs of one sender among its other traffic: the sender wakes many different
   receivers and receives nothing in between. The first few wake-ups don't count, because they may
   be all; after a long fan-out another one is expected, and fewer of them are left out: twelve each
   time cost the sender of 100 a twentieth to a tenth more. */
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

struct source; /* mbx_inbox.h */

/* The parts of a connection, once both sides have greeted. */
struct connection_parts {
    owned_fd control; /* its end is the peer's death */
    std::shared_ptr<mapped_area> area;
    int side = 0;          /* which ring of the area is received from */
    owned_fd near_bell;    /* wakes the mailbox; the inbox takes it */
    owned_fd far_bell;     /* wakes the receiver */
    mailbox_token token{}; /* the peer's */
    peer_identity peer;
    bool was_located = false; /* we looked for it */
};

struct connection : connection_parts {
    const uint32_t id; /* this process's id of the other mailbox; never used twice */
    uint32_t met = 0;  /* its mark for fan_out */
    /* Memory of the connection that was sent to after this one, which may have ended: addresses to
       be fetched ahead, and nothing else. */
    std::array<const void *, 5> expected{};
    source *incoming = nullptr; /* its receiving half, while the mailbox lives */
    record_sender ring;
    backlog waiting;
    time_point marked{};  /* of the ring's mark, while something waits */
    owned_fd life;        /* a pidfd of the peer's process, where there can be one */
    owned_block notice;   /* the monitor */
    uint32_t monitor = 0; /* the reference of the last one */

    connection(uint32_t its_id, connection_parts &&parts)
        : connection_parts(std::move(parts)), id(its_id), ring(area->ring(1 - side))
    {
    }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;

    /* Whether its memory and its bells were made here, by the accepting side. */
    bool is_accepted() const
    {
        return side == 0;
    }
    /* Bytes of memory that it holds for the receiver. */
    size_t held() const
    {
        return ring.touched() + waiting.memory();
    }
};

enum class ended_by {
    us,  /* what the peer has not read stays for it */
    peer /* it is gone, or has broken the protocol: what is unread goes back at once */
};
/* Lets all go but what the inbox has still to take. */
void let_go(connection &c, ended_by who);

/* Hands a signal over, or keeps it. False when that would hold more than held_for_one_at_most for
   this receiver, or memory is out: the connection must end. `run`: the sender's. */
bool deliver(connection &c, const block *b, fan_out &run);

/* Hands on what waits, about one ring full at most. True when it is to be called again, after
   others had the lock; false when nothing waits any more, or the receiver will report room. */
bool flush(connection &c);

/* Gives pages of the ring back that are not in use. Returns whether some are left. */
bool trim(connection &c);

/* For shed(). */
holding weigh(const connection &c, time_point now);
