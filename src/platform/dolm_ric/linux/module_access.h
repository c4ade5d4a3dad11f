/* SPDX-License-Identifier: Apache-2.0 */
/* module_access - the interface by which the poller reads modules' memories: implemented by the
   client of tesk-module-reader, by files, and by tests. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_memory.h"
#include "platform/linux_interfaces/reader_protocol.h"

#include <array>
#include <cstdint>
#include <span>

namespace linux_board
{

/* The longest reading: the kernel's lock is held meanwhile, and no other caller should wait long
   for it. */
constexpr uint8_t longest_piece = READER_LONGEST_READ;

/* Instead of an errno: no reading was made, as another tool has leased the module. */
constexpr int module_is_leased = -1;

/* One short reading and its result. */
struct piece {
    uint32_t port;
    memory_range range;
    int error = 0;         /* errno; ENOTCONN if there is no reader at all; or module_is_leased */
    int32_t interface = 0; /* index of the interface whose module was read; 0: none */
    std::array<uint8_t, longest_piece> bytes = {};
};

/* The most pieces that are passed to a module_access at once. */
constexpr size_t most_pieces = READER_MOST_REQUESTS;

struct module_access {
    virtual ~module_access() = default;
    /* Makes the readings in their order. After a failed reading, later ones of the same port are
       not made and get ECANCELED. */
    virtual void read(std::span<piece> pieces) = 0;
};

} // namespace linux_board
