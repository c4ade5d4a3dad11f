/* SPDX-License-Identifier: Apache-2.0 */
/* With SCRIPTED_LOG=1 in the environment, as under the real executable, each line of the log is one
   write to stdout, and SCRIPTED_FAIL names the one call that fails. */
#include "testkit/fake_platform/fake_platform.h"

#include "platform/tesktmo/tesktmo.h"
#include "platform/zel/zel.h"
#include "testkit/fake_platform/fake_mailbox.h"
#include "testkit/fake_platform/fake_platform_internal.h"

#include <arpa/inet.h>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <unistd.h>
#include <utility>

extern "C" {
__thread uint32_t procInfo[8];
}

namespace fake_platform
{

std::map<std::string, int32_t> failing;
std::vector<sent_signal> sent;
std::vector<tick> ticks;
void (*observer)(const char *operation, uint32_t port_no, int32_t code);

static std::mutex script_mutex;
static std::vector<std::string> lines;
static std::vector<trace_record> trace_records;
static std::vector<std::string> violations;
static const mbx_signal *traced_block; /* the last signal whose sending was traced */
static uint32_t mask;

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

/* Traces may be made in a signal handler, so a line for stdout is formatted without the heap. */
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

void note(const std::string &line)
{
    log_line(line);
}

void expect(bool holds, const char *violated)
{
    if (holds)
        return;
    if (to_stdout())
        log_line(std::string("violation: ") + violated);
    std::lock_guard<std::mutex> lock(script_mutex);
    violations.emplace_back(violated);
}

int32_t result_of(const char *call)
{
    if (to_stdout()) {
        const char *fail = getenv("SCRIPTED_FAIL");
        return fail != nullptr && strcmp(fail, call) == 0 ? DOLM_RICERR_INTERNAL : 0;
    }
    const auto found = failing.find(call);
    return found == failing.end() ? 0 : found->second;
}

int32_t logged(const char *call)
{
    log_line(call);
    return result_of(call);
}

static std::vector<uint8_t> bytes_of(const mbx_signal *signal)
{
    const auto *bytes = reinterpret_cast<const uint8_t *>(signal);
    return {bytes, bytes + mbx_size(signal)};
}

/* Every trace must be guarded by the mask and have a source position and procInfo. */
static void check_trace(uint32_t group, const char *file, uint32_t line, const void *proc_info)
{
    expect((procInfo[3] & 1u << group) != 0, "a trace of a group that is off");
    expect(strchr(file, '/') == nullptr && strstr(file, ".cpp") != nullptr && line > 0,
           "a trace without its source position");
    expect(proc_info == procInfo, "a trace without procInfo");
}

/* True for the sink of tests in this process, which keeps traces whole. */
static bool keeps_traces()
{
    return observer == nullptr && !to_stdout();
}

static void keep_trace(trace_record record)
{
    std::lock_guard<std::mutex> lock(script_mutex);
    trace_records.push_back(std::move(record));
}

/* The trace must have named number and receiver of the sent signal, and shown it in host order. */
static void check_traced_signal(const sent_signal &signal)
{
    std::lock_guard<std::mutex> lock(script_mutex);
    const sent_signal &traced = trace_records.back().signal;
    if (trace_records.back().group != 18 || traced.number != signal.number ||
        traced.receiver != signal.receiver || traced.host_word(4) != signal.word(4) ||
        traced.host_word(8) != signal.word(8))
        violations.emplace_back("the trace of a sent signal");
}

static bool logged_call(const char *name, const char *text)
{
    log_line(text);
    return result_of(name) == 0;
}

static void log_sent(const mbx_signal *signal, uint32_t receiver)
{
    char line[64];
    snprintf(line, sizeof(line), "send 0x%x to 0x%x", signal->number, receiver);
    log_line(line);
    sent.push_back({signal->number, receiver, bytes_of(signal)});
    if (signal == std::exchange(traced_block, nullptr) && keeps_traces())
        check_traced_signal(sent.back());
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
    reset_board();
    failing.clear();
    sent.clear();
    ticks.clear();
    lines.clear();
    trace_records.clear();
    violations.clear();
    traced_block = nullptr;
    fake_mailbox::reset();
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

std::vector<trace_record> take_traces()
{
    std::lock_guard<std::mutex> lock(script_mutex);
    return std::exchange(trace_records, {});
}

std::vector<std::string> take_violations()
{
    std::lock_guard<std::mutex> lock(script_mutex);
    return std::exchange(violations, {});
}

void deliver_host(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words)
{
    fake_mailbox::deliver(sender, number, words.data(), words.size() * sizeof(words[0]));
}

void deliver(uint32_t sender, uint32_t number, const std::vector<uint32_t> &words)
{
    std::vector<uint32_t> swapped;
    swapped.reserve(words.size());
    for (uint32_t word : words)
        swapped.push_back(htonl(word));
    deliver_host(sender, number, swapped);
}

} // namespace fake_platform

using namespace fake_platform;

const fake_mailbox::hooks fake_mailbox::script = {logged_call, fake_platform::expect, log_sent,
                                                  nullptr, -1};

extern "C" {

int zel_init()
{
    const int32_t code = logged("zel_init");
    procInfo[3] = to_stdout() ? (1u << 1 | 1u << 4) : mask;
    return code;
}

int zel_register_thread_name(const char *name)
{
    /* ThreadSanitizer creates a thread's record of signals when it is first needed, and loses a
       signal that is received meanwhile. */
    raise(0);
    /* The mask is set first: the line shows a test that the thread can receive a process signal. */
    procInfo[3] = to_stdout() ? (1u << 1 | 1u << 4) : mask;
    log_line(std::string("thread ") + name);
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

void lttngZelTrace(uint32_t group, const char *file, uint32_t line, const char *text,
                   const void *proc_info)
{
    check_trace(group, file, line, proc_info);
    log_trace(group, text);
    if (keeps_traces())
        keep_trace({group, file, line, text, {}});
}

void lttngZelRecSigTrace(const char *file, uint32_t line, const mbx_signal *signal,
                         const char *text, const void *proc_info)
{
    check_trace(17, file, line, proc_info);
    log_trace(17, text);
    expect(signal != nullptr && signal == fake_mailbox::received, "a trace of another signal");
    if (keeps_traces())
        keep_trace({17, file, line, text, {signal->number, 0, bytes_of(signal)}});
}

void lttngZelSendSigTrace(const char *file, uint32_t line, uint32_t number, uint32_t receiver,
                          const char *text, const void *proc_info)
{
    check_trace(18, file, line, proc_info);
    log_trace(18, text);
    if (!keeps_traces())
        return;
    traced_block = fake_mailbox::allocated;
    keep_trace({18, file, line, text, {number, receiver, bytes_of(traced_block)}});
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
    expect(mbx_size(*signal) == 12 && words[0] == 0x1648501, "the signal of tmo_request_sig");
    ticks.push_back({words[1], words[2], interval});
    char line[64];
    snprintf(line, sizeof(line), "tick in %u for bucket %u port %u", interval, words[1], words[2]);
    log_line(line);
    mbx_free(signal);
}
}
