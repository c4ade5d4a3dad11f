/* SPDX-License-Identifier: Apache-2.0 */
/* Decodes random module memory: the reading plan stays within the memory, and the records agree
   with the decoded contents.

   An input is a byte of options, the lanes of the port (4 bytes), and the bytes of the plan's
   ranges in order. Option 1 corrects the checksums, 2 stops the port, 4 and 8 choose a range that
   can't be read. */
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "tests/fuzz/fuzz_input.h"

#include <numeric>
#include <vector>

using namespace linux_board;

static void put_sums_right(const memory_range &range, std::vector<uint8_t> &bytes)
{
    static constexpr struct {
        memory_range range;
        size_t first, last;
    } sums[] = {{{0x50, 0, 0, 0, 96}, 0, 63},     {{0x50, 0, 0, 0, 96}, 64, 95},
                {{0x51, 0, 0, 0, 96}, 0, 95},     {{0x50, 0, 0, 128, 96}, 0, 63},
                {{0x50, 0, 0, 128, 96}, 64, 95},  {{0x50, 0, 0, 128, 95}, 0, 94},
                {{0x50, 0, 1, 128, 128}, 2, 127}, {{0x50, 0, 2, 128, 128}, 0, 127}};
    for (const auto &sum : sums)
        if (sum.range == range)
            bytes[sum.last] = static_cast<uint8_t>(
                std::accumulate(bytes.begin() + static_cast<long>(sum.first),
                                bytes.begin() + static_cast<long>(sum.last), 0));
}

static module_memory read_memory(fuzz_input &input, uint8_t options)
{
    module_memory memory;
    std::vector<reading_step> plan = reading_plan(memory);
    for (size_t at = 0; at < plan.size(); at++) {
        const memory_range &range = plan[at].range;
        assert(range.length > 0 && range.offset + range.length <= 256);
        assert(range.offset >= 128 || (range.offset + range.length <= 128 && range.page == 0));
        std::vector<uint8_t> bytes(range.length);
        for (uint8_t &byte : bytes)
            byte = input.byte();
        if (options & 1)
            put_sums_right(range, bytes);
        if (at == 0 || (options >> 2 & 3) != at % 4)
            memory.store(range, bytes, {});
        const std::vector<reading_step> longer = reading_plan(memory);
        assert(longer.size() <= 64 && longer.size() > at);
        assert(longer[at].range == range);
        plan = longer;
    }
    return memory;
}

/* The grade that the server computes from a record. */
template <typename number>
static int level(number value, number low_warning, number high_warning, number low_alarm,
                 number high_alarm)
{
    if (value <= low_warning)
        return value > low_alarm ? 1 : 3;
    if (value < high_warning)
        return 0;
    return value < high_alarm ? 2 : 4;
}

static void check(bool is_valid, const measurement &its, const port_view &port, bool is_light,
                  int64_t value, int64_t low_warning, int64_t high_warning, int64_t low_alarm,
                  int64_t high_alarm)
{
    if (!is_valid)
        return;
    assert(!its.lanes.empty());
    const int told = level(value, low_warning, high_warning, low_alarm, high_alarm);
    const bool has_limits = its.limits && its.limits->are_in_order();
    assert(has_limits || told == 0);
    if (has_limits && its.lanes.size() == 1 && !(port.stopped && is_light))
        assert(told == level(its.lanes[0].value, its.limits->low_warning, its.limits->high_warning,
                             its.limits->low_alarm, its.limits->high_alarm));
    assert(!(port.stopped && is_light && (told == 1 || told == 3)));
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input input{data, data + size};
    const uint8_t options = input.byte();
    const port_view port = {.lanes = input.number(4), .stopped = (options & 2) != 0};
    const module_contents contents = decode_module(read_memory(input, options));
    const module_records records = make_records(contents, port);
    const dolm_ric_module_diag &d = records.diag;

    assert(records.ready == contents.ready);
    assert(records.ready || (records.info_result != 0 && records.diag_result != 0));
    assert(records.info.sfp.sfp_vendor_name[16] == 0 && records.info.sfp.sfp_vendor_sn[16] == 0);
    assert(records.status.status <= 3 && d.diag_cap <= 0x1f);
    assert(!contents.copper || (d.diag_cap & 0x1c) == 0);
    assert(records.diag_result == 0 || d.diag_cap == 0);
#define CHECK(bit, its, name, is_light)                                                            \
    check((d.diag_cap & (bit)) != 0, contents.its, port, is_light, d.name, d.name##_low_warn,      \
          d.name##_high_warn, d.name##_low_alarm, d.name##_high_alarm)
    CHECK(DOLM_SFP_DIAGCAP_TEMP, temperature, temperature, false);
    CHECK(DOLM_SFP_DIAGCAP_VOLTAGE, voltage, voltage, false);
    CHECK(DOLM_SFP_DIAGCAP_TXBIAS, tx_bias, txbias, true);
    CHECK(DOLM_SFP_DIAGCAP_TXPOWER, tx_power, txpower, true);
    CHECK(DOLM_SFP_DIAGCAP_RXPOWER, rx_power, rxpower, true);
    return 0;
}
