/* SPDX-License-Identifier: Apache-2.0 */
/* worker - a thread that waits for descriptors and is stopped through one. A library may block it
   in a system call that no descriptor ends, such as a write to the journal: SIGUSR1 interrupts that
   call. */
#pragma once

#include "util/event.h"

#include <chrono>
#include <functional>
#include <future>
#include <thread>

namespace exporter
{

/* Runs `body` on a thread of its own from start() on, until the body returns; the destructor
   requests the stop and joins the thread. The body must return soon after must_stop() has become
   true. */
class worker
{
  public:
    worker() = default; /* throws std::system_error */
    ~worker();
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;

    void start(std::function<void()> body);
    /* Any thread. Requests the stop and joins the thread. A second call is harmless. If the thread
       is in a system call, the call fails with EINTR. */
    void stop();

    /* The functions below are called by the body. */
    bool must_stop() const;
    /* Waits until `fd` is readable (-1: no descriptor), until the time is over, or for the stop.
       Returns true if the descriptor is readable. */
    bool wait(int fd, std::chrono::milliseconds at_most) const;

  private:
    const util::event stop_;
    std::thread thread_;
    std::future<void> end_; /* the end of the body */
};

} // namespace exporter
