/* SPDX-License-Identifier: Apache-2.0 */
/* module_access - the interface between the poller of the modules and its way to their memories:
   the process tesk-module-reader, a file, or a test. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_memory.h"
#include "platform/linux_interfaces/reader_protocol.h"

#include <array>
#include <cstdint>
#include <span>

namespace linux_board
{

/* No reading is longer: the kernel's lock is held meanwhile, and no other caller should wait long
   for it. */
constexpr uint8_t longest_piece = READER_LONGEST_READ;

/* In the place of an errno: no reading is made, as another tool has leased the module. */
constexpr int module_is_leased = -1;

/* One short reading, and its result. */
struct piece {
    uint32_t port;
    memory_range range;
    int error = 0;         /* errno; ENOTCONN if there is no reader at all; or module_is_leased */
    int32_t interface = 0; /* index of the interface whose module was read; 0 if of none */
    std::array<uint8_t, longest_piece> bytes = {};
};

/* No more pieces go to a module_access at once. */
constexpr size_t most_pieces = READER_MOST_REQUESTS;

struct module_access {
    virtual ~module_access() = default;
    /* Makes the readings in their order. After one that fails, later ones of the same port are not
       made and fail with ECANCELED. */
    virtual void read(std::span<piece> pieces) = 0;
};

} // namespace linux_board
