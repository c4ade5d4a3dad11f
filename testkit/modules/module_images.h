/* SPDX-License-Identifier: Apache-2.0 */
/* module_images - memories of modules, constructed by hand. */
#pragma once

#include "platform/dolm_ric/linux/decode/module_memory.h"

#include <chrono>
#include <cstdint>
#include <cstring>
#include <map>
#include <string_view>
#include <vector>

namespace module_images
{

/* 256 bytes and the following pages, as a driver returns them: 128 lower bytes, page 0, page 1. */
using bytes = std::vector<uint8_t>;

inline void put16(bytes &image, size_t at, int value)
{
    image[at] = static_cast<uint8_t>(value >> 8);
    image[at + 1] = static_cast<uint8_t>(value);
}

inline void put_text(bytes &image, size_t at, size_t length, std::string_view text)
{
    memset(&image[at], ' ', length);
    memcpy(&image[at], text.data(), text.size());
}

/* Writes the checksum of the bytes from `first` to before `at` at `at`. */
inline void put_sum(bytes &image, size_t first, size_t at)
{
    image[at] = 0;
    for (size_t n = first; n < at; n++)
        image[at] = static_cast<uint8_t>(image[at] + image[n]);
}

/* Writes the checksums of pages 01h and 02h of a CMIS module. */
inline void put_page_sums(bytes &image)
{
    put_sum(image, 128 + 130, 128 + 255), put_sum(image, 256 + 128, 256 + 255);
}

/* Both memories of a module and, by bank, its page 11h. */
struct image {
    bytes a0 = bytes(256);
    bytes a2 = bytes(256);
    std::map<uint8_t, bytes> lanes; /* page 11h of a bank, as a whole memory from byte 0 on */

    std::span<const uint8_t> at(const linux_board::memory_range &range) const
    {
        const bytes &from = range.page == 0x11 && !lanes.empty() ? lanes.at(range.bank)
                            : range.address == identity_address  ? a0
                                                                 : a2;
        const bool is_flat = range.page == 0x11 && !lanes.empty();
        const size_t start = range.offset + (is_flat ? 0u : range.page * 128u);
        if (start + range.length > from.size())
            return {};
        return std::span(from).subspan(start, range.length);
    }

