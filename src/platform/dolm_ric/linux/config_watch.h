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
    /* Starts with the present file. Where the directory can't be watched, only has_changed() finds
       a change. */
    explicit config_watch(std::string path);

    /* Readable after a change in the file's directory; -1 where the directory can't be watched. */
    int fd() const
    {
        return events_.get();
    }

    /* Whether the file or its content is another one than at the last call. A file that is being
       written counts only once it was closed, or not written to for a second. */
    bool has_changed();

  private:
    bool take_events();

    const std::string path_;
    util::descriptor events_;
    struct stat seen_;
};

} // namespace linux_board
