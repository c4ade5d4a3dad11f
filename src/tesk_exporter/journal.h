/* SPDX-License-Identifier: Apache-2.0 */
/* journal - writes events to the journal as structured records. A write blocks while the journal's
   socket is full, so a separate thread writes; if the queue is full, a record is dropped and
   counted. The destructor interrupts a blocked write, and drops the queued records. */
#pragma once

#include "tesk_exporter/event_ring.h"
#include "tesk_exporter/worker.h"
#include "util/event.h"

#include <atomic>
#include <deque>
#include <mutex>

namespace exporter
{

/* The fields of a record, each as "NAME=value": MESSAGE, PRIORITY, and TESK_ with the name of a key
   for each key of the event's object; the state of the link is TESK_STATE, and each grade is
   TESK_GRADE_ with its name. */
std::vector<std::string> journal_fields(const event &happened);

class journal
{
  public:
    journal(); /* throws std::system_error */
    ~journal();
    journal(const journal &) = delete;
    journal &operator=(const journal &) = delete;

    /* The main thread. Queues a record of the event. */
    void write(const event &happened);
    /* The number of records that were dropped. */
    uint64_t lost() const
    {
        return lost_;
    }

  private:
    void run();
    bool write_next();

    static constexpr size_t capacity = 4096;

    const util::event wake_;
    std::mutex mutex_;
    std::deque<event> waiting_;
    std::atomic<uint64_t> lost_{0};
    worker thread_; /* last, so destroyed first: it uses the other members */
};

} // namespace exporter
