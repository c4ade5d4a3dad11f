/* SPDX-License-Identifier: Apache-2.0 */
/* event_readers - the connections that read /events. Main thread only.

   A stream without further events is suspended. An event resumes it, and so does the comment that
   detects a dead reader. While a connection is suspended the HTTP library doesn't notice its end,
   so end_gone() does. */
#pragma once

#include "tesk_exporter/connections.h"
#include "tesk_exporter/event_stream.h"
#include "tesk_exporter/response.h"

#include <list>
#include <microhttpd.h>

namespace exporter
{

class event_readers
{
  public:
    /* The answer that makes the connection a reader; empty without memory. The arguments must
       outlive the connection. */
    response add(MHD_Connection *http, connection &from, event_stream events);

    /* Resumes all streams, which then write what is due. */
    void resume_all();
    /* Ends the streams whose readers have closed their side of the connection. */
    void end_gone();
    /* Ends the streams whose readers have closed their side, and sends a comment to the others: if
       it isn't acknowledged, the reader's machine has disappeared. */
    void look();
    /* Ends all streams. */
    void end_all();

    size_t size() const
    {
        return readers_.size();
    }

  private:
    struct reader; /* owned by its response */

    static ssize_t read(void *reader_of, uint64_t position, char *buffer, size_t size);
    static void forget(void *reader_of);
    static void resume(reader &its);

    std::list<reader *> readers_;
};

} // namespace exporter
