/* SPDX-License-Identifier: Apache-2.0 */
/* event_readers - the connections that read /events. Main thread only.

   A stream without further events is suspended; an event, or the comment that detects a dead
   reader, resumes it. While a connection is suspended the HTTP library doesn't notice its end, so
   end_gone() does. */
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
    /* The answer that makes a reader of a connection; empty without memory. The arguments must
       outlive the connection. */
    response add(MHD_Connection *http, connection &from, event_stream events);

    /* Lets all streams write what is due. */
    void resume_all();
    /* Ends the streams whose readers have closed their side. */
    void end_gone();
    /* Ends the streams whose readers have closed their side, and sends a comment to the others: one
       that isn't acknowledged shows that a reader's machine has gone. */
    void look();
    /* Ends them all. */
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
