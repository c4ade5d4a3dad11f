/* SPDX-License-Identifier: Apache-2.0 */
/* top_columns - the columns of `teskctl top`, as many as a window has room for. One thread. */
#pragma once

#include "tools/teskctl/layout.h"
#include "tools/teskctl/top_port.h"

#include <vector>

class top_columns
{
  public:
    /* Leaves out columns until the others fit, the least important first. PORT always stays.
       `name_width` is the width of the longest interface name; 0 leaves the column of names out. */
    top_columns(size_t width, size_t name_width);

    /* The width of a line in columns of the terminal, and the lines: head and rows. */
    size_t width() const;
    std::string head() const;
    std::string row(uint32_t port_no, const top_port &port, bool is_selected, bool coloured) const;

  private:
    size_t width_of(size_t index) const;

    std::vector<size_t> shown_; /* indices into the table of columns */
    size_t port_width_;
    size_t name_width_;
};
