/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the file is read whole, up to a bound; its facts are judged and shown, newest
   first. */
#include "causes/facts_json.h"
#include "causes/verdict.h"
#include "tools/common/clock.h"
#include "tools/common/json_records.h"
#include "tools/common/output.h"
#include "tools/teskctl/commands.h"
#include "util/escape.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <nlohmann/json.hpp>

static constexpr size_t largest_file = size_t{16} << 20;

static std::string read_whole(const std::string &path)
{
    const bool is_input = path == "-";
    const std::unique_ptr<FILE, int (*)(FILE *)> file(is_input ? stdin : fopen(path.c_str(), "re"),
                                                      [](FILE *open) { return fclose(open); });
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

/* An object, a list of objects, or one object in each line. */
static std::vector<causes::facts> facts_in(const std::string &path)
{
    const std::string text = read_whole(path);
    std::vector<causes::facts> found;
    std::string place;
    const auto take = [&](const json_object &each) { found.push_back(causes::facts_from(each)); };
    try {
        const json_object whole = json_object::parse(text, nullptr, false);
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

static std::string title_of(const causes::facts &seen)
{
    std::string title = seen.interface ? escape(*seen.interface)
                        : seen.port    ? fmt::format("port {:.0f}", *seen.port)
                                       : "a port";
    if (seen.time)
        title += " " + date_and_time(static_cast<uint64_t>(*seen.time * 1e6));
    return title;
}

static std::string text_of(const causes::facts &seen, const causes::verdict &its,
                           const std::string &order)
{
    std::string shown =
        fmt::format("{}: {}, {}", title_of(seen), name_of(its.cause), name_of(its.certainty));
    if (its.side != causes::side::unknown)
        shown += fmt::format(", {}", name_of(its.side));
    if (its.layer != causes::layer::unknown)
        shown += fmt::format(", {}", name_of(its.layer));
    shown += '\n';
    const auto add = [&](const char *head, const std::string &sentence) {
        if (!sentence.empty())
            shown += fmt::format("  {}{}\n", head, escape(sentence));
    };
    for (const std::string &each : its.evidence)
        add("", each);
    add("", order);
    for (const std::string &each : its.conflicts)
        add("In conflict: ", each);
    for (const std::string &each : its.ill)
        add("Up, but ill: ", each);
    add("To be sure: ", its.settle);
    add("To do: ", its.action);
    return shown;
}

static json_object json_of(const causes::facts &seen, const causes::verdict &its,
                           const causes::order *who)
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

exit_code run_why(const settings &common, const why_options &options)
{
    std::vector<causes::facts> falls = facts_in(options.facts);
    const auto others =
        options.other_end.empty() ? std::vector<causes::facts>{} : facts_in(options.other_end);
    if (!others.empty() && (others.size() != 1 || falls.size() != 1))
        throw tool_error(exit_code::usage,
                         "--other-end joins two records of one fall: one in each file");
    std::ranges::stable_sort(falls, std::greater(),
                             [](const causes::facts &each) { return each.time.value_or(0); });
    if (options.last != 0 && falls.size() > options.last)
        falls.resize(options.last);
    for (const causes::facts &seen : falls) {
        causes::order who;
        const auto made = others.empty() ? judge(seen) : judge_both(seen, others.front(), who);
        if (common.json)
            write_text(to_line(json_of(seen, made, others.empty() ? nullptr : &who)) + "\n");
        else
            write_text(text_of(seen, made, who.sentence));
    }
    return exit_code::done;
}
