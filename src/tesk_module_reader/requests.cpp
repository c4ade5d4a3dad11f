/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: answer_packet() checks the form of all requests, then answers one after the other:
   questions about the reader, and readings. */
#include "tesk_module_reader/requests.h"

#include "util/module_addresses.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace module_reader
{

static constexpr unsigned page_begin = 128;
static constexpr unsigned memory_end = 256;

static bool is_about_reader(const reader_request &request)
{
    return request.address == READER_ITSELF && request.offset <= READER_END &&
           request.length == READER_CHECKSUM_LENGTH && request.port == 0 && request.bank == 0 &&
           request.page == 0 && request.zero == 0;
}

static bool is_reading(const reader_request &request)
{
    const unsigned end = unsigned{request.offset} + request.length;
    const bool in_lower = request.offset < page_begin;
    const bool has_page = request.page != 0 || request.bank != 0;
    if (request.address != identity_address && request.address != diagnostics_address)
        return false;
    if (request.length == 0 || request.length > READER_LONGEST_READ || request.zero != 0)
        return false;
    if (end > (in_lower ? page_begin : memory_end))
        return false;
    return !has_page || (!in_lower && request.address == identity_address);
}

/* The bytes of a failed answer are all 0. */
static reader_answer failed(int error, int32_t interface = 0)
{
    reader_answer answer = {};
    answer.error = error;
    answer.interface = interface;
    return answer;
}

std::vector<reader_answer> answer_packet(std::span<const uint8_t> packet, const reading &read)
{
    std::vector<reader_answer> answers;
    std::vector<uint16_t> failing; /* ports */
    const size_t count = packet.size() / sizeof(reader_request);
    if (packet.size() % sizeof(reader_request) != 0 || count > READER_MOST_REQUESTS)
        return answers;
    for (size_t i = 0; i < count; i++) {
        reader_request request;
        memcpy(&request, packet.data() + i * sizeof(request), sizeof(request));
        if (!is_reading(request) && !is_about_reader(request)) {
            answers.push_back(failed(EINVAL));
            continue;
        }
        if (std::find(failing.begin(), failing.end(), request.port) != failing.end()) {
            answers.push_back(failed(ECANCELED));
            continue;
        }
        const reader_answer answer = read(request);
        if (answer.error != 0)
            failing.push_back(request.port);
        answers.push_back(answer.error == 0 ? answer : failed(answer.error, answer.interface));
    }
    return answers;
}

} // namespace module_reader
