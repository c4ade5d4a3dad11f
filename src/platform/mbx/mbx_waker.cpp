/* SPDX-License-Identifier: Apache-2.0 */
/* The system calls of io_uring are few and used here alone, so no library stands between. */
#include "platform/mbx/mbx_waker.h"

#include "platform/mbx/mbx_area.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <linux/io_uring.h>
#include <mutex>
#include <new>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <vector>

static constexpr uint32_t rung_at_once = 12;    /* wake-ups of a run that the sender rings itself */
static constexpr int64_t longest_pause_ms = 20; /* within a run */
static constexpr size_t due_at_most = 1024;
static constexpr uint32_t reads_at_once = 256; /* a power of two */
static constexpr size_t stack_bytes = size_t{64} * 1024;

namespace
{

struct due_bell {
    int fd;
    bool is_retired; /* to be closed when it is rung */
};

/* An io_uring for reads that never wait. */
class bell_reader
{
  public:
    bell_reader() = default;
    bell_reader(const bell_reader &) = delete;
    bell_reader &operator=(const bell_reader &) = delete;
    /* False when the system refuses it. For the thread that will read. */
    bool open();
    void close();
    /* Reads up to reads_at_once bells; rings those that can't be read so. False when it is of no
       use any more. */
    bool read(const due_bell *bells, uint32_t count);

  private:
    uint32_t *word(uint32_t offset) const
    {
        return reinterpret_cast<uint32_t *>(rings_ + offset);
    }
    void ring_failed(const due_bell *bells);

    owned_fd fd_;
    io_uring_params layout_{};
    unsigned char *rings_ = nullptr;
    size_t ring_bytes_ = 0;
    io_uring_sqe *entries_ = nullptr;
    uint64_t sink_ = 0; /* the counts that are read */
};

struct waker {
    std::mutex lock;
    std::condition_variable changed;
    std::vector<due_bell> due;
    std::vector<due_bell> ringing; /* written by the thread, under the lock */
    std::vector<due_bell> rung;    /* the thread's */
    bell_reader reader;            /* the same */
    bool is_started = false;
    bool should_stop = false;
    std::atomic<bool> is_refused{false};
    pthread_t thread{};
};

} // namespace

/* Never destroyed: its thread uses it until the process ends. A forked child makes itself another.
 */
static waker *the_waker = new waker;

void bell_reader::close()
{
    if (entries_)
        munmap(std::exchange(entries_, nullptr), reads_at_once * sizeof(io_uring_sqe));
    if (rings_)
        munmap(std::exchange(rings_, nullptr), ring_bytes_);
    fd_.reset();
}

template <typename pointer>
static bool map(pointer &to, int fd, size_t bytes, uint64_t what)
{
    void *start =
        mmap(nullptr, bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, static_cast<off_t>(what));
    if (start == MAP_FAILED)
        return false;
    to = static_cast<pointer>(start);
    return true;
}

/* A kernel that takes these flags (6.1) has all else that is used here. */
bool bell_reader::open()
{
    layout_ = {};
    layout_.flags =
        IORING_SETUP_SUBMIT_ALL | IORING_SETUP_SINGLE_ISSUER | IORING_SETUP_DEFER_TASKRUN;
    fd_ = owned_fd(static_cast<int>(syscall(SYS_io_uring_setup, reads_at_once, &layout_)));
    if (!fd_ || layout_.sq_entries != reads_at_once)
        return false;
    ring_bytes_ = std::max(layout_.sq_off.array + layout_.sq_entries * sizeof(uint32_t),
                           layout_.cq_off.cqes + layout_.cq_entries * sizeof(io_uring_cqe));
    if (!map(rings_, fd_.get(), ring_bytes_, IORING_OFF_SQ_RING) ||
        !map(entries_, fd_.get(), reads_at_once * sizeof(io_uring_sqe), IORING_OFF_SQES))
        return false;
    for (uint32_t i = 0; i < reads_at_once; i++)
        word(layout_.sq_off.array)[i] = i;
    return true;
}

/* Only reads that fail are reported. */
void bell_reader::ring_failed(const due_bell *bells)
{
    const auto *reports = reinterpret_cast<const io_uring_cqe *>(rings_ + layout_.cq_off.cqes);
    const uint32_t end = __atomic_load_n(word(layout_.cq_off.tail), __ATOMIC_ACQUIRE);
    uint32_t *head = word(layout_.cq_off.head);
    for (uint32_t at = *head; at != end; at++)
        ring_bell(bells[reports[at % layout_.cq_entries].user_data].fd);
    __atomic_store_n(head, end, __ATOMIC_RELEASE);
}

/* All has been read, or has failed, when the call returns. */
bool bell_reader::read(const due_bell *bells, uint32_t count)
{
    uint32_t *tail = word(layout_.sq_off.tail);
    for (uint32_t i = 0; i < count; i++) {
        io_uring_sqe &entry = entries_[(*tail + i) % reads_at_once];
        entry = {};
        entry.opcode = IORING_OP_READ;
        entry.flags = IOSQE_CQE_SKIP_SUCCESS;
        entry.fd = bells[i].fd;
        entry.off = UINT64_MAX;
        entry.addr = reinterpret_cast<uintptr_t>(&sink_);
        entry.len = sizeof(sink_);
        entry.rw_flags = RWF_NOWAIT;
        entry.user_data = i;
    }
    __atomic_store_n(tail, *tail + count, __ATOMIC_RELEASE);
    const long taken =
        syscall(SYS_io_uring_enter, fd_.get(), count, 0, IORING_ENTER_GETEVENTS, nullptr, 0);
    ring_failed(bells);
    const uint32_t done = taken > 0 ? static_cast<uint32_t>(taken) : 0;
    for (uint32_t i = done; i < count; i++)
        ring_bell(bells[i].fd);
    return done == count;
}

