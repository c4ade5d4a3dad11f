/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_api - the C functions: they check the caller and pass the call on to the session. No
   exception leaves them.

   A blocking call is a request whose callback writes to the caller's stack, and a loop that
   dispatches until the callback was called, at the latest at the request's deadline. */
#include "tesk_client/tesk_client_fall.h"
#include "tesk_client/tesk_client_port_map.h"
#include "tesk_client/tesk_client_session.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <memory>
#include <new>

namespace
{

/* The last failure. Not in the session, since a failed connect leaves no session; per thread, as
   sessions are. Of fixed size, so that reporting a lack of memory needs no memory. */
struct last_failure {
    char text[1024];
    tesk_client_rejection rejection;
};

} // namespace

static thread_local last_failure last_error;

static tesk_client_result fail(tesk_client_result result, const char *text,
                               tesk_client_rejection rejection = TESK_CLIENT_REJECTION_NONE)
{
    snprintf(last_error.text, sizeof(last_error.text), "%s", text);
    last_error.rejection = rejection;
    return result;
}

static tesk_client_result fail(tesk_client_result result)
{
    return fail(result, tesk_client_result_text(result));
}

/* Calls a function whose exceptions must not reach C callers. */
template <typename function_type>
static tesk_client_result guarded(function_type function)
{
    try {
        return function();
    } catch (const std::bad_alloc &) {
        return fail(TESK_CLIENT_FAILED, "out of memory");
    } catch (const std::exception &error) {
        return fail(TESK_CLIENT_FAILED, error.what());
    }
}

/* TESK_CLIENT_OK if the caller may use the session. Blocking calls are refused inside a callback: a
   nested dispatch would handle signals in the wrong order. */
static tesk_client_result check_caller(const tesk_client_session *session, bool blocks)
{
    if (session == nullptr)
        return fail(TESK_CLIENT_MISUSE, "the session is NULL: tesk_client_connect gives one");
    if (!session->belongs_to_caller())
        return fail(TESK_CLIENT_MISUSE, "the session belongs to another thread or process");
    if (blocks && session->in_callback())
        return fail(TESK_CLIENT_MISUSE, "a callback can't wait: use tesk_client_request");
    return TESK_CLIENT_OK;
}

/* A C caller can pass any number for an enumerator, and null for any pointer: a number that the
   header doesn't list must not select another request. */
static tesk_client_result check_argument(bool is_allowed, const char *text)
{
    return is_allowed ? TESK_CLIENT_OK : fail(TESK_CLIENT_MISUSE, text);
}

static tesk_client_result check_kind(tesk_client_kind kind)
{
    return check_argument(kind == TESK_CLIENT_SFP_INFO || kind == TESK_CLIENT_PORT_STATUS,
                          "no such kind of subscription");
}

/* Stores the text of a result for tesk_client_error. */
static tesk_client_result noted(tesk_client_result result)
{
    return result == TESK_CLIENT_OK ? result : fail(result);
}

namespace
{

/* A blocking call: the function that takes the answer's payload, and the result of the answer. */
template <typename take_type>
struct blocking_call {
    take_type &take;
    bool is_done = false;
    tesk_client_result result = TESK_CLIENT_OK;
    tesk_client_rejection rejection = TESK_CLIENT_REJECTION_NONE;
    char text[TESK_ERROR_DESCRIPTION_SIZE] = "";

    static void answered(const tesk_client_answer *answer, void *user)
    {
        auto *call = static_cast<blocking_call *>(user);
        call->is_done = true;
        call->result = answer->result;
        call->rejection = answer->rejection;
        snprintf(call->text, sizeof(call->text), "%s", answer->text);
        if (answer->result == TESK_CLIENT_OK)
            call->take(*answer);
    }
};

} // namespace

/* Makes a request and waits for its answer; `take` receives it if it is a confirmation. */
template <typename take_type>
static tesk_client_result call_and_wait(tesk_client_session *session, tesk_client_request_type type,
                                        uint32_t port_no, take_type take)
{
    tesk_client_result result = check_caller(session, true);
    if (result != TESK_CLIENT_OK)
        return result;
    blocking_call<take_type> call{take};
    result = guarded([&] {
        return noted(session->request(type, port_no, blocking_call<take_type>::answered, &call));
    });
    if (result != TESK_CLIENT_OK)
        return result;
    /* Ends by the request's deadline at the latest. A dispatch that runs out of memory is repeated,
       since the request refers to this function's stack. */
    while (!call.is_done) {
        session->wait(-1);
        guarded([&] { return session->dispatch(); });
    }
    return call.result == TESK_CLIENT_OK ? TESK_CLIENT_OK
                                         : fail(call.result, call.text, call.rejection);
}

static void ignore_answer(const tesk_client_answer &)
{
}

tesk_client_result tesk_client_connect(const tesk_client_options *options,
                                       tesk_client_session **session)
{
    if (session == nullptr)
        return fail(TESK_CLIENT_MISUSE, "the place for the session is NULL");
    *session = nullptr;
    /* The program may use the mailbox library itself, so the library is never ended here. mbx_init
       does nothing if the library is running; in a forked child it isn't. */
    if (mbx_init(5, 0, 0, 0, 0) != 0)
        return fail(TESK_CLIENT_FAILED, "the mailbox library doesn't start");
    return guarded([&] {
        auto made =
            std::make_unique<tesk_client_session>(options ? *options : tesk_client_options{});
        const outcome connected = made->connect();
        if (connected.result != TESK_CLIENT_OK)
            return fail(connected.result, connected.text.c_str());
        *session = made.release();
        return TESK_CLIENT_OK;
    });
}

void tesk_client_close(tesk_client_session *session)
{
    if (session == nullptr || check_caller(session, true) != TESK_CLIENT_OK)
        return;
    session->cancel(); /* the callbacks of open requests may still use the session */
    delete session;
}

