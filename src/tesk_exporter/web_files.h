/* SPDX-License-Identifier: Apache-2.0 */
/* web_files - the files of the page, from one folder. They are listed once, at the start: only
   listed files can be requested, so that no path leads out of the folder. Nothing changes after the
   constructor: any thread. */
#pragma once

#include "util/descriptor.h"

#include <map>
#include <optional>
#include <string>
#include <string_view>

namespace exporter
{

class web_files
{
  public:
    struct file {
        util::descriptor opened;
        uint64_t size;
        const char *type; /* media type of the content */
    };

    /* Lists the regular files of a folder whose type pages use; subfolders are ignored. A folder
       that can't be read counts as empty. */
    explicit web_files(const std::string &folder);

    bool empty() const
    {
        return types_.empty();
    }
    /* Opens the file for the path of a request: "/" is index.html. Nothing if there is no such
       file. */
    std::optional<file> open(std::string_view path) const;

  private:
    util::descriptor folder_;
    std::map<std::string, const char *, std::less<>> types_; /* by name */
};

} // namespace exporter
