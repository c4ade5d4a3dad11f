/* SPDX-License-Identifier: Apache-2.0 */
/* Settings, the group mask, formatted texts and the trace calls.

   Settings, read once by the first zel_init; a set-uid program has none:
     ZEL_SINK        lttng, stderr, stdout or file:PATH; without it nothing is traced
     ZEL_GROUPS      the groups to trace, as in 1,4,12, or all; without it 1,4
     ZEL_FILE_SIZE   the bytes after which a file rolls over; without it 4194304
     ZEL_RATE        lines per second of text, 0 for no limit; see zel_text.h for the default

   The mask. Callers test procInfo[3] of their thread before they call this library, so it is set
   beforehand: zel_init sets it for its own thread, zel_register_thread_name for any other. A thread
   that never registers is not traced.

   Formatted texts. A signal handler may call formatStr at any instruction of a formatStr of the
   same thread, or before that one's text has been traced. So each thread has several texts, and a
   text is in use until a trace call has written it. formatStr takes the least recently used text,
   if possible a free one. If a handler takes the chosen text before it is marked, that text is free
   again when the interrupted call continues, since the handler has ended by then. All this relies
   only on the order within one thread.

   The code behind formatStr and the trace calls neither locks nor allocates, and keeps errno.
   vsnprintf is not guaranteed to be safe in a handler, but in glibc it is for integers, characters,
   pointers and strings; floating point and positional arguments may allocate. */
#include "platform/zel/zel.h"

#include "platform/zel/zel_record.h"
#include "platform/zel/zel_text.h"
#include "util/thread.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <optional>
#include <string_view>
#include <sys/prctl.h>
#include <tuple>
#include <unistd.h>

static constexpr uint32_t errors_and_notable = 1u << 1 | 1u << 4;
static constexpr uint32_t received_group = 17, sent_group = 18;
static constexpr uint64_t default_file_cap = 4 << 20;

namespace
{

struct formatted_text {
    bool is_taken;
    uint64_t last_use;
    char text[2048];
};

} // namespace

/* One text for ordinary code, one for each of the two handlers that can interrupt it and each
   other, and a spare one for a caller that formats without tracing. */
static constexpr int texts_per_thread = 4;

#define ZEL_THREAD_LOCAL static __thread __attribute__((tls_model("initial-exec")))

ZEL_THREAD_LOCAL formatted_text texts[texts_per_thread];
ZEL_THREAD_LOCAL uint64_t text_uses;
ZEL_THREAD_LOCAL char thread_name[32];

__thread uint32_t procInfo[8];

/* The mask is written before the sink, and read by threads that have loaded the sink. */
static std::atomic<const zel_sink *> sink;
static uint32_t group_mask;

/* Writes one line to standard error about a setting that can't be used. */
static void complain(const char *setting, const char *value, const char *reason)
{
    text_line line;
    line.escape("libzel: ");
    line.escape(setting);
    line.escape("=");
    line.escape(value);
    line.escape(": ");
    line.escape(reason);
    line.write_to({STDERR_FILENO, zel_output::method::polled}, true);
}

static std::optional<uint64_t> parse_number(std::string_view text)
{
    uint64_t number = 0;
    const auto [end, error] = std::from_chars(text.begin(), text.end(), number);
    if (error != std::errc() || end != text.end())
        return std::nullopt;
    return number;
}

static std::optional<uint32_t> parse_groups(std::string_view list)
{
    if (list == "all")
        return ~0u;
    uint32_t mask = 0;
    while (true) {
        const size_t comma = list.find(',');
        const auto group = parse_number(list.substr(0, comma));
        if (!group || *group > 31)
            return std::nullopt;
        mask |= 1u << *group;
        if (comma == list.npos)
            return mask;
        list.remove_prefix(comma + 1);
    }
}

static uint32_t wanted_groups()
{
    const char *list = secure_getenv("ZEL_GROUPS");
    if (list == nullptr)
        return errors_and_notable;
    const auto mask = parse_groups(list);
    if (!mask)
        complain("ZEL_GROUPS", list, "give groups 0 to 31, as in 1,4,12, or all; 1,4 is used");
    return mask.value_or(errors_and_notable);
}

static uint64_t wanted_file_cap()
{
    const char *text = secure_getenv("ZEL_FILE_SIZE");
    if (text == nullptr)
        return default_file_cap;
    const auto cap = parse_number(text);
    if (cap && *cap >= smallest_file_cap)
        return *cap;
    complain("ZEL_FILE_SIZE", text, "give bytes, at least 4096; 4194304 is used");
    return default_file_cap;
}

/* Null if the default is to be used. */
static const uint32_t *wanted_rate()
{
    static uint32_t rate;
    const char *text = secure_getenv("ZEL_RATE");
    if (text == nullptr)
        return nullptr;
    const auto number = parse_number(text);
    if (!number || *number > INT32_MAX) {
        complain("ZEL_RATE", text, "give lines per second, 0 for no limit; the default is used");
        return nullptr;
    }
    rate = static_cast<uint32_t>(*number);
    return &rate;
}

/* Loads the provider from the directory of this library, so that both are from the same build.
   LTTng's threads inherit the signal mask, and must not run the program's handlers. The provider
   stays loaded, as its threads can't be ended. Null, with dlerror(), if it can't be loaded. */
