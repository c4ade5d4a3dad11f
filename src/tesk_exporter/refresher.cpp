/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: request() names a port and wakes the thread, which connects, subscribes, takes the
   grades from the first indication, and closes the session. */
#include "tesk_exporter/refresher.h"

#include <utility>

namespace exporter
{

static constexpr uint32_t refresh_deadline_ms = 2000;

refresher::refresher(fact_queue &facts) : facts_(facts)
{
    thread_.start([this] { run(); });
}

refresher::~refresher()
{
    thread_.stop();
}

void refresher::request(uint32_t port_no)
{
    wanted_port_ = port_no;
    wake_.signal();
}

grades_fact refresher::refresh(uint32_t port_no)
{
    result_ = {port_no, false, {}};
    tesk_client_options options{};
    options.deadline_ms = refresh_deadline_ms;
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
        tesk_client_run(session_, refresh_deadline_ms);
    tesk_client_close(std::exchange(session_, nullptr));
    return result_;
}

void refresher::run()
{
    while (!thread_.must_stop())
        if (thread_.wait(wake_.fd(), std::chrono::hours(1)) && wake_.take())
            facts_.post(refresh(wanted_port_));
}

} // namespace exporter
