/* tesk_client_api - the C functions: they check the caller and leave the work to the session.

   A call that answers is a request whose callback fills a place on the caller's stack, and a loop
   that dispatches until it has. The place can't be left behind: each request ends by its deadline
   at the latest, and the loop doesn't end before.

   C callers see no exceptions. Only connecting opens descriptors, and so can fail by one. */
#include "tesk_client/tesk_client_port_map.h"
#include "tesk_client/tesk_client_session.h"
#include <algorithm>
#include <memory>
#include <new>
#include <system_error>

namespace
{

/* Per thread, as a session is, and not in the session: a failed connect leaves none. */
thread_local std::string last_error;

tesk_client_result fail(tesk_client_result result, std::string text)
{
    last_error = std::move(text);
    return result;
}

tesk_client_result fail(tesk_client_result result)
{
    return fail(result, tesk_client_result_text(result));
}

/* The mailbox library serves the whole process, which may use it beside us, so it is started once
   and never ended here. */
int start_mailbox_library()
{
    static const int started = mbx_init(5, 0, 0, 0, 0);
    return started;
}

/* TESK_CLIENT_OK where the caller may work on the session. A dispatch within a dispatch would hand
   out signals in the wrong order, so what waits is refused inside a callback. */
tesk_client_result check_caller(const tesk_client_session *session, bool waits)
{
    if (session == nullptr)
        return fail(TESK_CLIENT_MISUSE, "no session");
    if (!session->belongs_to_caller())
        return fail(TESK_CLIENT_MISUSE, "the session belongs to another thread");
    if (waits && session->in_callback())
        return fail(TESK_CLIENT_MISUSE, "a callback can't wait: use tesk_client_request");
    return TESK_CLIENT_OK;
}

/* Leaves the text of a result for tesk_client_error. */
tesk_client_result noted(tesk_client_result result)
{
    return result == TESK_CLIENT_OK ? result : fail(result);
}

/* Makes a request and waits for its answer, which `take` gets to see if it is a confirmation. */
template <typename take_type>
tesk_client_result call_and_wait(tesk_client_session *session, tesk_client_request_type type,
                                 uint32_t port_no, take_type take)
{
    struct call_state {
        take_type &take;
        bool done = false;
        tesk_client_result result = TESK_CLIENT_OK;
        std::string text{};
    } state{take};

    auto answered = [](const tesk_client_answer *answer, void *user) {
        auto *call = static_cast<call_state *>(user);
        call->done = true;
        call->result = answer->result;
        call->text = answer->text;
        if (answer->result == TESK_CLIENT_OK)
            call->take(*answer);
    };
    tesk_client_result result = check_caller(session, true);
    if (result != TESK_CLIENT_OK)
        return result;
    result = session->request(type, port_no, answered, &state);
    if (result != TESK_CLIENT_OK)
        return fail(result);
    while (!state.done) { /* its deadline sees to it */
        session->wait(-1);
        session->dispatch();
    }
    return state.result == TESK_CLIENT_OK ? TESK_CLIENT_OK : fail(state.result, state.text);
}

void ignore_answer(const tesk_client_answer &)
{
}

} // namespace

tesk_client_result tesk_client_connect(const tesk_client_options *options,
                                       tesk_client_session **session)
try {
    if (session == nullptr)
        return fail(TESK_CLIENT_MISUSE, "no place for the session");
    *session = nullptr;
    if (start_mailbox_library() != 0)
        return fail(TESK_CLIENT_FAILED, "the mailbox library doesn't start");
    auto made = std::make_unique<tesk_client_session>(options ? *options : tesk_client_options{});
    const outcome connected = made->connect();
    if (connected.result != TESK_CLIENT_OK)
        return fail(connected.result, connected.text);
    *session = made.release();
    return TESK_CLIENT_OK;
} catch (const std::system_error &error) {
    return fail(TESK_CLIENT_FAILED, error.what());
}

void tesk_client_close(tesk_client_session *session)
{
    if (session == nullptr || check_caller(session, true) != TESK_CLIENT_OK)
        return;
    session->cancel(); /* its callbacks may still look at the session */
    delete session;
}

bool tesk_client_connected(const tesk_client_session *session)
{
    return session->connected();
}

int tesk_client_fd(const tesk_client_session *session)
{
    return session->fd();
}

tesk_client_result tesk_client_dispatch(tesk_client_session *session)
{
    const tesk_client_result result = check_caller(session, true);
    return result == TESK_CLIENT_OK ? noted(session->dispatch()) : result;
}

tesk_client_result tesk_client_run(tesk_client_session *session, int timeout_ms)
{
    const tesk_client_result result = check_caller(session, true);
    return result == TESK_CLIENT_OK ? noted(session->run(timeout_ms)) : result;
}

/* The one call for any thread: no check of the caller, and no text, which would belong to it. */
void tesk_client_stop(tesk_client_session *session)
{
    session->stop();
}

tesk_client_result tesk_client_request(tesk_client_session *session,
                                       tesk_client_request_type request, uint32_t port_no,
                                       tesk_client_answered answered, void *user)
{
    const tesk_client_result result = check_caller(session, false);
    return result == TESK_CLIENT_OK ? noted(session->request(request, port_no, answered, user))
                                    : result;
}

tesk_client_result tesk_client_subscribe(tesk_client_session *session, tesk_client_kind kind,
                                         uint32_t port_no)
{
    return call_and_wait(session, subscribe_request(kind), port_no, ignore_answer);
}

tesk_client_result tesk_client_unsubscribe(tesk_client_session *session, tesk_client_kind kind,
                                           uint32_t port_no)
{
    return call_and_wait(session, unsubscribe_request(kind), port_no, ignore_answer);
}

tesk_client_result tesk_client_read_pm(tesk_client_session *session, uint32_t port_no,
                                       tesk_client_pm *pm)
{
    return call_and_wait(session, TESK_CLIENT_REQUEST_PM, port_no,
                         [pm](const tesk_client_answer &answer) { *pm = *answer.pm; });
}

tesk_client_result tesk_client_read_capabilities(tesk_client_session *session,
                                                 tesk_client_capability *capabilities,
                                                 size_t capacity, size_t *count)
{
    *count = 0;
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
    *count = 0;
    const auto type = static_cast<tesk_client_request_type>(
        TESK_CLIENT_REQUEST_HISTORY_PORT_STATUS + static_cast<int>(kind));
    return call_and_wait(session, type, 0, [=](const tesk_client_answer &answer) {
        *count = std::min(answer.count, capacity);
        /* Oldest first: the newest are at the end. */
        std::copy_n(answer.history + (answer.count - *count), *count, records);
    });
}

tesk_client_result tesk_client_read_port_map(const char *path, tesk_client_port_named each,
                                             void *user)
try {
    if (each == nullptr)
        return fail(TESK_CLIENT_MISUSE, "no function for the ports");
    const outcome read = read_port_map(path, each, user);
    return read.result == TESK_CLIENT_OK ? TESK_CLIENT_OK : fail(read.result, read.text);
} catch (const std::bad_alloc &) {
    return fail(TESK_CLIENT_FAILED);
}

const char *tesk_client_error(void)
{
    return last_error.c_str();
}
