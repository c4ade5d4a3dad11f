/* SPDX-License-Identifier: Apache-2.0 */
/* escape - makes bytes from outside safe to show. No state. */
#pragma once

#include <string>
#include <string_view>

/* Printable ASCII is unchanged, a backslash is doubled, every other byte becomes \xNN. */
inline std::string escape(std::string_view bytes)
{
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    text.reserve(bytes.size());
    for (const char byte : bytes) {
        const auto code = static_cast<unsigned char>(byte);
        if (byte == '\\')
            text += "\\\\";
        else if (byte >= ' ' && byte <= '~')
            text += byte;
        else
            text.append({'\\', 'x', digits[code >> 4], digits[code & 15]});
    }
    return text;
}
