/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: ask() passes the question to the history's thread, resume_answered() assigns each
   answer to its request, and take() returns it. */
#include "tesk_exporter/history_requests.h"

#include <algorithm>
#include <utility>

namespace exporter
{

static constexpr std::chrono::seconds history_patience{10};

bool history_requests::ask(MHD_Connection *http, connection &from, const history_question &asked,
                           steady_time now)
{
    if (history_ == nullptr)
        return false;
    waiting_[http] = {history_->ask(asked), &from, now + history_patience, {0, 0, ""}};
    from.is_waiting = true;
    MHD_suspend_connection(http);
    return true;
}

void history_requests::resume_answered(steady_time now)
{
    if (history_ == nullptr)
        return;
    for (history_answer &made : history_->take_answers()) {
        const auto asked = std::ranges::find_if(
            waiting_, [&](const auto &row) { return row.second.id == made.id; });
        if (asked != waiting_.end())
            asked->second.answer = std::move(made);
    }
    for (auto &[http, waiting] : waiting_) {
        if (waiting.answer.status == 0 && now >= waiting.deadline)
            waiting.answer = {
                waiting.id, MHD_HTTP_SERVICE_UNAVAILABLE,
                "the history doesn't answer yet: it is read after a start, or its disk is slow"};
        if (waiting.answer.status != 0 && std::exchange(waiting.from->is_waiting, false))
            MHD_resume_connection(http);
    }
}

std::optional<history_answer> history_requests::take(MHD_Connection *http)
{
    const auto waiting = waiting_.find(http);
    if (waiting == waiting_.end())
        return std::nullopt;
    history_answer answer = std::move(waiting->second.answer);
    waiting_.erase(waiting);
    return answer;
}

} // namespace exporter
