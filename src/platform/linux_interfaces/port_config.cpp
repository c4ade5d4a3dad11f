/* SPDX-License-Identifier: Apache-2.0 */
/* The file is written by people and read by two processes, one of which has more rights than its
   users: every size is bounded, and bytes of the file are escaped before they are shown. */
#include "platform/linux_interfaces/port_config.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <set>
#include <span>
#include <sys/stat.h>
#include <unistd.h>

namespace linux_board
{
namespace
{

/* The parser's state, with the numbers, interfaces and buses of earlier lines. */
struct parser {
    port_config config;
    std::set<uint32_t> numbers = {};
    std::set<std::string, std::less<>> interfaces = {};
    std::set<uint32_t> i2c_buses = {};
};

using reason = std::optional<std::string>;

} // namespace

static constexpr uint32_t last_port = 65534;
static constexpr uint32_t last_i2c_bus = 0xffff;
static constexpr size_t max_line_length = 4096 + 512; /* the longest path and its line */
static constexpr size_t max_interface_length = 127;   /* length of an alternative name */
static constexpr size_t max_parent_length = 255;
static constexpr char line_form[] = "a line is: NUMBER INTERFACE [module=FILE|i2c=BUS|poll=off] "
                                    "[lanes=A-B] [checksum=ignore]";
static constexpr std::string_view byte_order_mark = "\xEF\xBB\xBF"; /* of some editors */

/* Carriage returns count as blanks, so that files from other systems work. */
static std::vector<std::string_view> split_words(std::string_view line)
{
    constexpr std::string_view blanks = " \t\r";
    std::vector<std::string_view> words;

    for (size_t at = line.find_first_not_of(blanks); at != std::string_view::npos;) {
        const size_t end = std::min(line.find_first_of(blanks, at), line.size());
        if (line[at] == '#')
            break;
        words.push_back(line.substr(at, end - at));
        at = line.find_first_not_of(blanks, end);
    }
    return words;
}

static std::optional<uint32_t> parse_number(std::string_view word, uint32_t last)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(word.data(), word.data() + word.size(), number);
    if (error != std::errc() || end != word.data() + word.size() || number > last)
        return std::nullopt;
    return number;
}

static bool is_printable(std::string_view text)
{
    return std::ranges::all_of(text, [](char byte) { return byte > ' ' && byte <= '~'; });
}

/* A word for a message: short, and escaped so that it can't disturb a terminal. */
static std::string quoted(std::string_view word)
{
    constexpr size_t longest = 60;
    std::string text(word.substr(0, longest));

    std::ranges::replace_if(
        text, [](char byte) { return byte < ' ' || byte > '~'; }, '?');
    return "\"" + text + (word.size() > longest ? "...\"" : "\"");
}

/* No interface has a slash in its name. So the last slash of a word separates the port's name from
   the parent, which may contain slashes. */
static reason parse_interface(std::string_view word, configured_port &port)
{
    const size_t slash = word.rfind('/');
    const std::string_view name = slash == std::string_view::npos ? word : word.substr(slash + 1);

    if (!is_printable(word))
        return "an interface has printable characters only, not " + quoted(word);
    if (name.size() > max_interface_length || word.size() - name.size() > max_parent_length)
        return quoted(word) + " is too long for an interface";
    if (slash == std::string_view::npos) {
        port.interface = word;
        return std::nullopt;
    }
    port.parent = word.substr(0, slash);
    port.port_name = name;
    if (port.parent.empty())
        return "PARENT/PORTNAME lacks the parent: " + quoted(word);
    return std::nullopt;
}

