/* SPDX-License-Identifier: Apache-2.0 */
/* layout - text in columns of the terminal. No state. */
#pragma once

#include <string>
#include <string_view>
#include <vector>

enum class tint { none, green, yellow, red, dim, bold };
/* The text between the escape sequences of the colour; unchanged if not `enabled`. */
std::string paint(const std::string &text, tint shade, bool enabled);

/* The number of columns that a text takes on the terminal. */
size_t display_width(std::string_view text);
/* The text in exactly `width` columns: padded, or cut. */
std::string fit(std::string_view text, size_t width);

/* A table whose last column takes the remaining width and continues on the lines below. */
class table
{
  public:
    explicit table(std::vector<std::string> header) : rows_{std::move(header)}
    {
    }
    void add(std::vector<std::string> row)
    {
        rows_.push_back(std::move(row));
    }
    /* Without limit if `width` is 0. */
    std::string text(size_t width) const;

  private:
    std::vector<std::vector<std::string>> rows_;
};
