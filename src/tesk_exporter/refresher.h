/* SPDX-License-Identifier: Apache-2.0 */
/* refresher - makes the server grade a port again: it connects a session, subscribes to the port's
   status, takes the first indication, and closes the session. Closing ends the subscription, even
   if an answer is late or missing. The sessions belong to a thread of their own, since a thread can
   have only one. */
#pragma once

#include "tesk_exporter/facts.h"
#include "tesk_exporter/worker.h"
#include "util/event.h"

#include <atomic>

namespace exporter
{

class refresher
{
  public:
    /* Starts at once. `facts` must outlive the refresher. */
    explicit refresher(fact_queue &facts);
    ~refresher();
    refresher(const refresher &) = delete;
    refresher &operator=(const refresher &) = delete;

    /* Requests the grades of a port, one port at a time: a grades_fact follows in any case. */
    void request(uint32_t port_no);
    /* See collector::stop(). */
    void stop()
    {
        thread_.stop();
    }

  private:
    void run();
    grades_fact refresh(uint32_t port_no);

    fact_queue &facts_;
    const util::event wake_;
    std::atomic<uint32_t> wanted_port_{0};
    tesk_client_session *session_ = nullptr;
    grades_fact result_{};
    worker thread_; /* last, so destroyed first: it uses the other members */
};

} // namespace exporter