/* The process that opens FILE may have any working directory, hence the absolute path. */
static reason parse_option(std::string_view word, configured_port &port)
{
    if (word == "poll=off") {
        port.source = module_source::none;
        return std::nullopt;
    }
    if (word.starts_with("module=/")) {
        port.source = module_source::file;
        port.file = word.substr(strlen("module="));
        return port.file.find('\0') == std::string::npos ? reason()
                                                         : "a file's name can't contain NUL";
    }
    if (word.starts_with("module="))
        return "module= takes an absolute path, not " + quoted(word.substr(strlen("module=")));
    if (word.starts_with("i2c=")) {
        const auto bus = parse_number(word.substr(strlen("i2c=")), last_i2c_bus);
        port.source = module_source::i2c_bus;
        port.i2c_bus = bus.value_or(0);
        return bus ? reason() : "i2c= takes the number of a bus, not " + quoted(word.substr(4));
    }
    return quoted(word) +
           " is not one of module=FILE, i2c=BUS, poll=off, lanes=A-B, checksum=ignore";
}

static reason parse_lanes(std::string_view word, configured_port &port)
{
    constexpr uint32_t most_lanes = 32;
    const size_t dash = word.find('-');
    const auto first = parse_number(word.substr(0, dash), most_lanes);
    const auto last =
        dash == std::string_view::npos ? first : parse_number(word.substr(dash + 1), most_lanes);
    if (!first || !last || *first == 0 || *first > *last)
        return "lanes= takes a lane from 1 to 32, or two as in 1-2, not " + quoted(word);
    port.lanes = (UINT32_MAX >> (most_lanes - *last)) & (UINT32_MAX << (*first - 1));
    return std::nullopt;
}

/* The three ways to read the module exclude each other; no word may be repeated. */
static reason parse_options(std::span<const std::string_view> words, configured_port &port)
{
    static constexpr std::string_view lanes = "lanes=";
    for (const std::string_view word : words) {
        reason wrong;
        if (word.starts_with(lanes) && port.lanes == 0)
            wrong = parse_lanes(word.substr(lanes.size()), port);
        else if (word == "checksum=ignore" && !port.ignores_checksum)
            port.ignores_checksum = true;
        else if (port.source == module_source::interface)
            wrong = parse_option(word, port);
        else
            wrong = line_form;
        if (wrong)
            return wrong;
    }
    return std::nullopt;
}

static reason parse_words(const std::vector<std::string_view> &words, configured_port &port)
{
    if (words.size() < 2)
        return line_form;
    const auto number = parse_number(words[0], last_port);
    if (!number)
        return "a port has a number from 0 to 65534, not " + quoted(words[0]);
    port.number = *number;
    if (reason wrong = parse_interface(words[1], port))
        return wrong;
    return parse_options(std::span(words).subspan(2), port);
}

/* Reserves number, interface and bus for the port; if one of them is used already, none is
   reserved. */
static reason take(parser &state, std::string_view interface, const configured_port &port)
{
    const bool has_bus = port.source == module_source::i2c_bus;

    if (state.numbers.contains(port.number))
        return "port " + std::to_string(port.number) + " is there already";
    if (state.interfaces.contains(interface))
        return quoted(interface) + " is another port already";
    if (has_bus && state.i2c_buses.contains(port.i2c_bus))
        return "the bus " + std::to_string(port.i2c_bus) + " belongs to another port already";
    state.numbers.insert(port.number);
    state.interfaces.emplace(interface);
    if (has_bus)
        state.i2c_buses.insert(port.i2c_bus);
    return std::nullopt;
}

static reason parse_line(parser &state, std::string_view line)
{
    if (line.size() > max_line_length)
        return "the line is too long";
    const auto words = split_words(line);
    if (words.empty())
        return std::nullopt;
    configured_port port;
    if (reason wrong = parse_words(words, port))
        return wrong;
    if (reason taken = take(state, words[1], port))
        return taken;
    state.config.ports.push_back(std::move(port));
    return std::nullopt;
}

std::string name_of(const configured_port &port)
{
    return port.parent.empty() ? port.interface : port.parent + "/" + port.port_name;
}

