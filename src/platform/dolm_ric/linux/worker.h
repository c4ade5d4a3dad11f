/* SPDX-License-Identifier: Apache-2.0 */
/* worker - a thread that blocks all signals, with an eventfd and a timer that wake it and an
   eventfd that ends it. */
#pragma once

#include "util/descriptor.h"
#include "util/event.h"

#include <atomic>
#include <functional>
#include <thread>

namespace linux_board
{

class worker
{
  public:
    /* Throws a std::system_error. */
    worker();
    ~worker();
    worker(const worker &) = delete;
    worker &operator=(const worker &) = delete;

    /* Starts `run` on a thread with that name (at most 15 characters). `run` must return soon after
       is_stopping() has become true. Throws a std::system_error. */
    void start(const char *name, std::function<void()> run);
    /* Asks the thread to end and joins it. Harmless if the thread was not started. */
    void stop();

    bool is_stopping() const
    {
        return stopping_;
    }
    /* Readable once stop() was called. */
    int stop_fd() const
    {
        return stop_.fd();
    }
    /* Makes wake_fd() readable. Any thread. */
    void wake();
    int wake_fd() const
    {
        return wake_.fd();
    }
    /* Makes later_fd() readable in 20 ms, so that less urgent work doesn't delay the threads that
       handle the same event. Any thread. */
    void wake_later();
    int later_fd() const
    {
        return later_.get();
    }
    /* Clears the wake-ups of both kinds. Returns whether wake_later() made one. Called on the
       worker's thread. */
    bool clear_wake();

  private:
    const util::event wake_, stop_;
    const util::descriptor later_;
    std::atomic<bool> stopping_{false};
    std::atomic<bool> is_later_due_{false}; /* true if the system has refused the timer */
    std::thread thread_;
};

} // namespace linux_board
