/* SPDX-License-Identifier: Apache-2.0 */
/* module_family - functions that the decoders of the three memory layouts share, and the interface
   of a layout for module_decode.h and reading_plan(). No state: any thread. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_memory.h"
#include "platform/dolm_ric/linux/decode/module_speed.h"

#include <array>
#include <cstddef>
#include <cstring>
#include <span>

namespace linux_board
{

/* Bits of sfp_eth_compliance. */
enum eth_compliance : uint32_t {
    ethcomp_10gbase_er = 0x001,
    ethcomp_10gbase_lrm = 0x002,
    ethcomp_10gbase_lr = 0x004,
    ethcomp_10gbase_sr = 0x008,
    ethcomp_1000base_t = 0x010,
    ethcomp_1000base_cx = 0x020,
    ethcomp_1000base_lx = 0x040,
    ethcomp_1000base_sx = 0x080,
    ethcomp_1000base_bx = 0x100,
};

class memory_view;

/* A step of a layout's plan; whether a module needs it, judged by the memory read so far; and, for
   a range that can be read but wrong, whether its bytes are valid. */
struct plan_row {
    reading_step step;
    bool (*is_wanted)(const module_memory &memory);
    bool (*is_right)(const memory_view &bytes) = nullptr;
};

inline bool always(const module_memory &)
{
    return true;
}

/* A layout: where the identity is, the ranges to read, in order, and the decoder, which fills
   contents that are in their initial state. */
struct module_layout {
    module_family family;
    std::span<const plan_row> plan; /* the identity is the first row */
    bool (*is_identity_right)(const memory_view &identity);
    /* Called only with a valid identity. */
    void (*decode)(const module_memory &memory, const memory_view &identity,
                   module_contents &contents);
};

extern const module_layout sfp_layout;
extern const module_layout qsfp_layout;
extern const module_layout cmis_layout;

/* The layout for the identifier in byte 0; nullptr for an unknown identifier, or if it has not been
   read. */
const module_layout *layout_of(const module_memory &memory);

/* The first byte of all memories identifies the layout. */
constexpr memory_range identifier_range = {identity_address, 0, 0, 0, 1};

/* The bytes of one range, addressed by their offsets in the module's memory. Numbers of 16 bits and
   more are big-endian. The offsets must be in the range, and the range must have been read. */
class memory_view
{
  public:
    memory_view(const module_memory &memory, const memory_range &range)
        : bytes_(memory.bytes(range)), start_(range.offset), trusts_sums_(memory.trusts_sums())
    {
    }
    bool was_read() const
    {
        return !bytes_.empty();
    }
    uint8_t u8(size_t offset) const
    {
        return bytes_[offset - start_];
    }
    uint16_t u16(size_t offset) const
    {
        return static_cast<uint16_t>(u8(offset) << 8 | u8(offset + 1));
    }
    int16_t s16(size_t offset) const
    {
        return static_cast<int16_t>(u16(offset));
    }
    float f32(size_t offset) const;
    /* The module's owner has said that its wrong checksums are to be ignored. */
    bool trusts_sums() const
    {
        return trusts_sums_;
    }
    /* A view of the same bytes that checks the checksums whatever the owner has said. */
    memory_view strict() const
    {
        memory_view view = *this;
        view.trusts_sums_ = false;
        return view;
    }
    std::span<const uint8_t> bytes(size_t offset, size_t length) const
    {
        return bytes_.subspan(offset - start_, length);
    }

  private:
    std::span<const uint8_t> bytes_;
    size_t start_;
    bool trusts_sums_;
};

/* Whether the low byte of the sum of `length` bytes equals the byte behind them; also true if the
   checksums of this module are to be ignored. */
bool is_sum_right(const memory_view &view, size_t offset, size_t length);

/* The doubt about a reading with a supply voltage of zero: a module that answers has a supply. Some
   drivers give zeros for bytes that they could not read. */
constexpr char no_voltage[] = "the voltage reads as zero";

/* Whether all bytes are 0x00, or all 0xff, as read from a bus or page where nothing answers. */
bool are_blank(std::span<const uint8_t> bytes);

/* The number of banks of eight lanes that a CMIS module has, by two bits of its page 01h; the
   fourth code is reserved and counts as one bank. The page must have been read. */
inline uint8_t cmis_bank_count(const memory_view &features)
{
    static constexpr uint8_t counts[] = {1, 2, 4, 1};
    return counts[features.u8(142) & 3];
}

/* Converts a raw number: the polynomial of `coefficients` (the constant term first), times
   multiplier / divisor. Linear conversions are exact, so that a value half-way between two units
   stays there until it is rounded. */
struct conversion {
    std::array<double, 5> coefficients = {0, 1, 0, 0, 0};
    double multiplier = 1;
    double divisor = 1;

    double operator()(double raw) const;
};

/* 1/256 degree, 100 uV, 2 uA and 0.1 uW: the steps of all three layouts. TEC currents are parts of
   the largest current. */
constexpr conversion temperature_steps = {.multiplier = 1000, .divisor = 256};
constexpr conversion voltage_steps = {.multiplier = 100};
constexpr conversion bias_steps = {.multiplier = 2};
constexpr conversion power_steps = {.divisor = 10};
constexpr conversion tec_steps = {.multiplier = 100'000, .divisor = 32767};

/* Reads the four limits at `offset`: high alarm, low alarm, high warning, low warning. */
measurement_limits limits_at(const memory_view &view, size_t offset, const conversion &convert);
measurement_limits signed_limits_at(const memory_view &view, size_t offset,
                                    const conversion &convert);

/* The medium of a connector, by its code of SFF-8024. */
medium medium_of_connector(uint8_t code);

/* A copper module that also names a laser has a copy of another module's memory. */
constexpr medium medium_by(bool is_copper, bool is_light)
{
    return is_copper ? medium::copper : is_light ? medium::light : medium::unknown;
}

/* A code of dolm_sfp_connector, by which the server distinguishes the kinds of module: LC for all
   that send light, whatever their plug, RJ45 for copper, OTHER if the memory doesn't show the
   medium. */
uint8_t connector_of(medium carrier);

/* Copies a text without its padding, which is spaces with most makers and NUL or 0xff with some.
   Bytes that aren't printable ASCII become '?'. The rest of the field is NUL. */
template <size_t size>
void copy_text(char (&field)[size], std::span<const uint8_t> bytes)
{
    static_assert(size > 1);
    while (!bytes.empty() && (bytes.back() == ' ' || bytes.back() == 0 || bytes.back() == 0xff))
        bytes = bytes.first(bytes.size() - 1);
    memset(field, 0, size);
    for (size_t at = 0; at < bytes.size() && at + 1 < size; at++)
        field[at] = bytes[at] >= ' ' && bytes[at] <= '~' ? static_cast<char>(bytes[at]) : '?';
}

} // namespace linux_board
