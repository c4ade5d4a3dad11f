/* SPDX-License-Identifier: Apache-2.0 */
/* The hardware library: ports that the test has set, and events that it raises. */
#include "testkit/fake_platform/fake_platform_internal.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <stdexcept>
#include <string>

namespace fake_platform
{

std::map<uint32_t, port> ports;
std::vector<dolm_ric_event> last_events;
int32_t last_wait;

static constexpr uintptr_t library_handle = 0x1234;

struct wait_result {
    int32_t code;
    dolm_ric_event event;
};

static std::mutex script_mutex;
/* Never destroyed: a thread may still wait for them at exit. */
static auto &event_raised = *new std::condition_variable;
static auto &thread_idle = *new std::condition_variable;
static auto &event_freed = *new std::condition_variable;
static bool idle;
static std::deque<wait_result> waiting;
static int freed;
static int wait_calls;
static const dolm_ric_event *delivered;

void reset_board()
{
    ports.clear();
    waiting.clear();
    last_events.clear();
    last_wait = DOLM_RICERR_OK;
    delivered = nullptr;
    idle = false;
    freed = 0;
    wait_calls = 0;
}

static void expect_handle(uintptr_t handle, uint32_t flags = 0)
{
    expect(handle == library_handle && flags == 0, "a handle or flags of dolm_ric");
}

static void raise_result(const wait_result &result)
{
    {
        std::lock_guard<std::mutex> lock(script_mutex);
        waiting.push_back(result);
    }
    event_raised.notify_one();
}

/* Once a wait has failed, the program fails; its other tests need not take 20 s each to fail. */
static void await(std::condition_variable &changed, const char *what, bool (*is_true)())
{
    static std::chrono::seconds patience{20};
    std::unique_lock<std::mutex> lock(script_mutex);
    if (changed.wait_for(lock, patience, is_true))
        return;
    patience = std::chrono::seconds(1);
    throw std::runtime_error(std::string("the event thread does not ") + what);
}

void await_event_thread()
{
    await(thread_idle, "wait for an event", [] { return idle && waiting.empty(); });
}

void await_freed_events(int count)
{
    static int wanted;
    wanted = count;
    await(event_freed, "free its events", [] { return freed >= wanted; });
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

int waits()
{
    std::lock_guard<std::mutex> lock(script_mutex);
    return wait_calls;
}

/* The result of an operation on a port; `fill` copies the output from the port. */
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
static int32_t operation(const char *name, uintptr_t handle, uint32_t id, fill_type fill)
{
    expect_handle(handle);
    char line[64];
    snprintf(line, sizeof(line), "%s 0x%x", name, id);
    note(line);
    const int32_t code = answer(name, id, fill);
    if (observer != nullptr)
        observer(name, id & 0xffff, code);
    return code;
}

} // namespace fake_platform

using namespace fake_platform;

extern "C" {

int32_t dolm_ric_init(uintptr_t *handle, uint32_t flags)
{
    *handle = library_handle;
    expect_handle(*handle, flags);
    return logged("dolm_ric_init");
}

int32_t dolm_ric_shutdown(uintptr_t handle, uint32_t flags)
{
    expect_handle(handle, flags);
    note("dolm_ric_shutdown");
    for (const auto &event : last_events)
        raise_event(event);
    raise_result({last_wait, {}});
    return DOLM_RICERR_OK;
}

int32_t dolm_ric_waitevent(uintptr_t handle, dolm_ric_event **event)
{
    expect_handle(handle);
    std::unique_lock<std::mutex> lock(script_mutex);
    wait_calls++;
    idle = waiting.empty();
    thread_idle.notify_all();
    event_raised.wait(lock, [] { return !waiting.empty(); });
    const wait_result result = waiting.front();
    waiting.pop_front();
    if (result.code == DOLM_RICERR_OK)
        delivered = *event = new dolm_ric_event(result.event);
    return result.code;
}

int32_t dolm_ric_freeevent(uintptr_t handle, dolm_ric_event **event)
{
    expect_handle(handle);
    expect(*event == delivered, "the event of dolm_ric_freeevent");
    std::lock_guard<std::mutex> lock(script_mutex);
    delete *event;
    *event = nullptr;
    delivered = nullptr;
    freed++;
    event_freed.notify_all();
    return DOLM_RICERR_OK;
}

int32_t dolm_ric_ri_getportstatus(uintptr_t handle, uint32_t id, dolm_ric_port_status *out)
{
    return operation("getportstatus", handle, id, [out](const port &p) { out->status = p.status; });
}

int32_t dolm_ric_ri_subsport(uintptr_t handle, uint32_t id, dolm_ric_port_status *out)
{
    return operation("subsport", handle, id, [out](const port &p) { out->status = p.status; });
}

int32_t dolm_ric_ri_unsubsport(uintptr_t handle, uint32_t id)
{
    return operation("unsubsport", handle, id, [](const port &) {});
}

static void fill_link(dolm_ric_link_status *out, const port &p)
{
    out->state = p.link_state;
    out->speed = p.speed;
}

int32_t dolm_ric_ri_subslink(uintptr_t handle, uint32_t id, dolm_ric_link_status *out)
{
    return operation("subslink", handle, id, [out](const port &p) { fill_link(out, p); });
}

int32_t dolm_ric_ri_unsubslink(uintptr_t handle, uint32_t id)
{
    return operation("unsubslink", handle, id, [](const port &) {});
}

int32_t dolm_ric_ri_getlinkstatus(uintptr_t handle, uint32_t id, dolm_ric_link_status *out)
{
    return operation("getlinkstatus", handle, id, [out](const port &p) { fill_link(out, p); });
}

int32_t dolm_ric_ri_getmoduleinfo(uintptr_t handle, uint32_t id, dolm_ric_module_info *out)
{
    return operation("getmoduleinfo", handle, id, [out](const port &p) { *out = p.module; });
}

int32_t dolm_ric_ri_getmodstatus(uintptr_t handle, uint32_t id, dolm_ric_module_status *out)
{
    return operation("getmodstatus", handle, id, [out](const port &p) { *out = p.module_status; });
}

int32_t dolm_ric_ri_getmodulediag(uintptr_t handle, uint32_t id, dolm_ric_module_diag *out)
{
    return operation("getmodulediag", handle, id, [out](const port &p) { *out = p.diag; });
}
}
