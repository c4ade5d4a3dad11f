/* SPDX-License-Identifier: Apache-2.0 */
/* Handles random packets as requests to tesk-module-reader: each reading is within a module's
   memory and at most 32 bytes long, each request has one answer, and an answer with an error
   contains no bytes of the module; requests about the reader have their defined form. The bits of
   the first byte choose the readings that fail. */
#include "tesk_module_reader/requests.h"
#include "tests/fuzz/fuzz_input.h"

#include <algorithm>
#include <cerrno>

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    fuzz_input in = {data, data + size};
    const uint8_t failing = in.byte();
    const std::span<const uint8_t> packet(in.at, in.end);
    size_t readings = 0;
    const auto answers = module_reader::answer_packet(packet, [&](const reader_request &asked) {
        const unsigned end = asked.offset + unsigned{asked.length};
        if (asked.address == READER_ITSELF) {
            assert(asked.offset <= READER_END && asked.length == 8 && asked.port == 0);
            return reader_answer{};
        }
        assert(asked.address == 0x50 || asked.address == 0x51);
        assert(asked.length >= 1 && asked.length <= 32);
        assert(asked.offset < 128 ? end <= 128 && asked.page == 0 && asked.bank == 0 : end <= 256);
        assert(asked.address == 0x50 || (asked.page == 0 && asked.bank == 0));
        reader_answer answer = {.error = 0, .interface = 7, .bytes = {1, 2, 3}};
        answer.error = (failing >> readings++ % 8 & 1) != 0 ? EIO : 0;
        return answer;
    });
    const bool is_whole = packet.size() % 8 == 0 && packet.size() <= size_t{8} * 16;
    assert(answers.size() == (is_whole ? packet.size() / 8 : 0));
    for (const reader_answer &answer : answers)
        assert(answer.error == 0 || std::count(answer.bytes, answer.bytes + 32, 0) == 32);
    return 0;
}
