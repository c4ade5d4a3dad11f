/* SPDX-License-Identifier: Apache-2.0 */
/* A session owns one epoll descriptor, which is what the program polls. Behind it are the mailbox,
   one timer for the nearest of all deadlines, and an eventfd for tesk_client_stop.

   Each connection has a mailbox of its own, made before the establishment and deleted when the
   server is lost or doesn't answer. So nothing that was meant for an earlier connection can arrive,
   and a server that granted an establishment too late sees that client die.

   All that arrives is checked: only the server's mailbox is listened to, and only signals that are
   whole and bear our reference count. Anything else is dropped without a word. */
#include "tesk_client/tesk_client_session.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/timerfd.h>
#include <system_error>
#include <unistd.h>

/* So many signals in one dispatch, so that a busy server doesn't keep the program from its other
   work; the descriptor stays readable for the rest. */
static constexpr int signals_per_dispatch = 64;

namespace
{

struct signal_deleter {
    void operator()(mbx_signal *signal) const
    {
        mbx_free(&signal);
    }
};
using owned_signal = std::unique_ptr<mbx_signal, signal_deleter>;

} // namespace

static int checked(int fd)
{
    if (fd < 0)
        throw std::system_error(errno, std::generic_category());
    return fd;
}

static int watch(int epoll, int fd)
{
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    return epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event);
}

static tesk_client_options with_defaults(tesk_client_options options)
{
    auto use_default = [](uint32_t &value, uint32_t preset) {
        if (value == 0)
            value = preset;
    };
    use_default(options.deadline_ms, 2000);
    use_default(options.window, 16);
    use_default(options.retry_ms, 100);
    use_default(options.longest_retry_ms, 2000);
    return options;
}

static outcome failure(tesk_client_result result, std::string text)
{
    outcome failed;
    failed.result = result;
    failed.text = std::move(text);
    return failed;
}

static std::string system_text(const char *what, int error)
{
    return std::string(what) + ": " + std::generic_category().message(error);
}

static outcome locate_failure(int error)
{
    const std::string name = std::string("mailbox \"") + TESK_SERVER_NAME + "\"";
    switch (error) {
    case ENOENT:
    case ECONNREFUSED:
        return failure(TESK_CLIENT_NO_SERVER, "nobody answers to " + name);
    case EACCES:
    case EPERM:
        return failure(TESK_CLIENT_NO_ACCESS, "no permission for " + name);
    case ETIMEDOUT:
        return failure(TESK_CLIENT_TIMEOUT, name + " takes no connection");
    default:
        return failure(TESK_CLIENT_FAILED, system_text("mbx_locate", error));
    }
}

static int remaining_ms(steady_clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

owned_fd::~owned_fd()
{
    if (fd_ >= 0)
        close(fd_);
}

tesk_client_session::tesk_client_session(const tesk_client_options &options)
    : options_(with_defaults(options)), epoll_(checked(epoll_create1(EPOLL_CLOEXEC))),
      timer_(checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))),
      stop_event_(checked(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))), retry_(options_.retry_ms),
      conn_ref_(static_cast<uint32_t>(getpid()))
{
    checked(watch(epoll_.get(), timer_.get()));
    checked(watch(epoll_.get(), stop_event_.get()));
}

tesk_client_session::~tesk_client_session()
{
    end_connection();
}

outcome tesk_client_session::begin_connection()
{
    mailbox_ = mbx_create_mailbox(nullptr, 0);
    if (mailbox_ == MBX_NO_MAILBOX)
        return failure(TESK_CLIENT_FAILED, system_text("mbx_create_mailbox", errno));
    server_ = mbx_locate(TESK_SERVER_NAME);
    if (server_ == MBX_NO_MAILBOX) {
        outcome failed = locate_failure(errno);
        end_connection();
        return failed;
    }
    if (watch(epoll_.get(), mbx_get_fd()) != 0) {
        outcome failed = failure(TESK_CLIENT_FAILED, system_text("epoll_ctl", errno));
        end_connection();
        return failed;
    }
    mailbox_fd_ = mbx_get_fd();
    /* Before the first signal: should the server die right after it, we are told all the same. */
    monitor_ = mbx_monitor(server_, nullptr);

    const size_t size = sizeof(tesk_conn_establish_req) + sizeof(uint32_t);
    mbx_signal *signal = mbx_alloc(size, TESK_CONN_ESTABLISH_REQ);
    auto *request = reinterpret_cast<tesk_conn_establish_req *>(signal);
    request->procedure_ref = ++last_procedure_ref_;
    request->connection_ref = conn_ref_;
    request->number_of_rev = 1;
    request->protocol_rev[0] = TESK_PROTOCOL_REVISION;
    tesk_swap_byte_order(*request);
    tesk_swap_words(request->protocol_rev[0]);
    mbx_send(&signal, server_, MBX_OWN_MAILBOX);

    state_ = state::establishing;
    phase_end_ = steady_clock::now() + std::chrono::milliseconds(options_.deadline_ms);
    return {};
}

