/* SPDX-License-Identifier: Apache-2.0 */
/* history: the server keeps three histories; sorted by time together they show cause and effect.

   For people, related records are one line: records of the same kind and port with the same
   content, close in time, as when several subscribers are notified of one change. With --json each
   record is an object of its own. */
#include "program/clock.h"
#include "program/output.h"
#include "tools/teskctl/commands.h"
#include "tools/teskctl/event_loop.h"
#include "tools/teskctl/explain.h"
#include "tools/teskctl/history_fold.h"
#include "tools/teskctl/layout.h"
#include "tools/teskctl/report.h"
#include "tools/teskctl/screen.h"
#include "tools/teskctl/session.h"

#include <algorithm>
#include <nlohmann/json.hpp>

static std::vector<history_entry> read_history(const session &server, const std::string &kind)
{
    static constexpr const char *names[] = {"status", "sfp", "actions"};
    std::vector<history_entry> entries;
    for (size_t i = 0; i < std::size(names); i++) {
        if (!kind.empty() && kind != names[i])
            continue;
        const auto wanted = static_cast<tesk_client_history_kind>(i);
        tesk_client_history_record records[TESK_CLIENT_HISTORY_LENGTH];
        size_t count = 0;
        const tesk_client_result result =
            tesk_client_read_history(server.get(), wanted, records, std::size(records), &count);
        if (result != TESK_CLIENT_OK)
            throw tool_error(exit_code_of(result), explain(result, tesk_client_error()));
        for (size_t j = 0; j < count; j++)
            entries.push_back({wanted, records[j]});
    }
    /* A stable sort, so that records of the same microsecond keep the order of their history. */
    std::ranges::stable_sort(entries, {},
                             [](const history_entry &each) { return each.record.time_us; });
    return entries;
}

exit_code run_history(const settings &common, const std::string &kind)
{
    event_loop loop;
    session server(loop, common, {}, false);
    const auto entries = read_history(server, kind);
    if (common.json) {
        for (const history_entry &each : entries)
            reporter(common).line(to_line(to_json(each.record, each.kind)));
        return exit_code::done;
    }
    table shown({"TIME", "PORT", "WHAT"});
    for (const folded_entry &each : fold(entries))
        shown.add({date_and_time(each.first.record.time_us), each.ports, each.what});
    write_text(shown.text(terminal_width(common)));
    return exit_code::done;
}
