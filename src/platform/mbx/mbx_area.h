/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_area - the memory that the two sides of a connection share, and the bells by which they wake
   each other. No state. Any thread.

   The accepting side makes both; the connecting side checks what it is passed before it uses it.

   A bell is an eventfd in semaphore mode whose count is as high as it can be. It is rung by reading
   it: a read of a semaphore wakes those who wait until it is writable, and takes one off a count
   that cannot run out. A write could be blocked by what the other side may do to the description
   that both share (its O_NONBLOCK flag, its count). So could a read of something else that was
   passed as a bell: the connecting side reads by RWF_NOWAIT, which never waits. */
#pragma once

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_fd.h"
#include "platform/mbx/mbx_ring.h"

#include <cstddef>
#include <memory>

constexpr uint32_t ring_bytes = 256 * 1024; /* a power of two, more than twice the largest signal */
constexpr size_t page_bytes = 4096;

/* The first page of the memory: the positions in both rings, and the first bytes of each ring. A
   connection whose rings keep running empty uses no other page. */
constexpr uint32_t home_bytes = page_bytes / 2 - sizeof(ring_words<process_atomics>);
struct shared_page {
    ring_words<process_atomics> words[2];
    unsigned char home[2][home_bytes];
};
static_assert(sizeof(shared_page) == page_bytes);

/* Behind it, the rest of each ring on pages of its own, so that one can be released without the
   other. */
constexpr size_t rest_span = (ring_bytes - home_bytes + page_bytes - 1) / page_bytes * page_bytes;
constexpr size_t area_bytes = page_bytes + 2 * rest_span;

/* One direction, as it is mapped here. */
struct mapped_ring {
    ring_words<process_atomics> *words = nullptr;
    unsigned char *home = nullptr;
    unsigned char *rest = nullptr;

    /* From there on, the bytes up to the end of the home, or of the ring, lie in one piece. */
    unsigned char *at(uint32_t place) const
    {
        return place < home_bytes ? home + place : rest + (place - home_bytes);
    }
};

/* A memory file for an area: sealed against a change of its size. Empty, with errno, when the
   system refuses it; the first time it says so on standard error. */
owned_fd make_area_memory();

/* Whether it can be made at all; before the first of them, since a limit for the size of files
   would end the process by a signal. False with errno, after a line on standard error. */
bool can_make_memory();

/* Whether a descriptor that was passed is what make_area_memory makes: kind, size and seals are
   checked. The close of such a file does not wait for anybody. */
bool is_area_memory(int memory);

/* An area that is mapped here. */
class mapped_area
{
  public:
    /* Null, with errno, on failure. */
    static std::shared_ptr<mapped_area> map(int memory);

    mapped_area() = default;
    mapped_area(const mapped_area &) = delete;
    mapped_area &operator=(const mapped_area &) = delete;
    ~mapped_area();

    /* 0: the ring from which the accepting side receives; 1: that of the connecting side. */
    mapped_ring ring(int side) const
    {
        return {&page_->words[side], page_->home[side],
                rest_ + static_cast<size_t>(side) * rest_span};
    }
    /* Its place in the accounts, which it holds as long as it exists; null for none. On the
       accepting side (`is_ours`), whose first use of the pages has charged them to us, all are
       released in the end, even while another process maps them. */
    void hold(std::shared_ptr<entry> place, bool is_ours)
    {
        place_ = std::move(place);
        is_given_back_ = is_ours;
    }
    const std::shared_ptr<entry> &place() const
    {
        return place_;
    }
    void count(held_kind kind, size_t bytes) const
    {
        if (place_)
            place_->count(kind, bytes);
    }
    /* Whether the connecting side, by its word, has taken all that was sent to it. */
    bool is_read() const
    {
        return page_->words[1].head == page_->words[1].tail;
    }
    /* Signals that the accepting side has sent beyond the first page are lost. */
    void give_back_sent();
    /* The pages stay for the peer in the end. */
    void leave_to_peer()
    {
        is_given_back_ = false;
    }
    /* In a forked child, where the memory is not mapped, and the place is the parent's. */
    void forget()
    {
        page_ = nullptr;
        rest_ = nullptr;
        place_.reset();
    }

  private:
    shared_page *page_ = nullptr;
    unsigned char *rest_ = nullptr;
    bool is_given_back_ = false;
    std::shared_ptr<entry> place_;
};

/* Empty, with errno, on failure. */
owned_fd make_bell();

/* Whether a descriptor that was passed can be watched without harm: a file of the kernel's own, as
   an eventfd is, which no other process can make slow, and not an epoll, which could lead to one.
   `socket` is any socket. */
bool may_be_bell(int fd, int socket);

/* False when the kernel cannot read an eventfd with RWF_NOWAIT (before Linux 5.8): the caller then
   wakes the other side over the control connection. A bell that `is_own`, made in this process, can
   always be read: a plain read costs a fifth less. Keeps errno. */
bool ring_bell(int bell, bool is_own = false);
