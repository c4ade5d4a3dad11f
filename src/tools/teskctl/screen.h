/* SPDX-License-Identifier: Apache-2.0 */
/* screen - the terminal as a page that is drawn repeatedly. The destructor restores the terminal.
   One thread. */
#pragma once

#include <string>
#include <termios.h>
#include <vector>

struct settings;

/* The columns of the terminal; 0 if the output isn't a terminal and lines may have any length. Read
   each time, since a window can change. */
size_t terminal_width(const settings &common);
size_t terminal_height();

class screen
{
  public:
    screen();
    ~screen();
    screen(const screen &) = delete;
    screen &operator=(const screen &) = delete;

    /* Draws a page in place of the previous one; lines beyond the height are left out. */
    void draw(const std::vector<std::string> &lines, size_t height) const;

    /* Restores the terminal and stops the process, as Ctrl-Z does; when the process continues,
       switches to the page again. */
    void suspend();

    /* False if standard input is not a terminal. */
    bool has_keys() const
    {
        return has_keys_;
    }

  private:
    void enter();
    void leave();

    termios saved_{};
    bool has_keys_;
};
