/* SPDX-License-Identifier: Apache-2.0 */
/* config_watch - notices that the configuration's file was replaced. One thread. */
#pragma once

#include "util/descriptor.h"

#include <string>
#include <sys/stat.h>

namespace linux_board
{

class config_watch
{
  public:
    /* Begins with the file as it is now. Where the directory can't be watched, only has_changed()
       finds a change. */
    explicit config_watch(std::string path);

    /* Readable when something happened in the file's directory; -1 where it can't be watched. */
    int fd() const
    {
        return events_.get();
    }

    /* Whether there is another file than at the last call, or another version of it. One that is
       being written isn't taken before it has been closed, or hasn't been written to for a second.
     */
    bool has_changed();

  private:
    bool take_events();

    const std::string path_;
    util::descriptor events_;
    struct stat seen_;
};

} // namespace linux_board
