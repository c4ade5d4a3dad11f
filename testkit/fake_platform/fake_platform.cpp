/* SPDX-License-Identifier: Apache-2.0 */
/* With SCRIPTED_LOG=1 in the environment, as under the real executable, the log goes to stdout one
   write a line, and SCRIPTED_FAIL names the one call that fails. */
#include "testkit/fake_platform/fake_platform.h"

#include "platform/mbx/mbx_local.h"
#include "platform/tesktmo/tesktmo.h"
#include "platform/zel/zel.h"

#include <arpa/inet.h>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <poll.h>
#include <unistd.h>
#include <utility>

extern "C" {
__thread uint32_t procInfo[8];
}

namespace fake_platform
{

std::map<uint32_t, port> ports;
std::map<std::string, int32_t> failing;
std::vector<sent_signal> sent;
int live_blocks;
std::vector<std::pair<uint32_t, uint32_t>> ticks;
void (*observer)(const char *operation, uint32_t port_no, int32_t code);

struct block {
    uint32_t size;
    uint32_t sender;
    mbx_signal signal;
};

struct wait_result {
    int32_t code;
    dolm_ric_event event;
};

static std::mutex script_mutex;
static std::condition_variable event_raised;
static std::condition_variable thread_idle;
static bool idle;
static std::deque<wait_result> waiting;
static int freed;
static std::vector<std::string> lines;
static uint32_t mask;
static uint32_t monitors;
static int mailbox[2] = {-1, -1};

static bool to_stdout()
{
    static const bool wanted = getenv("SCRIPTED_LOG") != nullptr;
    return wanted;
}

static void log_line(const std::string &line)
{
    if (observer != nullptr)
        return;
    if (to_stdout()) {
        const std::string text = line + "\n";
        [[maybe_unused]] ssize_t written = write(STDOUT_FILENO, text.data(), text.size());
        return;
    }
    std::lock_guard<std::mutex> lock(script_mutex);
    lines.push_back(line);
}

/* A signal handler may be who traces, so that a line for the process's output is made without the
   heap. */
static void log_trace(uint32_t group, const char *text)
{
    char line[2200];
    const int size = snprintf(line, sizeof(line), "[%u] %s", group, text);
    if (!to_stdout()) {
        log_line(line);
        return;
    }
    line[size] = '\n';
    [[maybe_unused]] ssize_t written = write(STDOUT_FILENO, line, static_cast<size_t>(size) + 1);
}

static int32_t result_of(const char *call)
{
    if (to_stdout()) {
        const char *fail = getenv("SCRIPTED_FAIL");
        return fail != nullptr && strcmp(fail, call) == 0 ? DOLM_RICERR_INTERNAL : 0;
    }
    const auto found = failing.find(call);
    return found == failing.end() ? 0 : found->second;
}

static int32_t logged(const char *call)
{
    log_line(call);
    return result_of(call);
}

static block *block_of(const mbx_signal *signal)
{
    auto *bytes = reinterpret_cast<char *>(const_cast<mbx_signal *>(signal));
    return reinterpret_cast<block *>(bytes - offsetof(block, signal));
}

static block *make_block(size_t size, uint32_t number, uint32_t sender)
{
    auto *made = reinterpret_cast<block *>(new char[offsetof(block, signal) + size]());
    made->size = static_cast<uint32_t>(size);
    made->sender = sender;
    made->signal.number = number;
    return made;
}

/* The smallest signals come from a signal handler, too: theirs aren't made, and stay. */
static block smallest[16];
static std::atomic<unsigned> smallest_taken;

static block *take_smallest(uint32_t number, uint32_t sender)
{
    block *taken = &smallest[smallest_taken++ % std::size(smallest)];
    *taken = {sizeof(mbx_signal), sender, {number}};
    return taken;
}

static void give_back(block *made)
{
    live_blocks--;
    if (made < std::begin(smallest) || made >= std::end(smallest))
        delete[] reinterpret_cast<char *>(made);
}

static void put(block *made)
{
    // NOLINTNEXTLINE(bugprone-sizeof-expression): it is the address that goes through the pipe
    [[maybe_unused]] ssize_t written = write(mailbox[1], &made, sizeof(made));
}

uint32_t sent_signal::host_word(size_t offset) const
{
    uint32_t value;
    memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

uint32_t sent_signal::word(size_t offset) const
{
    return ntohl(host_word(offset));
}

std::string sent_signal::text(size_t offset) const
{
    return reinterpret_cast<const char *>(bytes.data() + offset);
}

void reset(std::initializer_list<uint32_t> groups)
{
    ports.clear();
    failing.clear();
    sent.clear();
    ticks.clear();
    waiting.clear();
    lines.clear();
    live_blocks = 0;
    monitors = 0;
    freed = 0;
    idle = false;
    mask = 0;
    for (uint32_t group : groups)
        mask |= 1u << group;
    procInfo[3] = mask;
}

std::vector<std::string> take_log()
{
    std::lock_guard<std::mutex> lock(script_mutex);
    return std::exchange(lines, {});
}

void deliver_bytes(uint32_t sender, uint32_t number, const void *payload, size_t size)
{
    block *made = make_block(sizeof(mbx_signal) + size, number, sender);
    if (size > 0)
        memcpy(&made->signal + 1, payload, size);
    live_blocks++;
    put(made);
}

void deliver_host(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words)
{
    deliver_bytes(sender, number, words.data(), words.size() * sizeof(words[0]));
}

void deliver(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words)
{
    std::vector<uint32_t> turned;
    turned.reserve(words.size());
    for (uint32_t word : words)
        turned.push_back(htonl(word));
    deliver_host(sender, number, turned);
}

bool mailbox_has_signal()
{
    pollfd fd = {mailbox[0], POLLIN, 0};
    return poll(&fd, 1, 0) == 1;
}

static void raise_result(const wait_result &result)
{
    {
        std::lock_guard<std::mutex> lock(script_mutex);
        waiting.push_back(result);
    }
    event_raised.notify_one();
}

void await_event_thread()
{
    std::unique_lock<std::mutex> lock(script_mutex);
    thread_idle.wait(lock, [] { return idle && waiting.empty(); });
}

void raise_event(const dolm_ric_event &event)
{
    raise_result({DOLM_RICERR_OK, event});
}

void fail_wait(int32_t code)
{
    raise_result({code, {}});
}

int freed_events()
{
    std::lock_guard<std::mutex> lock(script_mutex);
    return freed;
}

/* What an operation on a port answers: its code, and from the port what `fill` takes. */
template <typename fill_type>
static int32_t answer(const char *name, uint32_t id, fill_type fill)
{
    if (const int32_t code = result_of(name); code != 0)
        return code;
    const auto found = ports.find(id & 0xffff);
    if (found == ports.end())
        return DOLM_RICERR_NODEV;
    fill(found->second);
    return DOLM_RICERR_OK;
}

template <typename fill_type>
static int32_t operation(const char *name, uint32_t id, fill_type fill)
{
    char line[64];
    snprintf(line, sizeof(line), "%s 0x%x", name, id);
    log_line(line);
    const int32_t code = answer(name, id, fill);
    if (observer != nullptr)
        observer(name, id & 0xffff, code);
    return code;
}

} // namespace fake_platform

using namespace fake_platform;

extern "C" {

int mbx_init(int, int, int, int, int)
{
    if (logged("mbx_init") != 0)
        return -1;
    return mailbox[0] == -1 ? pipe(mailbox) : 0;
}

void mbx_exit()
{
    log_line("mbx_exit");
}

uint32_t mbx_create_mailbox(const char *name, uint32_t)
{
    log_line(std::string("mbx_create_mailbox ") + name);
    return result_of("mbx_create_mailbox") != 0 ? MBX_NO_MAILBOX : own_mailbox;
}

void mbx_delete_mailbox(uint32_t)
{
    log_line("mbx_delete_mailbox");
}

int mbx_get_fd()
{
    return logged("mbx_get_fd") != 0 ? -1 : mailbox[0];
}

mbx_signal *mbx_alloc(size_t size, uint32_t number)
{
    live_blocks++;
    block *made = size == sizeof(mbx_signal) ? take_smallest(number, own_mailbox)
                                             : make_block(size, number, own_mailbox);
    /* The server counts on nothing about the other bytes. */
    memset(&made->signal + 1, 0xa5, size - sizeof(mbx_signal));
    return &made->signal;
}

void mbx_send(mbx_signal **signal, uint32_t receiver, uint32_t)
{
    block *made = block_of(*signal);
    *signal = nullptr;
    if (receiver == own_mailbox) {
        put(made);
        return;
    }
    char line[64];
    snprintf(line, sizeof(line), "send 0x%x to 0x%x", made->signal.number, receiver);
    log_line(line);
    const auto *bytes = reinterpret_cast<const uint8_t *>(&made->signal);
    sent.push_back({made->signal.number, receiver, {bytes, bytes + made->size}});
    give_back(made);
}

mbx_signal *mbx_receive(const uint32_t *, int, uint32_t)
{
    block *made = nullptr;
    // NOLINTNEXTLINE(bugprone-sizeof-expression): as in put
    [[maybe_unused]] ssize_t got = read(mailbox[0], &made, sizeof(made));
    return &made->signal;
}

void mbx_free(mbx_signal **signal)
{
    give_back(block_of(*signal));
    *signal = nullptr;
}

uint32_t mbx_sender(const mbx_signal *signal)
{
    return block_of(signal)->sender;
}

uint32_t mbx_size(const mbx_signal *signal)
{
    return block_of(signal)->size;
}

uint32_t mbx_monitor(uint32_t watched, mbx_signal **)
{
    char line[64];
    snprintf(line, sizeof(line), "monitor 0x%x", watched);
    log_line(line);
    return ++monitors;
}

void mbx_unmonitor(uint32_t reference)
{
    log_line("unmonitor " + std::to_string(reference));
}

int zel_init()
{
    const int32_t code = logged("zel_init");
    procInfo[3] = to_stdout() ? (1u << 1 | 1u << 4) : mask;
    return code;
}

int zel_register_thread_name(const char *name)
{
    /* ThreadSanitizer makes a thread's record of signals when it is first needed, and loses a
       signal that comes while it is being made. */
    raise(0);
    log_line(std::string("thread ") + name);
    procInfo[3] = to_stdout() ? (1u << 1 | 1u << 4) : mask;
    return 0;
}

const char *formatStr(const char *format, ...)
{
    static __thread char text[2048];
    va_list arguments;
    va_start(arguments, format);
    // NOLINTNEXTLINE(clang-analyzer-valist.Uninitialized): va_start stands right above
    vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    return text;
}

const char *short_fname(const char *path)
{
    const char *slash = strrchr(path, '/');
    return slash == nullptr ? path : slash + 1;
}

void lttngZelTrace(uint32_t group, const char *, uint32_t, const char *text, const void *)
{
    log_trace(group, text);
}

void lttngZelRecSigTrace(const char *, uint32_t, const mbx_signal *, const char *text, const void *)
{
    log_trace(17, text);
}

void lttngZelSendSigTrace(const char *, uint32_t, uint32_t, uint32_t, const char *text,
                          const void *)
{
    log_trace(18, text);
}

bool tmo_service_init()
{
    return logged("tmo_service_init") == 0;
}

void tmo_service_stop()
{
    log_line("tmo_service_stop");
}

void tmo_request_sig(uint32_t interval, mbx_signal **signal)
{
    const auto *words = reinterpret_cast<const uint32_t *>(*signal);
    ticks.emplace_back(words[1], words[2]);
    char line[64];
    snprintf(line, sizeof(line), "tick in %u for bucket %u port %u", interval, words[1], words[2]);
    log_line(line);
    mbx_free(signal);
}

int32_t dolm_ric_init(uintptr_t *handle, uint32_t)
{
    *handle = 0x1234;
    return logged("dolm_ric_init");
}

int32_t dolm_ric_shutdown(uintptr_t, uint32_t)
{
    log_line("dolm_ric_shutdown");
    dolm_ric_event stop = {};
    raise_event(stop);
    return DOLM_RICERR_OK;
}

int32_t dolm_ric_waitevent(uintptr_t, dolm_ric_event **event)
{
    std::unique_lock<std::mutex> lock(script_mutex);
    idle = waiting.empty();
    thread_idle.notify_all();
    event_raised.wait(lock, [] { return !waiting.empty(); });
    const wait_result result = waiting.front();
    waiting.pop_front();
    if (result.code == DOLM_RICERR_OK)
        *event = new dolm_ric_event(result.event);
    return result.code;
}

int32_t dolm_ric_freeevent(uintptr_t, dolm_ric_event **event)
{
    std::lock_guard<std::mutex> lock(script_mutex);
    delete *event;
    *event = nullptr;
    freed++;
    return DOLM_RICERR_OK;
}

int32_t dolm_ric_ri_getportstatus(uintptr_t, uint32_t id, dolm_ric_port_status *out)
{
    return operation("getportstatus", id, [out](const port &p) { out->status = p.status; });
}

int32_t dolm_ric_ri_subsport(uintptr_t, uint32_t id, dolm_ric_port_status *out)
{
    return operation("subsport", id, [out](const port &p) { out->status = p.status; });
}

int32_t dolm_ric_ri_unsubsport(uintptr_t, uint32_t id)
{
    return operation("unsubsport", id, [](const port &) {});
}

static void fill_link(dolm_ric_link_status *out, const port &p)
{
    out->state = p.link_state;
    out->speed = p.speed;
}

int32_t dolm_ric_ri_subslink(uintptr_t, uint32_t id, dolm_ric_link_status *out)
{
    return operation("subslink", id, [out](const port &p) { fill_link(out, p); });
}

int32_t dolm_ric_ri_unsubslink(uintptr_t, uint32_t id)
{
    return operation("unsubslink", id, [](const port &) {});
}

int32_t dolm_ric_ri_getlinkstatus(uintptr_t, uint32_t id, dolm_ric_link_status *out)
{
    return operation("getlinkstatus", id, [out](const port &p) { fill_link(out, p); });
}

int32_t dolm_ric_ri_getmoduleinfo(uintptr_t, uint32_t id, dolm_ric_module_info *out)
{
    return operation("getmoduleinfo", id, [out](const port &p) { *out = p.module; });
}

int32_t dolm_ric_ri_getmodstatus(uintptr_t, uint32_t id, dolm_ric_module_status *out)
{
    return operation("getmodstatus", id, [out](const port &p) { *out = p.module_status; });
}

int32_t dolm_ric_ri_getmodulediag(uintptr_t, uint32_t id, dolm_ric_module_diag *out)
{
    return operation("getmodulediag", id, [out](const port &p) { *out = p.diag; });
}
}
