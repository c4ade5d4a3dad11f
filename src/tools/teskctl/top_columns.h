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
       `name_width` is that of the longest name of an interface; 0 leaves their column out. */
    top_columns(size_t width, size_t name_width);

    /* The columns of the terminal that a line takes, and the lines: head and rows. */
    size_t width() const;
    std::string head() const;
    std::string row(uint32_t port_no, const top_port &port, bool is_selected, bool coloured) const;

  private:
    size_t width_of(size_t index) const;

    std::vector<size_t> shown_; /* indices into the table of columns */
    size_t port_width_;
    size_t name_width_;
};
