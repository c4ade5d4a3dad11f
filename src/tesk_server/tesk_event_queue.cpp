/* SPDX-License-Identifier: Apache-2.0 */
/* The mutex guards the list head and the eventfd's read and write together. The counter is
   therefore never 0 while the list isn't empty, and the blocking read returns at once.

   Events are taken newest first, and nothing reverses the order: of two queued events of a port the
   older one is handled last, and its state is stored until the port's next event. */
#include "tesk_server/tesk_event_queue.h"

#include "tesk_server/tesk_mutex.h"
#include "tesk_server/tesk_trace.h"
#include "tesk_server/tesk_types.h"

#include <atomic>
#include <cerrno>
#include <cstring>
#include <sys/eventfd.h>
#include <unistd.h>

static pthread_mutex_t queue_mutex = PTHREAD_MUTEX_INITIALIZER;
static tesk_hw_event *queue_head;
static std::atomic<uint32_t> queue_length; /* written with the mutex locked */
static int queue_fd = -1;

/* The main thread takes all events at once, and looks at the mailbox after that. */
static constexpr uint32_t long_queue = 256;

int tesk_event_queue_init()
{
    queue_fd = eventfd(0, 0);
    if (queue_fd == -1) {
        tesk_trace(TESK_TRACE_ERROR, "eventfd: %u (%s)", static_cast<unsigned>(errno),
                   strerror(errno));
        return tesk_failure;
    }
    return 0;
}

int tesk_event_queue_get_fd()
{
    return queue_fd;
}

void tesk_event_queue_put(tesk_hw_event *event)
{
    const uint64_t one = 1;

    tesk_mutex_lock(&queue_mutex);
    event->next = queue_head;
    queue_head = event;
    queue_length++;
    /* After a failed write the event is handled with the next one that wakes the main thread. */
    [[maybe_unused]] ssize_t written = write(queue_fd, &one, sizeof(one));
    tesk_mutex_unlock(&queue_mutex);
}

bool tesk_event_queue_is_long()
{
    return queue_length >= long_queue;
}

tesk_hw_event *tesk_event_queue_take_all()
{
    uint64_t count;

    tesk_mutex_lock(&queue_mutex);
    tesk_hw_event *events = queue_head;
    queue_head = nullptr;
    queue_length = 0;
    /* One read resets the counter, however many events it stands for. */
    if (read(queue_fd, &count, sizeof(count)) < 0)
        tesk_trace(TESK_TRACE_ERROR, "read: %u (%s)", static_cast<unsigned>(errno),
                   strerror(errno));
    tesk_mutex_unlock(&queue_mutex);
    return events;
}

void tesk_event_queue_shutdown()
{
    if (queue_fd != -1)
        close(queue_fd);
    queue_fd = -1;

    tesk_mutex_lock(&queue_mutex);
    while (queue_head != nullptr) {
        tesk_hw_event *event = queue_head;
        queue_head = event->next;
        free(event);
    }
    queue_length = 0;
    tesk_mutex_unlock(&queue_mutex);
}