    /* Reads everything that the plan requests, as the poller does. */
    linux_board::module_memory read() const
    {
        const linux_board::module_memory::time_point read_at{std::chrono::seconds(1)};
        linux_board::module_memory memory;
        for (size_t done = 0;; done++) {
            const auto plan = reading_plan(memory);
            if (done == plan.size())
                return memory;
            memory.store(plan[done].range, at(plan[done].range), read_at);
        }
    }
};

/* A 10GBASE-SR module: T 25.719, 3.3012 V, 7.176 mA, 584.6 uW, 432.1 uW, internally calibrated. */
inline image sfp(uint8_t diagnostics_type = 0x68)
{
    image made;
    bytes &a0 = made.a0;
    a0[0] = 3, a0[1] = 4, a0[2] = 7, a0[3] = 0x10, a0[11] = 6, a0[12] = 103;
    put_text(a0, 20, 16, "EXAMPLE");
    a0[37] = 0x00, a0[38] = 0x90, a0[39] = 0x65;
    put_text(a0, 40, 16, "EX-10G");
    put_text(a0, 56, 4, "A");
    a0[65] = 0x1a; /* the module has the lines LOS, TX_FAULT and TX_DISABLE */
    put_text(a0, 68, 16, "0001");
    put_text(a0, 84, 8, "240115");
    a0[92] = diagnostics_type, a0[93] = 0xf0, a0[94] = 8;
    put_sum(a0, 0, 63), put_sum(a0, 64, 95);

    static constexpr int limits[] = {78 * 256, -13 * 256, 73 * 256, -8 * 256, 37000, 29000, 36000,
                                     30000,    6500,      1000,     6250,     1250,  10000, 1000,
                                     7943,     1259,      10000,    100,      7943,  158};
    size_t at = 0;
    for (const int limit : limits)
        put16(made.a2, at, limit), at += 2;
    put16(made.a2, 68, 0x3f80);
    for (at = 76; at < 92; at += 4)
        put16(made.a2, at, 0x100);
    put_sum(made.a2, 0, 95);
    static constexpr int values[] = {6584, 33012, 3588, 5846, 4321};
    at = 96;
    for (const int value : values)
        put16(made.a2, at, value), at += 2;
    return made;
}

inline image module_with_serial(std::string_view serial)
{
    image made = sfp();
    put_text(made.a0, 68, 16, serial);
    put_sum(made.a0, 64, 95);
    return made;
}

/* With constants that change every value; `raw` are the raw values of T, vcc, bias, tx and rx
   power. */
inline image external_sfp(std::array<int, 5> raw = {-2560, 33000, 3000, 2500, 1000})
{
    image made = sfp(0x58);
    static constexpr int constants[] = {0x0000, 0x0000, 0x0000, 0x0000, 0x3727, 0xc5ac,
                                        0x3f00, 0x0000, 0x4000, 0x0000, 0x0120, 100,
                                        0x0200, -50,    0x0110, -128,   0x0100, -200};
    size_t at = 56;
    for (const int constant : constants)
        put16(made.a2, at, constant), at += 2;
    put_sum(made.a2, 0, 95);
    at = 96;
    for (const int value : raw)
        put16(made.a2, at, value), at += 2;
    return made;
}

/* A 100GBASE-LR4 module with page 3; each of its four lanes has 30.000 mA, 2000.0 uW and 500.0
   uW. */
inline image qsfp()
{
    image made;
    bytes &a0 = made.a0;
    a0.resize(640);
    a0[0] = a0[128] = 0x11;
    put16(a0, 22, 7424), put16(a0, 26, 33000);
    for (size_t lane = 0; lane < 4; lane++)
        put16(a0, 34 + 2 * lane, 5000), put16(a0, 42 + 2 * lane, 15000),
            put16(a0, 50 + 2 * lane, 20000);
    a0[194] = 0x30, a0[195] = 0x1a; /* reports all conditions */
    a0[130] = 7, a0[131] = 0x80, a0[140] = 0xff, a0[192] = 0x03, a0[222] = 103;
    put_text(a0, 148, 16, "EXAMPLE");
    put_text(a0, 168, 16, "EX-100G");
    put_text(a0, 184, 2, "A");
    put_text(a0, 196, 16, "Q001");
    put_text(a0, 212, 8, "240116");
    a0[220] = 0x0c;
    put_sum(a0, 128, 191), put_sum(a0, 192, 223);
    static constexpr int limits[] = {20480, -2560, 19200, -1280, 36300, 29700, 35000,
                                     31000, 20000, 400,   15000, 800,   30000, 1000,
                                     20000, 2000,  36000, 5000,  35000, 10000};
    static constexpr size_t places[] = {128, 144, 176, 184, 192};
    for (size_t group = 0; group < 5; group++)
        for (size_t n = 0; n < 4; n++)
            put16(a0, 384 + places[group] + 2 * n, limits[4 * group + n]);
    return made;
}

/* An 800G module with pages 01h, 02h and 10h and two banks of page 11h: each lane has 2 mA x 4 and
   1000.0 uW. */
inline image cmis()
{
    image made;
    bytes &a0 = made.a0;
    a0.resize(size_t{0x10 + 2} * 128);
    a0[0] = a0[128] = 0x19, a0[3] = 0x06;
    put16(a0, 14, 14830), put16(a0, 16, 33057);
    a0[86] = 0x4f, a0[90] = 0x51, a0[94] = 0xff;
    put_text(a0, 129, 16, "EXAMPLE");
    put_text(a0, 148, 16, "EX-800G");
    put_text(a0, 164, 2, "A");
    put_text(a0, 166, 16, "C001");
    put_text(a0, 182, 8, "240117");
    a0[203] = 7, a0[212] = 6;
    put_sum(a0, 128, 222);
    a0[128 + 142] = 1, a0[128 + 160] = 0x17;
    static constexpr int limits[] = {20480, -1280, 19200, 0,     36300, 29700, 35000,
                                     31000, 40000, 1000,  30000, 2000,  9000,  500,
                                     8000,  700,   40000, 1000,  30000, 2000};
    static constexpr size_t places[] = {128, 136, 176, 184, 192};
    for (size_t group = 0; group < 5; group++)
        for (size_t n = 0; n < 4; n++)
            put16(a0, 256 + places[group] + 2 * n, limits[4 * group + n]);
    put_page_sums(a0);
    for (uint8_t bank = 0; bank < 2; bank++) {
        bytes &page = made.lanes[bank];
        page.resize(256);
        for (size_t lane = 0; lane < 8; lane++)
            put16(page, 154 + 2 * lane, 10000), put16(page, 170 + 2 * lane, 1000),
                put16(page, 186 + 2 * lane, 10000);
    }
    return made;
}

/* A CMIS module with versatile diagnostics (VDM): a bit error ratio of 2.4e-6 between its limits,
   for a lane, and an SNR of 20 dB without limits. */
inline image cmis_with_vdm()
{
    image made = cmis();
    made.a0.resize(size_t{0x30 + 1} * 128);
    made.a0[128 + 142] |= 0x40;
    put_page_sums(made.a0);
    const auto put = [&](size_t page, size_t at, int value) {
        put16(made.a0, page * 128 + at, value);
    };
    put(0x20, 128, 0x120f), put(0x24, 128, 16 << 11 | 240); /* set 1, lane 2 of the medium */
    put(0x20, 254, 0x0306), put(0x24, 254, 20 * 256);       /* lane 3 of the host */
    put(0x28, 136, 20 << 11 | 1), put(0x28, 138, 0), put(0x28, 140, 14 << 11 | 1);
    return made;
}

} // namespace module_images