port_config parse_port_config(std::string_view text, std::string_view name)
{
    parser state;
    auto &messages = state.config.messages;
    size_t left_out = 0;

    if (text.starts_with(byte_order_mark))
        text.remove_prefix(byte_order_mark.size());
    for (size_t number = 1; !text.empty(); number++) {
        const size_t end = std::min(text.find('\n'), text.size());
        if (reason wrong = parse_line(state, text.substr(0, end))) {
            if (messages.size() + 1 < max_port_config_messages)
                messages.push_back(std::string(name) + ":" + std::to_string(number) + ": " +
                                   *wrong);
            else
                left_out++;
        }
        text.remove_prefix(std::min(end + 1, text.size()));
    }
    if (left_out != 0)
        messages.push_back(std::string(name) + ": " + std::to_string(left_out) +
                           " more wrong lines");
    std::ranges::sort(state.config.ports, {}, &configured_port::number);
    return std::move(state.config);
}

static std::string source_of(const configured_port &port)
{
    switch (port.source) {
    case module_source::file:
        return " module=" + port.file;
    case module_source::i2c_bus:
        return " i2c=" + std::to_string(port.i2c_bus);
    case module_source::none:
        return " poll=off";
    case module_source::interface:
        break;
    }
    return {};
}

std::string options_of(const configured_port &port)
{
    std::string words = source_of(port);
    if (port.lanes != 0)
        words += " lanes=" + std::to_string(std::countr_zero(port.lanes) + 1) + "-" +
                 std::to_string(std::bit_width(port.lanes));
    return port.ignores_checksum ? words + " checksum=ignore" : words;
}

std::string port_config_path()
{
    const char *path = secure_getenv("DOLM_RIC_PORTS");
    return path != nullptr && *path != '\0' ? path : default_port_config;
}

int open_port_config(const std::string &path)
{
    return open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
}

/* nullptr, or why the file can't be read. It may grow while it is read, so its size is not relied
   on. */
static const char *read_text(int descriptor, std::string &text)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0)
        return strerror(errno);
    if (!S_ISREG(status.st_mode))
        return "not a regular file";

    text.resize(static_cast<size_t>(std::clamp<off_t>(status.st_size, 0, max_port_config_size)) +
                1);
    size_t size = 0;
    for (;;) {
        if (size == text.size())
            text.resize(std::min(2 * size, max_port_config_size + 1));
        const ssize_t count =
            pread(descriptor, text.data() + size, text.size() - size, static_cast<off_t>(size));
        if (count < 0 && errno != EINTR)
            return strerror(errno);
        if (count == 0)
            break;
        size += count > 0 ? static_cast<size_t>(count) : 0;
        if (size > max_port_config_size)
            return "larger than 4 MiB";
    }
    text.resize(size);
    return nullptr;
}

/* FNV-1a: both processes get the same result, whatever C++ library they are built with. */
static uint64_t checksum_of(std::string_view text)
{
    uint64_t sum = 0xcbf29ce484222325;
    for (const char byte : text)
        sum = (sum ^ static_cast<uint8_t>(byte)) * 0x100000001b3;
    return sum;
}

port_config read_port_config(int descriptor, std::string_view name)
{
    std::string text;
    if (const char *reason_unread = read_text(descriptor, text))
        return {{}, {std::string(name) + ": " + reason_unread}, unread_port_config};
    port_config config = parse_port_config(text, name);
    config.checksum = checksum_of(text);
    return config;
}

const char *reason_not_trusted(int descriptor, uid_t owner)
{
    struct stat status = {};
    if (fstat(descriptor, &status) != 0)
        return "cannot be examined";
    if (!S_ISREG(status.st_mode))
        return "is not a regular file";
    if (status.st_uid != owner)
        return owner == 0 ? "is not owned by root" : "is not owned by the right user";
    if ((status.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        return "can be written by others than its owner";
    return nullptr;
}

} // namespace linux_board
