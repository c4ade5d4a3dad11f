/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_inbox - the signals that a mailbox receives, and the order of their senders. Guarded by the
   mailbox's lock, except for push().

   Signals come from sources: one for each connection, whose signals come out of a ring, and one for
   what is sent within the process. The descriptor is an epoll over the bells of the rings and a
   semaphore that counts the latter. It is readable exactly while receive() would return at once.

   A source that ends stays until its last signal, and the notices behind it, are taken. */
#pragma once

#include "platform/mbx/mbx_fd.h"
#include "platform/mbx/mbx_record.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <sys/epoll.h>
#include <unordered_map>

/* The calls of an inbox to its mailbox, made with the lock held. */
struct inbox_owner {
    void *self;
    /* The sender with that id waits for room in its ring, and there is some. */
    void (*report_room)(void *self, uint32_t id);
    /* The sender has written an impossible record, or rung without a signal: its connection must
       end now. */
    void (*end_connection)(void *self, uint32_t id);
    /* There are more pages in use that trim() would release. */
    void (*want_trim)(void *self);
};

enum class source_state {
    fresh,   /* its bell is not in the epoll yet */
    watched, /* it is */
    ended    /* stays for what is to be taken */
};

/* One sender. */
struct source {
    uint32_t id = 0; /* the sender of its signals */
    source_state state = source_state::fresh;
    bool is_in_line = false;
    source *next = nullptr; /* in the line */
    record_receiver ring;
    fifo<block> notices; /* for the time after its last signal */
    std::shared_ptr<mapped_area> area;
    owned_fd bell;
};

class inbox
{
  public:
    /* False, with errno, on failure. */
    bool open(const inbox_owner &owner);
    /* `is_child`: in a forked child the epoll and the rings are the parent's. */
    void close(bool is_child = false);
    /* For the owner to wait at. */
    int fd()
    {
        is_polled_ = true;
        return poll_.get();
    }

    /* Takes the block over. Any thread, and signal handlers, while the inbox is open. */
    void push(block *b);

    bool has(uint32_t id) const
    {
        return sources_.contains(id);
    }
    /* A source whose signals come out of one ring of the area; it stays where it is until end().
       Once its ring rests and its bell has rung, watch() must be called, and at once if it doesn't
       rest. Before, the bell must not be in the epoll, because there it would count as rung, and
       wake the owner. Null, with errno, when memory is out. */
    source *add(uint32_t id, const std::shared_ptr<mapped_area> &area, int side, owned_fd bell);
    /* False, with errno, on failure. */
    bool watch(source &s);
    /* The same, and lets the ring rest, for the owner's thread, which does not wait at the
       descriptor meanwhile. */
    bool watch_quietly(source &s);
    /* Acts as a ring of the bell does, for a sender that can't ring. */
    void wake(source &s);
    /* Nothing more comes from that source but the notice, which may be null. */
    void end(source &s, block *notice);
    /* One more notice from a source that has ended. False when it is gone. */
    bool add_notice(uint32_t id, block *notice);
    /* Unmaps the pages of rings beyond their first ones, and looks which of them are gone. Returns
       whether some are left. */
    bool trim();

    /* As mbx_receive. `hold` is the lock, which is released for the wait. Null, too, when the inbox
       is closed meanwhile. */
    block *receive(std::unique_lock<std::mutex> &hold, const uint32_t *filter, int timeout_ms,
                   uint32_t sender);

  private:
    bool add_event(int fd, uint32_t events, uint32_t id);
    void raise(bool wanted);
    void show();
    void take_events(const epoll_event *events, int count);
    void look();
    bool may_skip_look();
    source *find(uint32_t id);
    void remove(source &s);
    block *take_local();
    block *pop_signal(source &s, bool &asks);
    void keep_unread(source &s);
    block *take_living(source &s);
    block *take_ended(source &s);
    block *take_from(source &s);
    block *next(bool waits);
    block *take_matching(const uint32_t *filter, uint32_t sender, bool waits);
    bool wait(std::unique_lock<std::mutex> &hold, int timeout_ms);

    inbox_owner owner_{};
    owned_fd poll_;
    owned_fd local_event_;   /* a semaphore: one count for each block on pushed_ or in local_ */
    bool is_raised_ = false; /* it is watched for being writable, too */
    uint32_t openings_ = 0;

    std::atomic<block *> pushed_{nullptr}; /* the latest first */
    fifo<block> local_;                    /* taken off pushed_, the oldest first */
    source local_source_;
    std::unordered_map<uint32_t, source> sources_; /* by id */
    fifo<source> line_;                  /* those that have a signal, in the order of their turns */
    size_t left_ = 0;                    /* bytes that senders that are gone have left */
    size_t round_ = 0;                   /* turns until the next look for others */
    uint32_t unlooked_ = 0;              /* signals of the only source until the next look */
    std::atomic<bool> is_polled_{false}; /* the owner waits at the descriptor before it receives */
    uint32_t departed_ = 0; /* a source that may have woken the owner without a signal, and has been
                               removed */
    fifo<block> set_aside_; /* passed over by a filter */
};
