/* SPDX-License-Identifier: Apache-2.0 */
/* Parses random datagrams as messages of the kernel: no byte past the end is read, and for each
   report the table of links announces a limited number of events. Reads get the reported state, and
   the last event has it once the link has settled. */
#include "platform/dolm_ric/linux/link_table.h"
#include "platform/linux_interfaces/link_report.h"
#include "tests/fuzz/fuzz_input.h"

#include <chrono>

using namespace linux_board;

namespace
{

struct counter final : link_listener {
    void link_changed(uint32_t, const link_values &now) override
    {
        events++;
        announced = state = now.state;
        assert(state <= 2);
    }
    void link_known(uint32_t, const link_values &now) override
    {
        state = now.state;
    }
    void interface_changed(uint32_t, const link_report *) override
    {
    }
    size_t events = 0;
    uint32_t state = 1; /* the state that a read returns */
    uint32_t announced = 1;
};

} // namespace

static void take(link_table &table, counter &counted, const link_report &report)
{
    counted.events = 0;
    table.take(report,
               report.rises % 2 == 0 ? link_table::origin::notice : link_table::origin::answer, {});
    assert(counted.events <= 2 * max_falls + 2);
    if (report.deleted)
        assert(!table.port_of(report.index) && table.index_of(1) != report.index);
    else if (report.rises % 2 != 0 && table.port_of(report.index))
        assert(counted.state == (!report.started ? 0u : report.operational ? 2u : 1u));
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    counter counted;
    link_table table(counted);
    table.add(1, [](const link_report &report) { return report.name.size() != 1; });
    netlink::byte_view rest(data, size);
    while (const auto message = netlink::take_message(rest)) {
        assert(netlink::error_of(*message) >= 0);
        assert(netlink::generic_attributes(*message).size() <= message->body.size());
        if (const auto report = parse_link(*message)) {
            assert(report->index > 0 && (!report->operational || report->started));
            take(table, counted, *report);
        }
    }
    assert(rest.empty());
    const uint32_t last = counted.state;
    while (const auto due = table.next_settling())
        table.announce_settled(*due);
    assert(counted.announced == last && counted.state == last);
    return 0;
}