void tesk_client_session::end_connection()
{
    if (mailbox_ == MBX_NO_MAILBOX)
        return;
    if (mailbox_fd_ >= 0) {
        epoll_ctl(epoll_.get(), EPOLL_CTL_DEL, mailbox_fd_, nullptr);
        mbx_unmonitor(monitor_);
    }
    mbx_delete_mailbox(mailbox_);
    mailbox_ = server_ = MBX_NO_MAILBOX;
    mailbox_fd_ = -1;
}

outcome tesk_client_session::connect()
{
    establishment_ = begin_connection();
    while (state_ == state::establishing) {
        arm_timer();
        wait(-1);
        dispatch();
    }
    return state_ == state::connected ? outcome{} : establishment_;
}

/* An attempt has failed, or the server is gone: try again later if the session is to. A first
   connection is not tried again, since nobody has been told of a session yet. */
void tesk_client_session::retry_later()
{
    end_connection();
    if (!options_.reconnect || !was_connected_) {
        state_ = state::ended;
        return;
    }
    state_ = state::waiting;
    phase_end_ = steady_clock::now() + retry_;
    retry_ = std::min(retry_ * 2, std::chrono::milliseconds(options_.longest_retry_ms));
}

void tesk_client_session::lose_server()
{
    const bool had_connection = state_ == state::connected;
    if (!had_connection)
        establishment_ = failure(TESK_CLIENT_LOST, "the server went away while connecting");
    /* The new state before the callbacks: what they ask for waits for the next connection. */
    retry_later();
    if (!had_connection)
        return; /* nobody has been told of this one */
    tesk_client_event event{};
    event.type = TESK_CLIENT_EVENT_LOST;
    event.result = TESK_CLIENT_LOST;
    event.text = tesk_client_result_text(TESK_CLIENT_LOST);
    tell(event);
    fail_sent_requests();
}

void tesk_client_session::tell(const tesk_client_event &event)
{
    call(options_.on_event, &event, options_.user);
}

/* The answer bears the server's reference, not ours: the procedure_ref alone says that it is for
   this establishment. */
void tesk_client_session::receive_establishment(const mbx_signal *signal)
{
    if (state_ != state::establishing)
        return;
    if (signal->number == TESK_CONN_ESTABLISH_REJ) {
        const auto rej = host_copy_of<tesk_conn_establish_rej>(signal);
        if (rej && rej->procedure_ref == last_procedure_ref_) {
            establishment_ =
                failure(TESK_CLIENT_REJECTED, decode_error_text(rej->error_description));
            retry_later();
        }
        return;
    }
    const auto cfm = host_copy_of<tesk_conn_establish_cfm>(signal);
    if (!cfm || cfm->procedure_ref != last_procedure_ref_ ||
        cfm->protocol_rev != TESK_PROTOCOL_REVISION)
        return;
    client_id_ = cfm->connection_ref;
    state_ = state::connected;
    retry_ = std::chrono::milliseconds(options_.retry_ms);
    if (!std::exchange(was_connected_, true))
        return; /* the first: the caller of connect waits for it, and there is nothing to renew */
    renewals_.clear();
    for (const auto &[key, confirmed] : subscriptions_)
        renewals_.push_back(key);
    tesk_client_event event{};
    event.type = TESK_CLIENT_EVENT_RESTORED;
    event.text = "the server is back";
    tell(event);
}

bool tesk_client_session::holds(tesk_client_kind kind, uint32_t port_no) const
{
    return subscriptions_.contains({kind, port_no});
}

/* An indication bears the procedure_ref of the latest subscribe or unsubscribe, whichever port that
   was for: number and port alone say what it belongs to. */