bool tesk_client_connected(const tesk_client_session *session)
{
    return session != nullptr && session->is_connected();
}

int tesk_client_fd(const tesk_client_session *session)
{
    return session != nullptr ? session->fd() : -1;
}

tesk_client_result tesk_client_dispatch(tesk_client_session *session)
{
    const tesk_client_result result = check_caller(session, true);
    return result == TESK_CLIENT_OK ? guarded([&] { return noted(session->dispatch()); }) : result;
}

tesk_client_result tesk_client_run(tesk_client_session *session, int timeout_ms)
{
    const tesk_client_result result = check_caller(session, true);
    return result == TESK_CLIENT_OK ? guarded([&] { return noted(session->run(timeout_ms)); })
                                    : result;
}

/* Allowed in any thread: doesn't check the caller and stores no error text. */
void tesk_client_stop(tesk_client_session *session)
{
    if (session != nullptr)
        session->stop();
}

tesk_client_result tesk_client_request(tesk_client_session *session,
                                       tesk_client_request_type request, uint32_t port_no,
                                       tesk_client_answered answered, void *user)
{
    tesk_client_result result = check_caller(session, false);
    if (result == TESK_CLIENT_OK)
        result = check_argument(static_cast<size_t>(request) <= TESK_CLIENT_REQUEST_HISTORY_ACTIONS,
                                "no such type of request");
    if (result != TESK_CLIENT_OK)
        return result;
    return guarded([&] { return noted(session->request(request, port_no, answered, user)); });
}

tesk_client_result tesk_client_subscribe(tesk_client_session *session, tesk_client_kind kind,
                                         uint32_t port_no)
{
    const tesk_client_result result = check_kind(kind);
    return result == TESK_CLIENT_OK
               ? call_and_wait(session, subscribe_request(kind), port_no, ignore_answer)
               : result;
}

tesk_client_result tesk_client_unsubscribe(tesk_client_session *session, tesk_client_kind kind,
                                           uint32_t port_no)
{
    const tesk_client_result result = check_kind(kind);
    return result == TESK_CLIENT_OK
               ? call_and_wait(session, unsubscribe_request(kind), port_no, ignore_answer)
               : result;
}

tesk_client_result tesk_client_read_pm(tesk_client_session *session, uint32_t port_no,
                                       tesk_client_pm *pm)
{
    const tesk_client_result result = check_argument(pm != nullptr, "no place for the values");
    if (result != TESK_CLIENT_OK)
        return result;
    return call_and_wait(session, TESK_CLIENT_REQUEST_PM, port_no,
                         [pm](const tesk_client_answer &answer) { *pm = *answer.pm; });
}

/* Checks the arguments for a list, and sets its count to 0. */
static tesk_client_result begin_list(const void *elements, size_t capacity, size_t *count)
{
    if (count != nullptr)
        *count = 0;
    return check_argument(count != nullptr && (elements != nullptr || capacity == 0),
                          "no place for the answer");
}

tesk_client_result tesk_client_read_capabilities(tesk_client_session *session,
                                                 tesk_client_capability *capabilities,
                                                 size_t capacity, size_t *count)
{
    const tesk_client_result result = begin_list(capabilities, capacity, count);
    if (result != TESK_CLIENT_OK)
        return result;
    return call_and_wait(session, TESK_CLIENT_REQUEST_CAPABILITIES, 0,
                         [=](const tesk_client_answer &answer) {
                             *count = std::min(answer.count, capacity);
                             std::copy_n(answer.capabilities, *count, capabilities);
                         });
}

tesk_client_result tesk_client_read_history(tesk_client_session *session,
                                            tesk_client_history_kind kind,
                                            tesk_client_history_record *records, size_t capacity,
                                            size_t *count)
{
    tesk_client_result result = begin_list(records, capacity, count);
    if (result == TESK_CLIENT_OK)
        result = check_argument(static_cast<size_t>(kind) <= TESK_CLIENT_HISTORY_ACTIONS,
                                "no such kind of history");
    if (result != TESK_CLIENT_OK)
        return result;
    const auto type = static_cast<tesk_client_request_type>(
        TESK_CLIENT_REQUEST_HISTORY_PORT_STATUS + static_cast<unsigned>(kind));
    return call_and_wait(session, type, 0, [=](const tesk_client_answer &answer) {
        *count = std::min(answer.count, capacity);
        /* Sorted oldest first: the newest are at the end. */
        std::copy_n(answer.history + (answer.count - *count), *count, records);
    });
}

tesk_client_result tesk_client_read_port_map(const char *path, tesk_client_port_named each,
                                             void *user)
{
    if (each == nullptr)
        return fail(TESK_CLIENT_MISUSE, "the function for the ports is NULL");
    return guarded([&] {
        const outcome read = read_port_map(path, each, user);
        return read.result == TESK_CLIENT_OK ? TESK_CLIENT_OK
                                             : fail(read.result, read.text.c_str());
    });
}

tesk_client_result tesk_client_judge_fall(const char *facts, tesk_client_fall_judged judged,
                                          void *user)
{
    if (facts == nullptr || judged == nullptr)
        return fail(TESK_CLIENT_MISUSE, "the facts or the function for the verdict are NULL");
    return guarded([&] {
        const outcome made = judge_fall(facts, judged, user);
        return made.result == TESK_CLIENT_OK ? TESK_CLIENT_OK
                                             : fail(made.result, made.text.c_str());
    });
}

const char *tesk_client_error(void)
{
    return last_error.text;
}

tesk_client_rejection tesk_client_error_rejection(void)
{
    return last_error.rejection;
}

const char *tesk_client_version(void)
{
    return TESK_VERSION;
}
