/* fuzz_input - an input as a byte-code, and what must hold. Behind the end every byte is 0. */
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

class fuzz_input
{
  public:
    fuzz_input(const uint8_t *data, size_t size) : at_(data), end_(data + size)
    {
    }
    bool empty() const
    {
        return at_ == end_;
    }
    uint8_t byte()
    {
        return empty() ? uint8_t{0} : *at_++;
    }
    template <typename value_type, size_t count>
    const value_type &one_of(const value_type (&values)[count])
    {
        return values[byte() % count];
    }

  private:
    const uint8_t *at_;
    const uint8_t *end_;
};

#define require(condition)                                                                         \
    do {                                                                                           \
        if (!(condition)) {                                                                        \
            fprintf(stderr, "%s:%d: doesn't hold: %s\n", __FILE__, __LINE__, #condition);          \
            abort();                                                                               \
        }                                                                                          \
    } while (0)
