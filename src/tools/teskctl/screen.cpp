/* SPDX-License-Identifier: Apache-2.0 */
/* A page is drawn over the previous one, line by line; clearing the whole screen would flicker.
   Each line is cleared before it is written: after a line as wide as the window, clearing would
   remove its last character. A page is one write.

   No signal handler restores the terminal: the loop reads the signals that end or stop the program
   from a descriptor, and leaves the scope of the screen or calls suspend. */
#include "tools/teskctl/screen.h"

#include "program/output.h"
#include "tools/teskctl/settings.h"

#include <algorithm>
#include <csignal>
#include <sys/ioctl.h>
#include <unistd.h>

/* Switches to the terminal's alternate screen and hides the cursor; the other sequence restores
   both. */
static constexpr char enter_sequence[] = "\x1b[?1049h\x1b[?25l\x1b[2J";
static constexpr char leave_sequence[] = "\x1b[?25h\x1b[?1049l";
static constexpr char clear_line[] = "\x1b[K";
static constexpr char clear_below[] = "\x1b[J";

/* A terminal on a serial line reports no size: the usual size is assumed. */
static winsize window()
{
    winsize size{};
    ioctl(STDOUT_FILENO, TIOCGWINSZ, &size);
    if (size.ws_col == 0)
        size.ws_col = 80;
    if (size.ws_row == 0)
        size.ws_row = 24;
    return size;
}

size_t terminal_width(const settings &common)
{
    return common.on_terminal ? window().ws_col : 0;
}

size_t terminal_height()
{
    return window().ws_row;
}

screen::screen() : has_keys_(tcgetattr(STDIN_FILENO, &saved_) == 0)
{
    enter();
}

screen::~screen()
{
    leave();
}

void screen::enter()
{
    if (has_keys_) {
        termios raw = saved_; /* ISIG stays on: Ctrl-C and Ctrl-Z work as usual */
        raw.c_lflag &= static_cast<tcflag_t>(~(ICANON | ECHO));
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &raw);
    }
    write_now(enter_sequence);
}

void screen::leave()
{
    write_now(leave_sequence);
    if (has_keys_)
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &saved_);
}

void screen::suspend()
{
    leave();
    raise(SIGSTOP); /* SIGTSTP is blocked: the loop takes it from its descriptor */
    enter();
}

void screen::draw(const std::vector<std::string> &lines, size_t height) const
{
    std::string frame = "\x1b[H";
    for (size_t i = 0; i < std::min(lines.size(), height); i++)
        frame += (i == 0 ? "" : "\r\n") + (clear_line + lines[i]);
    if (lines.size() < height)
        frame += std::string("\r\n") + clear_below;
    write_now(frame);
}
