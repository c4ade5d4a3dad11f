/* SPDX-License-Identifier: Apache-2.0 */
/* event_stream - the text of one reader's server-sent events. Main thread only.

   A reader that connects for the first time gets the present state of all ports as "initial", then
   each event as it occurs. A reader that reconnects with the id of its last event gets the later
   events; if they are no longer stored, or the id is of another process, it gets an object with the
   event "missed" and the present state. A reader that is too slow for the ring is treated in the
   same way, so that slow readers need no memory. */
#pragma once

#include "tesk_exporter/model.h"

#include <optional>
#include <string>

namespace exporter
{

class event_stream
{
  public:
    /* `last_id` is the id of the last event that the reader received; empty the first time. */
    event_stream(const event_ring &events, const model &board, std::string_view last_id);

    /* Writes the text that is due, up to `size` bytes, and returns its length; 0 if there is none
       until the next event. */
    size_t read(char *buffer, size_t size);
    /* Makes the next read write at least a comment, which shows whether the reader still exists. */
    void request_comment()
    {
        needs_comment_ = true;
    }

  private:
    std::string next_text();
    std::string next_of_state();
    std::string event_text(const event &happened) const;
    template <typename record_type>
    std::string state_text(uint64_t time_us, const record_type &record) const;
    std::string missed() const;
    void begin_state();

    const event_ring &events_;
    const model &model_;
    uint64_t next_ = 0;               /* the number of the next event to write */
    std::optional<uint32_t> at_port_; /* the next port of the state to write; nothing: no state */
    std::string text_;                /* partly written text; the first written_ bytes are done */
    size_t written_ = 0;
    bool needs_comment_ = false;
};

} // namespace exporter