static const zel_sink *load_lttng()
{
    Dl_info here = {};
    dladdr(reinterpret_cast<const void *>(zel_init), &here);
    const char *library = here.dli_fname;
    const auto directory_size = static_cast<int>(short_fname(library) - library);
    char provider[PATH_MAX];
    snprintf(provider, sizeof(provider), "%.*slibzel-lttng.so", directory_size, library);
    const util::blocked_signals blocked;
    void *handle = dlopen(provider, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    return handle ? static_cast<const zel_sink *>(dlsym(handle, "zel_lttng_sink")) : nullptr;
}

/* Null if nothing is to be traced. */
static const zel_sink *open_sink()
{
    const char *setting = secure_getenv("ZEL_SINK");
    const std::string_view name = setting ? setting : "";
    constexpr std::string_view file = "file:";
    if (name.empty())
        return nullptr;
    if (name == "stderr" || name == "stdout")
        return zel_text_to_stream(name == "stderr" ? STDERR_FILENO : STDOUT_FILENO, wanted_rate());
    if (name == "lttng") {
        const zel_sink *lttng = load_lttng();
        if (lttng == nullptr)
            complain("ZEL_SINK", setting, dlerror());
        return lttng;
    }
    if (name.starts_with(file) && name != file) {
        const zel_sink *opened =
            zel_text_to_file(setting + file.size(), wanted_file_cap(), wanted_rate());
        if (opened == nullptr)
            complain("ZEL_SINK", setting, strerror(errno));
        return opened;
    }
    complain("ZEL_SINK", setting, "give lttng, stderr, stdout or file:PATH; nothing is traced");
    return nullptr;
}

/* The mask is set last: from then on a signal handler may trace on this thread. */
static void enter_thread()
{
    const zel_sink *used = sink.load(std::memory_order_acquire);
    if (used == nullptr)
        return;
    if (used->enter_thread)
        used->enter_thread();
    procInfo[3] = group_mask;
}

static bool start()
{
    const zel_sink *opened = open_sink();
    if (opened == nullptr)
        return false;
    group_mask = wanted_groups();
    sink.store(opened, std::memory_order_release);
    return true;
}

int zel_init(void)
{
    const int kept_errno = errno;
    static const bool is_tracing = start();
    if (is_tracing)
        enter_thread();
    errno = kept_errno;
    return 0;
}

int zel_register_thread_name(const char *name)
{
    const int kept_errno = errno;
    snprintf(thread_name, sizeof(thread_name), "%s", name ? name : "");
    enter_thread();
    errno = kept_errno;
    return 0;
}

static formatted_text &take_text()
{
    formatted_text &text = *std::ranges::min_element(texts, {}, [](const formatted_text &one) {
        return std::tuple(one.is_taken, one.last_use);
    });
    /* If a handler between the two marks finds no free text, it must not take this one as the least
       recently used, and then free it. Both marks are in memory before the first byte of the
       text. */
    text.last_use = ++text_uses;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    text.is_taken = true;
    std::atomic_signal_fence(std::memory_order_seq_cst);
    return text;
}

/* Frees a text of formatStr; any other text is ignored. */
static void release_text(const char *traced)
{
    std::atomic_signal_fence(std::memory_order_seq_cst);
    for (formatted_text &text : texts)
        if (text.text == traced)
            text.is_taken = false;
}

const char *formatStr(const char *format, ...)
{
    const int kept_errno = errno;
    char *text = take_text().text;
    va_list arguments;
    va_start(arguments, format);
    if (format == nullptr || vsnprintf(text, sizeof(texts[0]).text, format, arguments) < 0)
        text[0] = '\0';
    va_end(arguments);
    errno = kept_errno;
    return text;
}

const char *short_fname(const char *path)
{
    if (path == nullptr)
        return "";
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

/* Writes nothing if the mask hides the group, which it does for all groups if there is no sink. */
static void trace(zel_record record)
{
    const int kept_errno = errno;
    const char *text = record.text;
    const zel_sink *used = sink.load(std::memory_order_acquire);
    if (used && record.group < 32 && (procInfo[3] >> record.group & 1)) {
        char kernel_name[16] = "";
        /* If no name was registered, the thread's name in the kernel is used. */
        if (thread_name[0] == '\0')
            prctl(PR_GET_NAME, kernel_name);
        record.thread = thread_name[0] != '\0' ? thread_name : kernel_name;
        record.file = record.file ? record.file : "";
        record.text = record.text ? record.text : "";
        used->write(record);
    }
    release_text(text);
    errno = kept_errno;
}

void lttngZelTrace(uint32_t group, const char *file, uint32_t line, const char *text, const void *)
{
    trace({.kind = zel_kind::trace,
           .group = group,
           .file = file,
           .line = line,
           .number = 0,
           .receiver = 0,
           .text = text,
           .thread = nullptr});
}

void lttngZelRecSigTrace(const char *file, uint32_t line, const mbx_signal *signal,
                         const char *text, const void *)
{
    uint32_t number = 0;
    if (signal != nullptr)
        memcpy(&number, signal, sizeof(number));
    trace({.kind = zel_kind::received,
           .group = received_group,
           .file = file,
           .line = line,
           .number = number,
           .receiver = 0,
           .text = text,
           .thread = nullptr});
}

void lttngZelSendSigTrace(const char *file, uint32_t line, uint32_t number, uint32_t receiver,
                          const char *text, const void *)
{
    trace({.kind = zel_kind::sent,
           .group = sent_group,
           .file = file,
           .line = line,
           .number = number,
           .receiver = receiver,
           .text = text,
           .thread = nullptr});
}
