/* SPDX-License-Identifier: Apache-2.0 */
/* top_view - the page of `teskctl top`: its ports, the cursor, sorting and filter. No terminal, no
   session: records and keys in, lines out. One thread. */
#pragma once

#include "program/port_list.h"
#include "tools/teskctl/top_keys.h"
#include "tools/teskctl/top_port.h"

#include <map>
#include <optional>
#include <set>
#include <string>
#include <vector>

class top_columns;

class top_view
{
  public:
    enum class action : uint8_t { none, quit, grade };

    explicit top_view(const std::vector<uint32_t> &ports);

    void add(uint32_t port_no)
    {
        ports_.try_emplace(port_no);
    }
    void remove(uint32_t port_no)
    {
        ports_.erase(port_no);
    }
    /* Sets the names of the interfaces; other ports have no name then. */
    void name(const port_name_map &names);

    /* Records of other ports are ignored: the ports were removed meanwhile. */
    template <typename record_type>
    void show(const record_type &record)
    {
        if (top_port *known = port(record.port_no))
            take(*known, record);
    }
    std::vector<uint32_t> all() const;
    /* Null for a port that isn't shown. */
    top_port *port(uint32_t port_no)
    {
        const auto found = ports_.find(port_no);
        return found == ports_.end() ? nullptr : &found->second;
    }

    /* action::grade is for the port under the cursor. */
    action press(const key &pressed);
    std::optional<uint32_t> selected() const;

    /* The page: at most `height` lines, none wider than `width`. `state` describes a problem of the
       connection; empty: no problem. */
    std::vector<std::string> lines(size_t width, size_t height, bool coloured,
                                   const std::string &state);

  private:
    void edit_filter(const key &pressed);
    ptrdiff_t rows_of(key_code code) const;
    action press_letter(char letter);
    void move(ptrdiff_t rows);
    void arrange(size_t height);
    std::string title(size_t width, bool coloured, const std::string &state) const;
    std::string footer() const;
    std::string news(bool has_events_beside) const;
    void add_rows(std::vector<std::string> &page, const top_columns &columns, size_t event_width,
                  bool coloured);
    bool is_by_rank(size_t height) const;

    std::map<uint32_t, top_port> ports_;
    port_name_map names_;
    std::vector<uint32_t> order_;    /* ports that pass the filter, in the order of the rows */
    size_t first_ = 0;               /* index of the first row in the window */
    size_t rows_ = 0;                /* number of rows of the window */
    std::optional<uint32_t> cursor_; /* none: it is in the first row, whichever port that is */
    std::optional<bool> by_rank_;    /* none: sorted by rank if there are more ports than rows */
    bool was_by_rank_ = false;       /* whether the last page was sorted by rank */
    std::string filter_;
    bool is_editing_ = false;
    bool has_help_ = false;
};
