/* SPDX-License-Identifier: Apache-2.0 */
/* A session owns one epoll descriptor, which the program polls. It contains the mailbox, one timer
   for the nearest deadline, and an eventfd for tesk_client_stop.

   Received signals are checked: a signal that isn't from the server, is too short, or has another
   client's reference is dropped silently. */
#include "tesk_client/tesk_client_session.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <sys/epoll.h>
#include <sys/timerfd.h>
#include <system_error>
#include <unistd.h>

/* The limit for one dispatch, so that a busy server doesn't keep the program from its other work;
   the descriptor stays readable for the rest. */
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

static int remaining_ms(steady_clock::time_point end)
{
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - steady_clock::now());
    return static_cast<int>(std::max<int64_t>(left.count(), 0));
}

tesk_client_session::tesk_client_session(const tesk_client_options &options)
    : options_(with_defaults(options)), epoll_(checked(epoll_create1(EPOLL_CLOEXEC))),
      timer_(checked(timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC))),
      retry_(options_.retry_ms), conn_ref_(static_cast<uint32_t>(getpid()))
{
    checked(add_to_epoll(epoll_.get(), timer_.get()));
    checked(add_to_epoll(epoll_.get(), stop_event_.fd()));
}

tesk_client_session::~tesk_client_session()
{
    end_connection();
}

/* An indication carries the procedure_ref of the client's latest subscribe or unsubscribe, whatever
   its port: only number and port identify the subscription. */
void tesk_client_session::receive_indication(const mbx_signal *signal)
{
    if (signal->number == TESK_SFP_INFO_IND) {
        const auto info = decode_sfp_info(signal);
        if (info && is_subscribed(TESK_CLIENT_SFP_INFO, info->port_no))
            call(options_.on_sfp_info, &*info, options_.user);
        return;
    }
    const auto status = decode_port_status(signal);
    if (status && is_subscribed(TESK_CLIENT_PORT_STATUS, status->port_no))
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
        retry_later();
        establishment_ = {TESK_CLIENT_TIMEOUT, "the server doesn't answer the connection"};
    }
    if (state_ == state::waiting && now >= phase_end_) {
        establishment_ = begin_connection();
        if (establishment_.result != TESK_CLIENT_OK)
            retry_later();
    }
    while (expire_one(now)) {
    }
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
        /* A time of 0 would disarm the timer, so a time in the past is set to at least one
           nanosecond. */
        const auto since_boot =
            std::max<int64_t>(std::chrono::nanoseconds{next->time_since_epoch()}.count(), 1);
        setting.it_value.tv_sec = since_boot / 1'000'000'000;
        setting.it_value.tv_nsec = since_boot % 1'000'000'000;
    }
    timerfd_settime(timer_.get(), TFD_TIMER_ABSTIME, &setting, nullptr);
}

tesk_client_result tesk_client_session::dispatch()
{
    /* The timer is set even if a lack of memory ends this call, so that the next call continues
       here. */
    struct rearm {
        tesk_client_session &session;
        ~rearm()
        {
            session.arm_timer();
        }
    } const at_end{*this};

    /* Timer and eventfd stay readable until they are read. */
    uint64_t count = 0;
    if (stop_event_.take())
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
    /* Received answers are handled before deadlines: a request whose answer has arrived must not
       expire. */
    if (drained || mailbox_fd_ < 0)
        handle_time();
    send_what_fits();
    return state_ == state::ended ? TESK_CLIENT_LOST : TESK_CLIENT_OK;
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

tesk_client_result tesk_client_session::request(tesk_client_request_type type, uint32_t port_no,
                                                tesk_client_answered answered, void *user)
{
    if (state_ == state::ended)
        return TESK_CLIENT_LOST;
    add_request(type, port_no, answered, user);
    arm_timer();
    return TESK_CLIENT_OK;
}

void tesk_client_session::stop()
{
    const int saved = errno; /* the caller may be a signal handler */
    stop_event_.signal();
    errno = saved;
}
