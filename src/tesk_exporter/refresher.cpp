/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: request() names a port and wakes the thread, which connects, subscribes, takes the
   first indication and its grades, and closes the session. */
#include "tesk_exporter/refresher.h"

#include <cerrno>
#include <sys/eventfd.h>
#include <system_error>
#include <unistd.h>
#include <utility>

namespace exporter
{

static constexpr uint32_t deadline_ms = 2000;

refresher::refresher(fact_queue &facts)
    : facts_(facts), wake_fd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
    if (wake_fd_ < 0)
        throw std::system_error(errno, std::generic_category(), "eventfd");
    thread_.start([this] { run(); });
}

refresher::~refresher()
{
    thread_.stop();
    close(wake_fd_);
}

void refresher::request(uint32_t port_no)
{
    wanted_port_ = port_no;
    eventfd_write(wake_fd_, 1);
}

grades_fact refresher::refresh(uint32_t port_no)
{
    result_ = {port_no, false, {}};
    tesk_client_options options{};
    options.deadline_ms = deadline_ms;
    options.user = this;
    options.on_port_status = [](const tesk_client_port_status *status, void *user) {
        auto *self = static_cast<refresher *>(user);
        self->result_.succeeded = true;
        self->result_.status = *status;
        tesk_client_stop(self->session_);
    };
    if (tesk_client_connect(&options, &session_) != TESK_CLIENT_OK)
        return result_;
    if (tesk_client_subscribe(session_, TESK_CLIENT_PORT_STATUS, port_no) == TESK_CLIENT_OK &&
        !result_.succeeded)
        tesk_client_run(session_, deadline_ms);
    tesk_client_close(std::exchange(session_, nullptr));
    return result_;
}

void refresher::run()
{
    while (!thread_.must_stop()) {
        eventfd_t count = 0;
        if (thread_.wait(wake_fd_, std::chrono::hours(1)) && eventfd_read(wake_fd_, &count) == 0)
            facts_.post(refresh(wanted_port_));
    }
}

} // namespace exporter
