/* SPDX-License-Identifier: Apache-2.0 */
/* A file is read whole, up to a bound, and parsed; an error names the place in the file. */
#include "program/recorded_falls.h"

#include "causes/facts_json.h"
#include "program/exit_code.h"
#include "tesk_client/tesk_client_paths.h"
#include "tesk_client/tesk_details.h"
#include "util/descriptor.h"
#include "util/escape.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <fmt/ranges.h>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

static constexpr size_t largest_file = size_t{16} << 20;
static constexpr size_t most_falls = 32 * most_ports_with_falls;
static constexpr size_t largest_recorded = size_t{64} << 10; /* see docs/causes.md */

static tool_error fault_of(const std::string &path, const std::string &why)
{
    return {exit_code::rejected, fmt::format("{}: {}", escape(path), why)};
}

static std::string read_whole(const std::string &path, int file, size_t most)
{
    std::string text;
    char part[16384];
    while (true) {
        const ssize_t got = read(file, part, sizeof(part));
        if (got == 0)
            return text;
        if (got < 0 && errno != EINTR)
            throw fault_of(path, std::strerror(errno));
        text.append(part, static_cast<size_t>(std::max<ssize_t>(got, 0)));
        if (text.size() > most)
            throw fault_of(path, fmt::format("facts of falls have at most {} KiB", most / 1024));
    }
}

static causes::facts facts_of_object(const json_object &each)
{
    const bool is_judged = each.is_object() && each.contains("facts");
    return causes::facts_from(is_judged ? each.at("facts") : each);
}

/* Calls `take` with each line that isn't blank, and with its number. */
template <typename taker>
static void for_each_line(std::string_view text, taker &&take)
{
    size_t number = 0;
    for (size_t at = 0; at < text.size();) {
        const std::string_view line = text.substr(at, text.find('\n', at) - at);
        number++;
        if (line.find_first_not_of(" \t\r") != line.npos)
            take(line, number);
        at += line.size() + 1;
    }
}

/* Nothing if the text isn't exactly one JSON value. */
static std::optional<json_object> parse_as_one(std::string_view text)
{
    try {
        return causes::parse_facts(text);
    } catch (const json_object::exception &) {
        return std::nullopt;
    }
}

static std::vector<causes::facts> facts_of_text(const std::string &path, const std::string &text)
{
    std::vector<causes::facts> found;
    std::string place;
    const auto take = [&](const json_object &each) {
        if (found.size() >= most_falls)
            throw causes::facts_error(fmt::format("there are more than {} falls", most_falls));
        found.push_back(facts_of_object(each));
    };
    try {
        if (const auto whole = parse_as_one(text)) {
            const bool is_body = whole->is_object() && whole->contains("falls");
            const json_object &falls = is_body ? whole->at("falls") : *whole;
            if (!falls.is_array())
                take(falls);
            for (size_t i = 0; falls.is_array() && i < falls.size(); i++) {
                place = fmt::format("fall {}: ", i + 1);
                take(falls[i]);
            }
        } else {
            for_each_line(text, [&](std::string_view line, size_t number) {
                place = fmt::format("line {}: ", number);
                take(causes::parse_facts(line));
            });
        }
    } catch (const causes::facts_error &error) {
        throw fault_of(path, place + escape(error.what()));
    } catch (const json_object::exception &) {
        throw fault_of(path, place + "this isn't JSON as \"teskctl why --facts-out\" writes it");
    }
    if (found.empty())
        throw tool_error(exit_code::rejected, escape(path) + " has no facts");
    return found;
}

std::vector<causes::facts> facts_in(const std::string &path)
{
    if (path == "-")
        return facts_of_text(path, read_whole(path, STDIN_FILENO, largest_file));
    const util::descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (!file)
        throw fault_of(path, std::strerror(errno));
    return facts_of_text(path, read_whole(path, file.get(), largest_file));
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
        if (read.ec == std::errc{} && name == std::to_string(port_no))
            ports.push_back(port_no);
    }
    std::ranges::sort(ports);
    return ports;
}

/* Doesn't block on a FIFO and follows no link. Empty if the port has no file. */
static std::string read_recorded(const std::string &path)
{
    const util::descriptor file(open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    struct stat status = {};
    if (!file && errno == ENOENT)
        return "";
    if (!file || fstat(file.get(), &status) != 0)
        throw fault_of(path, std::strerror(errno));
    if (!S_ISREG(status.st_mode))
        throw tool_error(exit_code::rejected,
                         escape(path) + " isn't a file, which the board would have made");
    return read_whole(path, file.get(), largest_recorded);
}

/* Nothing if the line is invalid; `fault` says why. */
static std::optional<causes::facts> facts_of_line(std::string_view line, std::string &fault)
{
    try {
        return facts_of_object(causes::parse_facts(line));
    } catch (const causes::facts_error &error) {
        fault = escape(error.what());
    } catch (const json_object::exception &) {
        fault = "this is no JSON";
    }
    return std::nullopt;
}

std::vector<causes::facts> falls_of(const std::string &folder, uint32_t port_no, std::string *fault)
{
    const std::string path = fmt::format("{}/{}", folder, port_no), text = read_recorded(path);
    std::vector<causes::facts> found;
    std::string first;
    size_t lines = 0, wrong = 0;
    for_each_line(text, [&](std::string_view line, size_t number) {
        std::string why;
        lines++;
        if (auto its = facts_of_line(line, why))
            found.push_back(std::move(*its));
        else if (wrong++ == 0)
            first = fmt::format("line {}: {}", number, why);
    });
    if (wrong != 0 && fault != nullptr)
        *fault = fmt::format("{}: {} of {} falls can't be read and aren't shown: {}", escape(path),
                             wrong, lines, first);
    return found;
}

std::optional<causes::facts> last_fall_of(const std::string &folder, uint32_t port_no)
{
    const std::string text = read_recorded(fmt::format("{}/{}", folder, port_no));
    std::vector<std::string_view> lines;
    for_each_line(text, [&](std::string_view line, size_t) { lines.push_back(line); });
    std::string fault;
    for (; !lines.empty(); lines.pop_back())
        if (auto its = facts_of_line(lines.back(), fault))
            return its;
    return std::nullopt;
}

void sort_newest_first(std::vector<causes::facts> &falls)
{
    const bool is_one_start = std::ranges::all_of(falls, [&](const causes::facts &each) {
        return each.since_boot_s && each.boot && each.boot == falls.front().boot;
    });
    const auto of = is_one_start ? &causes::facts::since_boot_s : &causes::facts::time;
    std::ranges::stable_sort(falls, std::greater(),
                             [of](const causes::facts &each) { return (each.*of).value_or(0); });
}

std::string cause_text(const causes::verdict &its)
{
    std::string text = fmt::format("{}, {}", name_of(its.cause), name_of(its.certainty));
    const bool says_why = its.cause != causes::cause::not_known && !its.evidence.empty();
    return says_why ? text + ": " + escape(its.evidence.front()) : text;
}

std::string illness_text(const causes::verdict &its)
{
    return its.ill.empty()
               ? ""
               : "link is up, but ill: " + escape(fmt::format("{}", fmt::join(its.ill, " ")));
}
