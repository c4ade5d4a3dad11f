/* SPDX-License-Identifier: Apache-2.0 */
/* fuzz_input - reads an input value by value; past its end, every byte is 0. Assertions are
   enabled in all builds. */
#pragma once

#undef NDEBUG
#include <cassert>
#include <cstddef>
#include <cstdint>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

struct fuzz_input {
    const uint8_t *at;
    const uint8_t *end;

    uint8_t byte()
    {
        return at == end ? uint8_t{0} : *at++;
    }
    /* A number of `bytes` bytes, big-endian. */
    uint32_t number(int bytes)
    {
        uint32_t value = 0;
        for (; bytes > 0; bytes--)
            value = value << 8 | byte();
        return value;
    }
    template <typename value_type, size_t count>
    const value_type &one_of(const value_type (&values)[count])
    {
        return values[byte() % count];
    }
};
