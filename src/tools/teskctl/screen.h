/* SPDX-License-Identifier: Apache-2.0 */
/* screen - the terminal as a page that is drawn again and again; it is put back as it was when the
   object goes. */
#pragma once

#include <string>
#include <termios.h>
#include <vector>

struct settings;

/* The columns of the terminal; 0 where output goes elsewhere and lines may be of any length. Asked
   each time, since a window changes. */
size_t terminal_width(const settings &common);
size_t terminal_height();

class screen
{
  public:
    screen();
    ~screen();
    screen(const screen &) = delete;
    screen &operator=(const screen &) = delete;

    /* Replaces what stands there; lines beyond the height are left out. */
    void draw(const std::vector<std::string> &lines, size_t height) const;

    /* Gives the terminal back, stops the process as Ctrl-Z does, and takes the terminal again when
       the process goes on. */
    void suspend();

    /* Whether keys can be read. */
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
