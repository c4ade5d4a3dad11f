/* SPDX-License-Identifier: Apache-2.0 */
/* top_keys - converts bytes from the terminal to keys. One thread. */
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class key_code : uint8_t {
    letter, /* any printable ASCII */
    up,
    down,
    page_up,
    page_down,
    home,
    end,
    enter,
    backspace,
    escape,
};

struct key {
    key_code code;
    char letter = 0;
};

class key_parser
{
  public:
    /* The keys in these bytes. An escape sequence may be split between two calls; a lone escape at
       the end is the escape key. Unknown sequences are dropped. */
    std::vector<key> parse(std::string_view bytes);

  private:
    std::string rest_; /* bytes of an incomplete sequence */
};
