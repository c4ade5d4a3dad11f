/* SPDX-License-Identifier: Apache-2.0 */
/* mbx_area - the memory that the two sides of a connection share, and the bells by which they wake
   each other. No state. Any thread.

   The accepting side makes the memory and the bells; the connecting side checks the descriptors
   that it is passed before it uses them.

   A bell is an eventfd in semaphore mode with the highest possible count. A side rings the bell by
   reading the eventfd: the read takes one off the count, which cannot run out, and wakes the
   threads that wait until the eventfd is writable. A write in place of the read could block: both
   sides share the open file, so the peer could clear O_NONBLOCK or raise the count. A peer could
   also pass another kind of file, on which a read blocks: so the connecting side reads with
   RWF_NOWAIT, which never waits. */
#pragma once

#include "platform/mbx/mbx_account.h"
#include "platform/mbx/mbx_fd.h"
#include "platform/mbx/mbx_ring.h"

#include <cstddef>
#include <memory>

constexpr uint32_t ring_bytes = 256 * 1024; /* a power of two, more than twice the largest signal */
constexpr size_t page_bytes = 4096;

/* The first page of the memory: the positions in both rings, and the first bytes of each ring, its
   home. A connection whose rings keep running empty, and whose signals take up to half of a home,
   uses no other page. */
constexpr uint32_t home_bytes = page_bytes / 2 - sizeof(ring_words<process_atomics>);
struct shared_page {
    ring_words<process_atomics> words[2];
    unsigned char home[2][home_bytes];
};
static_assert(sizeof(shared_page) == page_bytes);

/* Behind the first page comes the rest of each ring on pages of its own, so that the pages of one
   can be released without the other's. */
constexpr size_t rest_span = (ring_bytes - home_bytes + page_bytes - 1) / page_bytes * page_bytes;
constexpr size_t area_bytes = page_bytes + 2 * rest_span;

/* One ring of an area, as it is mapped here. */
struct mapped_ring {
    ring_words<process_atomics> *words = nullptr;
    unsigned char *home = nullptr;
    unsigned char *rest = nullptr;

    /* The address of a place in the ring. The bytes from there up to the end of the home, or of the
       rest, are contiguous. */
    unsigned char *at(uint32_t place) const
    {
        return place < home_bytes ? home + place : rest + (place - home_bytes);
    }
};

/* A memory file for an area, sealed against a change of its size. Empty, with errno, on failure.
   The first failure is reported on standard error, unless descriptors or memory have run out. */
owned_fd make_area_memory();

/* Whether a memory file can be made. To be called before make_area_memory(), in which a limit for
   the size of files would end the process by a signal. False, with errno; the limit is reported on
   standard error. */
bool can_make_memory();

/* Whether a descriptor that a peer has passed is what make_area_memory() makes: checks kind, size
   and seals. The close of such a file waits for no other process. */
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
    /* Sets the area's entry in the accounts; null for none. The area holds the entry as long as it
       exists. On the accepting side (`is_ours`) the kernel has charged the pages to this process:
       so the destructor releases all of them, even while another process maps them. */
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
    /* Whether the connecting side says that it has taken all that was sent to it. */
    bool is_read() const
    {
        return page_->words[1].head == page_->words[1].tail;
    }
    /* Releases the pages of the ring to the connecting side: signals in them are lost. */
    void give_back_sent();
    /* Keeps the destructor from releasing the pages, so that the peer can go on reading. */
    void leave_to_peer()
    {
        is_given_back_ = false;
    }
    /* For a forked child, where the memory is not mapped and the entry is the parent's: the
       destructor leaves both alone. */
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

/* Whether a descriptor that a peer has passed can be watched and read without harm. It must be an
   anonymous file of the kernel, as an eventfd is, which no other process can delay. An epoll is
   refused, because it may contain a file that another process delays. `socket` is any socket. */
bool may_be_bell(int fd, int socket);

/* False when the kernel cannot read an eventfd with RWF_NOWAIT (before Linux 5.8): the caller then
   wakes the other side over the control connection. `is_own`: this process has made the bell, so a
   plain read, which costs a fifth less, can't block. Keeps errno. */
bool ring_bell(int bell, bool is_own = false);
