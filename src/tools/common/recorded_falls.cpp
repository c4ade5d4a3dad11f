/* SPDX-License-Identifier: Apache-2.0 */
/* A file is read whole, up to a bound, and taken apart; what is wrong in it is named by its place.
 */
#include "tools/common/recorded_falls.h"

#include "causes/facts_json.h"
#include "tesk_client/tesk_client_paths.h"
#include "tesk_client/tesk_details.h"
#include "tools/common/exit_code.h"
#include "util/descriptor.h"
#include "util/escape.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

static constexpr size_t largest_file = size_t{16} << 20;

static std::string read_whole(const std::string &path)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> file(
        path == "-" ? stdin : fopen(path.c_str(), "re"), [](FILE *open) { return fclose(open); });
    const auto fail = [&](const char *why) {
        throw tool_error(exit_code::rejected, fmt::format("{}: {}", escape(path), why));
    };
    if (file == nullptr)
        fail(std::strerror(errno));
    std::string text;
    char part[16384];
    for (size_t got = 0; (got = fread(part, 1, sizeof(part), file.get())) > 0;) {
        text.append(part, got);
        if (text.size() > largest_file)
            fail("facts of falls are smaller than 16 MiB");
    }
    if (ferror(file.get()) != 0)
        fail(std::strerror(errno));
    return text;
}

static std::vector<causes::facts> facts_of_text(const std::string &path, const std::string &text)
{
    std::vector<causes::facts> found;
    std::string place;
    const auto take = [&](const json_object &each) {
        const bool is_judged = each.is_object() && each.contains("facts");
        found.push_back(causes::facts_from(is_judged ? each.at("facts") : each));
    };
    try {
        json_object whole = json_object::parse(text, nullptr, false);
        if (whole.is_object() && whole.contains("falls"))
            whole = json_object(whole.at("falls"));
        if (whole.is_array()) {
            for (const json_object &each : whole) {
                place = fmt::format("fall {}: ", found.size() + 1);
                take(each);
            }
        } else if (!whole.is_discarded()) {
            take(whole);
        } else {
            size_t number = 0;
            for (size_t at = 0; at < text.size();) {
                const size_t end = std::min(text.find('\n', at), text.size());
                place = fmt::format("line {}: ", ++number);
                if (text.find_first_not_of(" \t\r", at) < end)
                    take(json_object::parse(text.substr(at, end - at)));
                at = end + 1;
            }
        }
    } catch (const causes::facts_error &error) {
        throw tool_error(exit_code::rejected, escape(path) + ": " + place + escape(error.what()));
    } catch (const json_object::exception &) {
        throw tool_error(exit_code::rejected, escape(path) + ": " + place + "this is no JSON");
    }
    if (found.empty())
        throw tool_error(exit_code::rejected, escape(path) + " has no facts");
    return found;
}

std::vector<causes::facts> facts_in(const std::string &path)
{
    return facts_of_text(path, read_whole(path));
}

static std::string beside(const std::string &path)
{
    return path.substr(0, path.find_last_of('/') + 1) + "falls";
}

std::string falls_folder()
{
    for (const char *name : {"DOLM_RIC_DETAILS", "DOLM_RIC_PORT_MAP"})
        if (const std::string set = value_of_variable(name); !set.empty())
            return beside(set);
    return is_default_board() ? beside(DOLM_RIC_DETAILS_FILE) : "";
}

static tool_error no_folder(const std::string &folder)
{
    if (folder.empty())
        return {
            exit_code::no_server,
            "MBX_DIR selects a server of its own: DOLM_RIC_DETAILS or DOLM_RIC_PORT_MAP say where "
            "its board records falls"};
    const int error = errno;
    return {
        exit_code::no_server,
        fmt::format("{}: {}: is the server running, and does its board record falls?{}",
                    escape(folder), std::strerror(error),
                    error == EACCES ? " \"teskctl doctor\" says which group may read them" : "")};
}

std::vector<uint32_t> ports_with_falls(const std::string &folder)
{
    const std::unique_ptr<DIR, int (*)(DIR *)> open(
        folder.empty() ? nullptr : opendir(folder.c_str()), [](DIR *its) { return closedir(its); });
    if (open == nullptr)
        throw no_folder(folder);
    std::vector<uint32_t> ports;
    while (const dirent *entry = readdir(open.get())) {
        const std::string_view name = entry->d_name;
        uint32_t port_no = 0;
        const auto read = std::from_chars(name.begin(), name.end(), port_no);
        if (read.ec == std::errc{} && read.ptr == name.end())
            ports.push_back(port_no);
    }
    std::ranges::sort(ports);
    return ports;
}

/* Neither waits for a pipe nor follows a link. Empty where the port has no file. */
static std::string read_recorded(const std::string &path)
{
    const util::descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file && errno == ENOENT)
        return "";
    if (!file || fstat(file.get(), &status) != 0)
        throw tool_error(exit_code::rejected,
                         fmt::format("{}: {}", escape(path), std::strerror(errno)));
    if (!S_ISREG(status.st_mode))
        throw tool_error(exit_code::rejected,
                         escape(path) + " isn't a file, which the board would have made");
    return read_whole(fmt::format("/proc/self/fd/{}", file.get()));
}

std::vector<causes::facts> falls_of(const std::string &folder, uint32_t port_no)
{
    const std::string path = fmt::format("{}/{}", folder, port_no);
    const std::string text = read_recorded(path);
    return text.empty() ? std::vector<causes::facts>{} : facts_of_text(path, text);
}

std::optional<causes::facts> last_fall_of(const std::string &folder, uint32_t port_no)
{
    const std::string path = fmt::format("{}/{}", folder, port_no);
    const std::string text = read_recorded(path);
    const size_t end = text.find_last_not_of('\n');
    if (end == std::string::npos)
        return std::nullopt;
    /* Without a line before it npos + 1 is 0. */
    const size_t begin = text.find_last_of('\n', end) + 1;
    return facts_of_text(path, text.substr(begin, end + 1 - begin)).front();
}

std::string cause_text(const causes::verdict &its)
{
    std::string text = fmt::format("{}, {}", name_of(its.cause), name_of(its.certainty));
    return its.evidence.empty() ? text : text + ": " + escape(its.evidence.front());
}

std::string illness_text(const causes::verdict &its)
{
    return its.ill.empty()
               ? ""
               : "link is up, but ill: " + escape(fmt::format("{}", fmt::join(its.ill, " ")));
}

json_object json_of(const causes::facts &seen, const causes::verdict &its, const causes::order *who)
{
    json_object object = {
        {"cause", name_of(its.cause)},
        {"side", name_of(its.side)},
        {"layer", name_of(its.layer)},
        {"certainty", name_of(its.certainty)},
        {"evidence", its.evidence},
        {"conflicts", its.conflicts},
        {"ill", its.ill},
        {"settle", its.settle.empty() ? json_object(nullptr) : json_object(its.settle)},
        {"action", its.action}};
    if (who != nullptr)
        object["fell_first"] = !who->is_known    ? json_object(nullptr)
                               : who->here_first ? json_object("this end")
                                                 : json_object("other end");
    object["facts"] = causes::to_json(seen);
    return object;
}