void tesk_client_session::receive_indication(const mbx_signal *signal)
{
    if (signal->number == TESK_SFP_INFO_IND) {
        const auto info = decode_sfp_info(signal);
        if (info && holds(TESK_CLIENT_SFP_INFO, info->port_no))
            call(options_.on_sfp_info, &*info, options_.user);
        return;
    }
    const auto status = decode_port_status(signal);
    if (status && holds(TESK_CLIENT_PORT_STATUS, status->port_no))
        call(options_.on_port_status, &*status, options_.user);
}

void tesk_client_session::receive(const mbx_signal *signal)
{
    if (mbx_sender(signal) != server_)
        return;
    switch (signal->number) {
    case MBX_MONITOR_DEFAULT_NO:
        lose_server();
        break;
    case TESK_CONN_ESTABLISH_CFM:
    case TESK_CONN_ESTABLISH_REJ:
        receive_establishment(signal);
        break;
    case TESK_SFP_INFO_IND:
    case TESK_PORT_STATUS_IND: {
        const auto header = host_copy_of<tesk_header>(signal);
        if (state_ == state::connected && header && header->connection_ref == conn_ref_)
            receive_indication(signal);
        break;
    }
    default:
        receive_answer(signal);
        break;
    }
}

void tesk_client_session::handle_time()
{
    const steady_clock::time_point now = steady_clock::now();
    if (state_ == state::establishing && now >= phase_end_) {
        establishment_ = failure(TESK_CLIENT_TIMEOUT, "the server doesn't answer the connection");
        retry_later();
    }
    if (state_ == state::waiting && now >= phase_end_) {
        establishment_ = begin_connection();
        if (establishment_.result != TESK_CLIENT_OK)
            retry_later();
    }
    expire_requests(now);
}

void tesk_client_session::arm_timer()
{
    std::optional<steady_clock::time_point> next = next_deadline();
    const bool has_phase = state_ == state::establishing || state_ == state::waiting;
    if (has_phase && (!next || phase_end_ < *next))
        next = phase_end_;
    if (next == armed_)
        return; /* saves a system call for most signals */
    armed_ = next;
    itimerspec setting{};
    if (next) {
        /* A setting of 0 would disarm: a time that has passed is as good as one nanosecond. */
        const auto since_boot =
            std::max<int64_t>(std::chrono::nanoseconds(next->time_since_epoch()).count(), 1);
        setting.it_value.tv_sec = since_boot / 1'000'000'000;
        setting.it_value.tv_nsec = since_boot % 1'000'000'000;
    }
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

tesk_client_result tesk_client_session::dispatch()
{
    /* Both descriptors count, and stay readable until they are read. */
    uint64_t count = 0;
    if (read(stop_event_.get(), &count, sizeof(count)) > 0)
        stopped_ = true;
    if (read(timer_.get(), &count, sizeof(count)) > 0)
        armed_.reset();
    bool drained = false;
    for (int i = 0; i < signals_per_dispatch && mailbox_fd_ >= 0 && !drained; i++) {
        const owned_signal signal(mbx_receive(nullptr, 0, MBX_ANY_SENDER));
        drained = signal == nullptr;
        if (!drained)
            receive(signal.get());
    }
    /* An answer that is here already is in time, however late we look. */
    if (drained || mailbox_fd_ < 0)
        handle_time();
    send_what_fits();
    arm_timer();
    return state_ == state::ended ? TESK_CLIENT_LOST : TESK_CLIENT_OK;
}

bool tesk_client_session::wait(int timeout_ms) const
{
    epoll_event event{};
    return epoll_wait(epoll_.get(), &event, 1, timeout_ms) > 0;
}

tesk_client_result tesk_client_session::run(int timeout_ms)
{
    const steady_clock::time_point end =
        steady_clock::now() + std::chrono::milliseconds(std::max(timeout_ms, 0));
    int left = -1;
    do {
        if (state_ == state::ended)
            return TESK_CLIENT_LOST;
        if (timeout_ms >= 0)
            left = remaining_ms(end);
        if (!stopped_ && wait(left))
            dispatch();
    } while (!std::exchange(stopped_, false) && left != 0);
    return TESK_CLIENT_OK;
}

void tesk_client_session::stop()
{
    const int saved = errno; /* this may be a signal handler */
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(stop_event_.get(), &one, sizeof(one));
    errno = saved;
}
