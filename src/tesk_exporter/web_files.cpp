/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the constructor lists the files of known types; open() opens a listed file, if it
   is a regular one. */
#include "tesk_exporter/web_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <utility>

namespace exporter
{

static const char *type_of(std::string_view name)
{
    static constexpr std::pair<std::string_view, const char *> types[] = {
        {".html", "text/html; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".ico", "image/x-icon"},
        {".woff2", "font/woff2"},
    };
    for (const auto &[ending, type] : types)
        if (name.ends_with(ending))
            return type;
    return nullptr;
}

web_files::web_files(const std::string &folder)
    : folder_(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    /* A descriptor of its own, since reading the folder changes the descriptor's position. */
    const std::unique_ptr<DIR, int (*)(DIR *)> listed(opendir(folder.c_str()), closedir);
    while (const dirent *entry = listed ? readdir(listed.get()) : nullptr)
        if (const char *type = type_of(entry->d_name))
            types_.emplace(entry->d_name, type);
}

std::optional<web_files::file> web_files::open(std::string_view path) const
{
    const std::string_view name = path == "/" ? "index.html" : path.substr(1);
    const auto found = types_.find(name);
    if (found == types_.end())
        return std::nullopt;
    util::descriptor opened(
        openat(folder_.get(), found->first.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY));
    struct stat status = {};
    if (!opened || fstat(opened.get(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    return file{std::move(opened), static_cast<uint64_t>(status.st_size), found->second};
}

} // namespace exporter
