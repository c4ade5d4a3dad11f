/* SPDX-License-Identifier: Apache-2.0 */
/* history_requests - the HTTP requests whose answers the history's thread makes. Main thread only.

   The connection is suspended until the answer is ready or a timeout has passed. The HTTP library
   then calls the handler of the request again, which takes the answer. */
#pragma once

#include "tesk_exporter/connections.h"
#include "tesk_exporter/history_keeper.h"

#include <map>
#include <microhttpd.h>
#include <optional>

namespace exporter
{

class history_requests
{
  public:
    /* `history` must outlive this object. Without a history ask() refuses. */
    void use(history_keeper &history)
    {
        history_ = &history;
    }

    /* Suspends the connection until the answer is ready; false without a history. */
    bool ask(MHD_Connection *http, connection &from, const history_question &asked,
             steady_time now);
    /* Resumes the requests that have an answer, and those that have timed out. */
    void resume_answered(steady_time now);
    /* The answer to a request of ask(); nothing for any other request. */
    std::optional<history_answer> take(MHD_Connection *http);
    /* The request has ended. Harmless if ask() wasn't called for it. */
    void forget(MHD_Connection *http)
    {
        waiting_.erase(http);
    }

    bool empty() const
    {
        return waiting_.empty();
    }

  private:
    struct request {
        uint64_t id; /* id of the question */
        connection *from;
        steady_time deadline;
        history_answer answer; /* status 0: not answered yet */
    };

    history_keeper *history_ = nullptr;
    std::map<MHD_Connection *, request> waiting_;
};

} // namespace exporter
