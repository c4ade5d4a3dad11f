/* SPDX-License-Identifier: Apache-2.0 */
/* requests - checks, carries out and answers the requests of a packet. Pure except for the reading
   that is passed in. No state. */
#pragma once

#include "platform/linux_interfaces/reader_protocol.h"

#include <cstdint>
#include <functional>
#include <span>
#include <vector>

namespace module_reader
{

/* Makes one reading, or answers about the reader; the request follows the rules of
   reader_protocol.h. */
using reading = std::function<reader_answer(const reader_request &)>;

/* One answer for each request. Empty if the packet isn't a whole number of requests, or has none or
   too many: the client is then disconnected without an answer. */
std::vector<reader_answer> answer_packet(std::span<const uint8_t> packet, const reading &read);

} // namespace module_reader
