/* SPDX-License-Identifier: Apache-2.0 */
/* The HTTP library calls read() while there is room to write; when read() has no text, it suspends
   the connection. At the connection's end the library calls forget(). */
#include "tesk_exporter/event_readers.h"

#include <memory>
#include <new>
#include <poll.h>
#include <utility>

namespace exporter
{

static constexpr size_t block = 4096;

struct event_readers::reader {
    event_readers &all;
    MHD_Connection *http;
    connection *from;
    event_stream events;
    bool is_gone = false;
};

response event_readers::add(MHD_Connection *http, connection &from, event_stream events)
{
    auto made = std::make_unique<reader>(reader{*this, http, &from, std::move(events)});
    readers_.push_back(made.get());
    MHD_Response *answer =
        MHD_create_response_from_callback(MHD_SIZE_UNKNOWN, block, &read, made.get(), &forget);
    if (answer == nullptr) {
        readers_.pop_back();
        return {};
    }
    static_cast<void>(made.release()); /* the answer owns the reader now */
    return finished(answer, "text/event-stream");
}

ssize_t event_readers::read(void *reader_of, uint64_t, char *buffer, size_t size)
try {
    auto *its = static_cast<reader *>(reader_of);
    if (its->is_gone)
        return MHD_CONTENT_READER_END_WITH_ERROR;
    const size_t read = its->events.read(buffer, size);
    if (read > 0)
        return static_cast<ssize_t>(read);
    its->from->is_waiting = true;
    MHD_suspend_connection(its->http);
    return 0;
} catch (const std::bad_alloc &) {
    return MHD_CONTENT_READER_END_WITH_ERROR;
}

void event_readers::forget(void *reader_of)
{
    const std::unique_ptr<reader> its(static_cast<reader *>(reader_of));
    its->all.readers_.remove(its.get());
}

void event_readers::resume(reader &its)
{
    if (!std::exchange(its.from->is_waiting, false))
        return;
    its.from->since = steady_clock::now();
    MHD_resume_connection(its.http);
}

void event_readers::resume_all()
{
    for (reader *its : readers_)
        resume(*its);
}

void event_readers::end_gone()
{
    for (reader *its : readers_) {
        pollfd polled{its->from->fd, POLLRDHUP, 0};
        if (poll(&polled, 1, 0) > 0) {
            its->is_gone = true;
            resume(*its);
        }
    }
}

void event_readers::look()
{
    end_gone();
    for (reader *its : readers_)
        its->events.request_comment();
    resume_all();
}

void event_readers::end_all()
{
    for (reader *its : readers_)
        its->is_gone = true;
    resume_all();
}

} // namespace exporter
