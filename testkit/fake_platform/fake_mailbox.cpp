/* SPDX-License-Identifier: Apache-2.0 */
#include "testkit/fake_platform/fake_mailbox.h"

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <iterator>
#include <new>
#include <poll.h>
#include <unistd.h>
#include <utility>

namespace fake_mailbox
{

int live_blocks;
const mbx_signal *allocated;
const mbx_signal *received;

struct block {
    uint32_t size;
    uint32_t sender;
    mbx_signal signal;
};

static int queue[2] = {-1, -1};
static uint32_t monitors;

/* Neither malloc nor plain new, since tests make those fail. */
static constexpr std::align_val_t alignment{alignof(std::max_align_t)};

static block *block_of(const mbx_signal *signal)
{
    auto *bytes = reinterpret_cast<char *>(const_cast<mbx_signal *>(signal));
    return reinterpret_cast<block *>(bytes - offsetof(block, signal));
}

static block *make_block(size_t size, uint32_t number, uint32_t sender)
{
    const size_t whole = offsetof(block, signal) + size;
    auto *made = static_cast<block *>(memset(operator new(whole, alignment), 0, whole));
    made->size = static_cast<uint32_t>(size);
    made->sender = sender;
    made->signal.number = number;
    return made;
}

/* A signal handler also allocates the smallest signals, so these are static. */
static block smallest[16];
static std::atomic<unsigned> smallest_taken;

static block *take_smallest(uint32_t number)
{
    block *taken = &smallest[smallest_taken++ % std::size(smallest)];
    *taken = {sizeof(mbx_signal), own_mailbox, {number}};
    return taken;
}

static void release(block *made)
{
    live_blocks--;
    if (made < std::begin(smallest) || made >= std::end(smallest))
        operator delete(made, alignment);
}

static void put(block *made)
{
    // NOLINTNEXTLINE(bugprone-sizeof-expression): it is the address that goes through the pipe
    [[maybe_unused]] ssize_t written = write(queue[1], &made, sizeof(made));
}

static block *take()
{
    block *made = nullptr;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): as in put
    [[maybe_unused]] ssize_t got = read(queue[0], &made, sizeof(made));
    return made;
}

static bool may_call(const char *name, const char *text)
{
    return script.call == nullptr || script.call(name, text);
}

static void expect(bool holds, const char *violated)
{
    if (script.expect != nullptr)
        script.expect(holds, violated);
}

void deliver(uint32_t sender, uint32_t number, const void *payload, size_t size)
{
    block *made = make_block(sizeof(mbx_signal) + size, number, sender);
    if (size > 0)
        memcpy(&made->signal + 1, payload, size);
    live_blocks++;
    put(made);
}

bool has_signal()
{
    pollfd fd = {queue[0], POLLIN, 0};
    return poll(&fd, 1, 0) == 1;
}

bool is_open()
{
    return queue[0] != -1;
}

void reset()
{
    allocated = received = nullptr;
    live_blocks = 0;
    monitors = 0;
}

} // namespace fake_mailbox

using namespace fake_mailbox;

extern "C" {

int mbx_init(int version, int a, int b, int c, int d)
{
    expect(version == 5 && a == 0 && b == 0 && c == 0 && d == 0, "mbx_init");
    return may_call("mbx_init", "mbx_init") ? 0 : -1;
}

void mbx_exit()
{
    may_call("mbx_exit", "mbx_exit");
}

uint32_t mbx_create_mailbox(const char *name, uint32_t flags)
{
    char text[64];
    snprintf(text, sizeof(text), "mbx_create_mailbox %s", name == nullptr ? "" : name);
    expect(flags == 0, "mbx_create_mailbox");
    if (!may_call("mbx_create_mailbox", text) || (!is_open() && pipe2(queue, O_CLOEXEC) != 0))
        return MBX_NO_MAILBOX;
    return own_mailbox;
}

void mbx_delete_mailbox(uint32_t mailbox)
{
    expect(mailbox == own_mailbox || mailbox == MBX_NO_MAILBOX, "mbx_delete_mailbox");
    may_call("mbx_delete_mailbox", "mbx_delete_mailbox");
    if (!is_open())
        return;
    while (has_signal())
        release(take());
    close(std::exchange(queue[0], -1));
    close(std::exchange(queue[1], -1));
}

int mbx_get_fd()
{
    return may_call("mbx_get_fd", "mbx_get_fd") ? queue[0] : -1;
}

mbx_signal *mbx_alloc(size_t size, uint32_t number)
{
    live_blocks++;
    block *made =
        size == sizeof(mbx_signal) ? take_smallest(number) : make_block(size, number, own_mailbox);
    /* The caller must not rely on the other bytes. */
    memset(&made->signal + 1, 0xa5, size - sizeof(mbx_signal));
    allocated = &made->signal;
    return &made->signal;
}

void mbx_send(mbx_signal **signal, uint32_t receiver, uint32_t sender)
{
    block *made = block_of(*signal);
    *signal = nullptr;
    expect(sender == MBX_OWN_MAILBOX, "the sender of mbx_send");
    if (receiver == own_mailbox) {
        put(made);
        return;
    }
    script.send(&made->signal, receiver);
    release(made);
}

mbx_signal *mbx_receive(const uint32_t *filter, int timeout_ms, uint32_t sender)
{
    expect(filter == nullptr && timeout_ms == script.receive_timeout_ms && sender == MBX_ANY_SENDER,
           "mbx_receive");
    if (timeout_ms == 0 && !has_signal())
        return nullptr;
    block *made = take();
    received = &made->signal;
    return &made->signal;
}

void mbx_free(mbx_signal **signal)
{
    release(block_of(std::exchange(*signal, nullptr)));
}

uint32_t mbx_sender(const mbx_signal *signal)
{
    return block_of(signal)->sender;
}

uint32_t mbx_size(const mbx_signal *signal)
{
    return block_of(signal)->size;
}

uint32_t mbx_locate(const char *)
{
    return script.locate == nullptr ? MBX_NO_MAILBOX : script.locate();
}

uint32_t mbx_monitor(uint32_t watched, mbx_signal **signal)
{
    char text[64];
    snprintf(text, sizeof(text), "monitor 0x%x", watched);
    expect(signal == nullptr, "the signal of mbx_monitor");
    may_call("mbx_monitor", text);
    return ++monitors;
}

void mbx_unmonitor(uint32_t reference)
{
    char text[64];
    snprintf(text, sizeof(text), "unmonitor %u", reference);
    may_call("mbx_unmonitor", text);
}
}