/* A thread of this kind preempts nobody when it wakes up, and is preempted at once. One that has
   inherited a priority keeps it, so as not to starve behind its sender. */
static void give_way()
{
    const sched_param none{};
    if (sched_getscheduler(0) == SCHED_OTHER)
        sched_setscheduler(0, SCHED_BATCH, &none);
}

/* Returns whether the next ones can be rung in the same way. */
static bool ring_all(bell_reader &reader, const std::vector<due_bell> &bells, bool is_usable)
{
    for (size_t at = 0; at < bells.size(); at += reads_at_once) {
        const size_t count = std::min<size_t>(bells.size() - at, reads_at_once);
        if (is_usable) {
            is_usable = reader.read(&bells[at], static_cast<uint32_t>(count));
            continue;
        }
        for (size_t i = at; i < at + count; i++)
            ring_bell(bells[i].fd);
    }
    return is_usable;
}

/* A bell that is off the lists is the thread's to close. */
static void finish(waker &w, std::unique_lock<std::mutex> &hold)
{
    w.rung.swap(w.ringing);
    hold.unlock();
    for (const due_bell &bell : w.rung)
        if (bell.is_retired)
            close(bell.fd);
    w.rung.clear();
    hold.lock();
}

static void *run(void *argument)
{
    waker &w = *static_cast<waker *>(argument);
    pthread_setname_np(pthread_self(), "mbx-waker");
    give_way();
    bool is_usable = w.reader.open();
    std::unique_lock hold(w.lock);
    for (;;) {
        w.is_refused = !is_usable;
        w.changed.wait(hold, [&] { return w.should_stop || !is_usable || !w.due.empty(); });
        if (w.due.empty())
            break;
        w.ringing.swap(w.due);
        hold.unlock();
        is_usable = ring_all(w.reader, w.ringing, is_usable);
        hold.lock();
        finish(w, hold);
    }
    w.reader.close();
    return nullptr;
}

static bool is_wanted()
{
    const char *set = secure_getenv("MBX_IO_URING");
    return !set || strcmp(set, "0") != 0;
}

/* With the lock held. */
static bool start_thread(waker &w)
try {
    w.due.reserve(due_at_most);
    w.ringing.reserve(due_at_most);
    w.rung.reserve(due_at_most);
    pthread_attr_t attributes;
    sigset_t all;
    sigfillset(&all);
    if (pthread_attr_init(&attributes) != 0)
        return false;
    pthread_attr_setstacksize(&attributes, stack_bytes);
    const bool is_started = pthread_attr_setsigmask_np(&attributes, &all) == 0 &&
                            pthread_create(&w.thread, &attributes, run, &w) == 0;
    pthread_attr_destroy(&attributes);
    return is_started;
} catch (const std::bad_alloc &) {
    return false;
}

static int64_t now_ms()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &now);
    return int64_t{now.tv_sec} * 1000 + now.tv_nsec / 1000000;
}

/* The clock is looked at only when a run is long enough to matter. */
bool fan_out::includes(uint32_t &met)
{
    if (std::exchange(met, number_) == number_)
        end();
    met = number_;
    if (++count_ < rung_at_once)
        return false;
    const int64_t before = std::exchange(last_ms_, now_ms());
    if (count_ == rung_at_once)
        return false;
    if (last_ms_ - before > longest_pause_ms)
        end();
    return count_ > 0;
}

void fan_out::end()
{
    number_++;
    count_ = 0;
}

bool ring_later(int bell)
{
    waker &w = *the_waker;
    if (w.is_refused.load(std::memory_order_relaxed))
        return false;
    std::unique_lock hold(w.lock);
    if (!w.is_started) {
        w.is_started = is_wanted() && start_thread(w);
        w.is_refused = !w.is_started;
    }
    if (w.is_refused || w.should_stop || w.due.size() == due_at_most)
        return false;
    w.due.push_back({bell, false});
    const bool may_sleep = w.due.size() == 1 && w.ringing.empty();
    hold.unlock();
    if (may_sleep)
        w.changed.notify_one();
    return true;
}

static bool mark_retired(std::vector<due_bell> &bells, int fd)
{
    const auto found = std::find_if(bells.begin(), bells.end(),
                                    [fd](const due_bell &bell) { return bell.fd == fd; });
    if (found == bells.end())
        return false;
    found->is_retired = true;
    return true;
}

/* A bell that is due has a signal to go with it: its receiver takes that in any case, at the
   latest when it notices the end of the connection, and a ring in between does no harm. */
void retire_bell(owned_fd bell)
{
    waker &w = *the_waker;
    const std::lock_guard hold(w.lock);
    if (mark_retired(w.due, bell.get()) || mark_retired(w.ringing, bell.get()))
        bell.release();
}

void stop_waker()
{
    waker &w = *the_waker;
    std::unique_lock hold(w.lock);
    if (w.is_started) {
        w.should_stop = true;
        hold.unlock();
        w.changed.notify_one();
        pthread_join(w.thread, nullptr);
        hold.lock();
    }
    w.is_started = false;
    w.should_stop = false;
    w.is_refused = false;
}

void lock_waker()
{
    the_waker->lock.lock();
}

void unlock_waker()
{
    the_waker->lock.unlock();
}

/* The parent rings what is due; the child's copies of retired bells go at its exec or its end. */
void forget_waker()
{
    the_waker->reader.close();
    the_waker = new waker;
}
