/* SPDX-License-Identifier: Apache-2.0 */
/* Order of work: the falls are read from a file, or from the board's records of the ports; they are
   judged and shown, newest first, and their facts are written to a file if one was given. */
#include "causes/facts_json.h"
#include "causes/verdict.h"
#include "program/clock.h"
#include "program/output.h"
#include "program/recorded_falls.h"
#include "tools/teskctl/commands.h"
#include "util/escape.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fmt/format.h>
#include <iterator>
#include <memory>
#include <nlohmann/json.hpp>

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
    if (seen.is_up.value_or(false) && seen.down_for_s)
        add("", fmt::format("It was up again after {} s.", *seen.down_for_s));
    for (const std::string &each : its.conflicts)
        add("In conflict: ", each);
    for (const std::string &each : its.ill)
        add("Up, but ill: ", each);
    add("To be sure: ", its.settle);
    add("To do: ", its.action);
    return shown;
}

static void keep_first(std::vector<uint32_t> &ports, const std::string &folder, bool &is_whole)
{
    if (ports.size() <= most_ports_with_falls)
        return;
    complain("teskctl", fmt::format("{}: of {} ports the first {} are shown: a board records falls "
                                    "of no more ports",
                                    escape(folder), ports.size(), most_ports_with_falls));
    ports.resize(most_ports_with_falls);
    is_whole = false;
}

/* If one file is damaged, the falls of other ports are still shown. */
static std::vector<causes::facts> recorded(const ports_text &text, bool &is_whole)
{
    const std::string folder = falls_folder();
    const bool wants_all = text.empty() || is_all(text);
    std::vector<uint32_t> ports = ports_with_falls(folder);
    if (wants_all)
        keep_first(ports, folder, is_whole);
    else
        ports = parse_ports(text, port_names());
    std::vector<causes::facts> found;
    for (const uint32_t port_no : ports) {
        std::string fault;
        try {
            std::ranges::move(falls_of(folder, port_no, &fault), std::back_inserter(found));
        } catch (const tool_error &error) {
            fault = error.what();
        }
        if (fault.empty())
            continue;
        complain("teskctl", fault);
        is_whole = false;
    }
    return found;
}

static void write_facts(const std::string &path, const std::vector<causes::facts> &falls)
{
    const std::unique_ptr<FILE, int (*)(FILE *)> file(fopen(path.c_str(), "we"),
                                                      [](FILE *open) { return fclose(open); });
    bool is_written = file != nullptr;
    for (auto it = falls.rbegin(); is_written && it != falls.rend(); ++it)
        is_written = fputs((to_line(causes::to_json(*it)) + "\n").c_str(), file.get()) >= 0;
    if (!is_written || fflush(file.get()) != 0)
        throw tool_error(exit_code::no_output,
                         fmt::format("{}: {}", escape(path), std::strerror(errno)));
}

static void keep_newest(std::vector<causes::facts> &falls, uint64_t last)
{
    sort_newest_first(falls);
    if (last != 0 && falls.size() > last)
        falls.resize(last);
}

exit_code run_why(const settings &common, const why_options &options)
{
    bool is_whole = true;
    if (options.facts == "-" && options.other_end == "-")
        throw tool_error(exit_code::usage, "standard input has the facts of one end: --facts or "
                                           "--other-end must name a file");
    std::vector<causes::facts> falls =
        options.facts.empty() ? recorded(options.ports, is_whole) : facts_in(options.facts);
    keep_newest(falls, options.last);
    const auto others =
        options.other_end.empty() ? std::vector<causes::facts>{} : facts_in(options.other_end);
    if (!others.empty() && (others.size() != 1 || falls.size() != 1))
        throw tool_error(
            exit_code::usage,
            "--other-end joins two records of one fall: one in its file, and one here, "
            "as with --last 1");
    if (falls.empty() && !common.json && is_whole)
        write_text("No fall is recorded.\n");
    for (const causes::facts &seen : falls) {
        causes::order who;
        const auto made = others.empty() ? judge(seen) : judge_both(seen, others.front(), who);
        if (common.json)
            write_text(to_line(json_of(seen, made, others.empty() ? nullptr : &who)) + "\n");
        else
            write_text(text_of(seen, made, who.sentence));
    }
    if (!options.facts_out.empty())
        write_facts(options.facts_out, falls);
    return is_whole ? exit_code::done : exit_code::rejected;
}
