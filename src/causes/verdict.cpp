/* SPDX-License-Identifier: Apache-2.0 */
/* The table below has the rules, from top to bottom; the first rule whose signs are all shown gives
   the verdict. judge() then lowers its certainty by the facts that aren't known. */
#include "causes/verdict.h"

#include "causes/signs.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <iterator>
#include <span>

namespace causes
{

static constexpr size_t most_signs = 6;

namespace
{

struct advice {
    const char *settle = nullptr;
    const char *action = nullptr;
};

struct rule {
    causes::cause cause;
    causes::side side;
    causes::layer layer;
    certainty best; /* if all excluding signs are known to be absent */
    sign_of requires_all[most_signs];
    sign_of excludes[most_signs];
    sign_of doubts[most_signs] = {}; /* signs that each lower the certainty */
    advice own = {};                 /* replaces the advice for the cause */
};

} // namespace

/* Administration, driver and device come first, since a laser that they switch off looks like a
   broken one; then the module, since without a module there is no light; then light, since without
   light there is neither lock nor negotiation. */
static constexpr rule rules[] = {
    {cause::set_down,
     side::local,
     layer::administration,
     certainty::possible,
     {was_set_down, has_left_later},
     {has_moved, was_unbound, was_removed, was_reset}},
    {cause::set_down,
     side::local,
     layer::administration,
     certainty::possible,
     {was_set_down, may_have_left},
     {has_moved, was_unbound, was_removed, was_reset}},
    {cause::set_down,
     side::local,
     layer::administration,
     certainty::certain,
     {was_set_down},
     {has_moved, was_unbound, was_removed, was_reset},
     {is_light_missing, has_module_gone_or_failed, has_earlier_fault, have_others_fallen}},
    {cause::interface_moved,
     side::local,
     layer::administration,
     certainty::certain,
     {has_moved},
     {was_unbound},
     {is_light_seen_missing, has_link_fault}},
    {cause::driver_gone,
     side::local,
     layer::driver,
     certainty::certain,
     {was_unbound},
     {},
     {has_stayed, is_light_seen_missing, has_link_fault}},
    {cause::interface_gone,
     side::local,
     layer::driver,
     certainty::certain,
     {was_removed},
     {has_moved, was_unbound, was_reset},
     {is_light_seen_missing, has_link_fault}},
    {cause::device_reset,
     side::local,
     layer::device,
     certainty::certain,
     {was_reset},
     {was_unbound},
     {have_others_stayed, is_light_missing, has_link_fault}},
    /* If one switch is at the far end of all fibres, all lose their light together. */
    {cause::machine_wide,
     side::unknown,
     layer::device,
     certainty::likely,
     {fell_with_machine},
     {is_all_dark, is_one_lane_dark, is_module_gone},
     {has_one_other_fallen}},
    {cause::device_reset,
     side::local,
     layer::device,
     certainty::likely,
     {fell_with_device},
     {is_all_dark, is_one_lane_dark, is_module_gone},
     {has_link_fault, has_module_failed, is_laser_dark, has_one_other_fallen, is_rest_unknown}},
    {cause::module_replaced,
     side::local,
     layer::module,
     certainty::certain,
     {was_replaced},
     {},
     {does_module_answer, was_no_module_there, has_earlier_fault, have_others_fallen}},
    /* A module that stops answering looks like one that was pulled. */
    {cause::module_pulled,
     side::local,
     layer::module,
     certainty::likely,
     {is_module_gone},
     {},
     {has_another_serial}},
    {cause::module_hot,
     side::local,
     layer::module,
     certainty::likely,
     {is_module_hot, has_module_failed},
     {}},
    {cause::module_hot,
     side::local,
     layer::module,
     certainty::likely,
     {is_module_hot, is_laser_dark},
     {}},
    {cause::module_failed, side::local, layer::module, certainty::likely, {has_module_failed}, {}},
    {cause::transmitter_fault,
     side::local,
     layer::module,
     certainty::likely,
     {has_tx_fault},
     {},
     {is_all_dark}},
    {cause::laser_dark,
     side::local,
     layer::administration,
     certainty::likely,
     {was_switched_off},
     {is_all_dark},
     {},
     {"Who has switched the transmitter off.",
      "Find who switches it off (the driver, a script), and switch it on again."}},
    {cause::laser_dark,
     side::local,
     layer::module,
     certainty::likely,
     {is_laser_dark},
     {is_all_dark}},
    {cause::module_failed,
     side::local,
     layer::module,
     certainty::possible,
     {is_laser_dark, is_all_dark},
     {was_switched_off}},
    {cause::settings_differ,
     side::local,
     layer::negotiation,
     certainty::likely,
     {do_settings_differ},
     {is_all_dark, is_one_lane_dark}},
    {cause::light_faded, side::between, layer::fibre, certainty::likely, {has_faded}, {}},
    {cause::light_lost,
     side::unknown,
     layer::fibre,
     certainty::likely,
     {is_all_dark},
     {has_faded},
     {is_module_hot, was_switched_off, was_no_light_seen}},
    {cause::lane_lost, side::unknown, layer::fibre, certainty::likely, {is_one_lane_dark}, {}},
    {cause::far_side_deaf,
     side::between,
     layer::fibre,
     certainty::likely,
     {says_far_side_deaf, is_light_there},
     {is_laser_dark, has_tx_fault}},
    {cause::far_side_deaf,
     side::between,
     layer::fibre,
     certainty::possible,
     {says_far_side_deaf},
     {}},
    {cause::errors_rose,
     side::between,
     layer::pcs_fec,
     certainty::likely,
     {have_errors_risen},
     {},
     {were_few_counted}},
    {cause::no_lock,
     side::unknown,
     layer::pcs_fec,
     certainty::likely,
     {has_no_lock, is_light_there},
     {}},
    {cause::no_lock, side::unknown, layer::pcs_fec, certainty::possible, {has_no_lock}, {}},
    {cause::negotiation_failed,
     side::unknown,
     layer::negotiation,
     certainty::likely,
     {has_negotiation_failed, is_light_there},
     {}},
    {cause::negotiation_failed,
     side::unknown,
     layer::negotiation,
     certainty::possible,
     {has_negotiation_failed},
     {}},
    {cause::module_hot, side::local, layer::module, certainty::possible, {says_module_hot}, {}},
    {cause::module_pulled, side::local, layer::module, certainty::possible, {says_module_gone}, {}},
    {cause::module_failed,
     side::local,
     layer::module,
     certainty::possible,
     {says_module_failed},
     {}},
    {cause::flapping, side::unknown, layer::unknown, certainty::possible, {is_flapping}, {}},
};

static constexpr const char *other_end =
    "The facts of the other end: teskctl why --other-end FILE.";

/* In the order of enum cause. */
static constexpr advice advices[] = {
    {"Whether what else was seen came before it.",
     "Set it up again, or ask who set it down: the network's own service, a script, an operator."},
    {"Whether the driver left at the same time.", "Look in the namespace that it was moved to."},
    {"Whether the device was reset.",
     "Look in the kernel's log for the reason (journalctl -k): bind the driver again, or see why "
     "the device is gone."},
    {"Whether a driver left, or the interface was moved or reset.",
     "Look in the kernel's log (journalctl -k): a device that is gone may have lost its power."},
    {"The kernel's own message of a reset.",
     "Look in the kernel's log for the reason (journalctl -k); see whether its firmware is old."},
    {"The kernel's log, the power supplies, and whether other machines of the same switch fell.",
     "Look for what they share: power, a backplane, the kernel, the switch they go to."},
    {"Whether anything else happened within the same seconds.",
     "Nothing, if the swap was meant; see that the new module fits the port and the far end."},
    {"Somebody who has seen it: a module that died looks the same.",
     "Look whether the module is seated; put it in again, or another one."},
    {"The module in another port.", "Take it out and put it in again; exchange it if it recurs."},
    {"The temperature of the modules beside it.",
     "Look at fans, filters and dust; see which temperature the module is made for."},
    {"The module in another port.", "Exchange the module."},
    {"Whether somebody has switched the transmitter off.",
     "See that the transmitter isn't switched off; exchange the module."},
    {other_end,
     "Clean the connectors at both ends, look for bends; compare the far laser's power."},
    {"The other end: was its laser on? If so the fibre is cut or unplugged, if not it was off. "
     "teskctl why --other-end FILE joins both.",
     "See whether the far end is on and sends; then look at the fibre and its connectors."},
    {other_end, "Clean the connectors; exchange the module of the lane that sends no light."},
    {other_end,
     "Look at this end's transmitter, the strand towards the far end, and its receiver."},
    {other_end, "Compare speed and FEC of both ends; clean the connectors."},
    {other_end,
     "Clean the connectors and look at the margin of the light; see the far end's, too."},
    {"The settings of the other end.", "Set both ends alike: speed, negotiation, FEC."},
    {"The settings of the other end.", "Compare speed, negotiation and FEC of both ends."},
    {"A fall that follows no other one within ten seconds, with its own facts.",
     "Look at the connectors, and at the far end's log."},
    {"More facts: what the module, the kernel and the other end say.",
     "Look in the kernel's log at that time (journalctl -k), at ethtool of both ends, and in the "
     "far end's log."},
};
static_assert(std::size(advices) == cause_count);

static answer asked(const sign_of (&signs)[most_signs], const facts &seen, answer any_of,
                    answer all_of)
{
    answer found = all_of;
    for (const sign_of each : signs) {
        if (each == nullptr)
            break;
        const answer is = each(seen).is;
        if (is == any_of)
            return any_of;
        if (is == answer::unknown)
            found = answer::unknown;
    }
    return found;
}

/* Yes if all signs are yes, no if one of them is no. */
static answer is_shown(const rule &its, const facts &seen)
{
    return asked(its.requires_all, seen, answer::no, answer::yes);
}

/* Yes if one sign is yes, no if all are no. */
static answer is_excluded(const rule &its, const facts &seen)
{
    return asked(its.excludes, seen, answer::yes, answer::no);
}

static bool is_refuted(const rule &its, const facts &seen)
{
    return is_shown(its, seen) == answer::no || is_excluded(its, seen) == answer::yes;
}

static certainty weaker(certainty than)
{
    return than == certainty::certain ? certainty::likely : certainty::possible;
}

static certainty certainty_of(const rule &its, const facts &seen)
{
    const answer doubted = asked(its.doubts, seen, answer::yes, answer::no);
    const bool is_sure =
        is_excluded(its, seen) == answer::no &&
        (doubted == answer::no || (doubted == answer::unknown && its.best != certainty::certain));
    const certainty best = is_sure ? its.best : weaker(its.best);
    const bool is_alone = std::ranges::all_of(rules, [&](const rule &other) {
        return other.best != certainty::certain || other.cause == its.cause ||
               is_refuted(other, seen);
    });
    return best == certainty::certain && !is_alone ? certainty::likely : best;
}

static void add_sentences(const sign_of *signs, const facts &seen,
                          std::vector<std::string> &evidence)
{
    for (const sign_of *each = signs; each != signs + most_signs && *each != nullptr; each++)
        if (sign its = (*each)(seen); its.is == answer::yes)
            evidence.push_back(std::move(its.sentence));
}

/* In the largest unit of which the duration has at least two. */
static std::string duration_text(double seconds)
{
    static constexpr struct {
        double in_s;
        const char *name;
    } units[] = {{86400, "days"}, {3600, "hours"}, {60, "minutes"}, {1, "s"}};
    const auto *its = std::ranges::find_if(
        units, [&](const auto &unit) { return seconds >= 2 * unit.in_s || unit.in_s == 1; });
    return fmt::format("{:.0f} {}", std::floor(seconds / its->in_s), its->name);
}

/* Abnormal values that don't show a cause by themselves. */
static std::vector<std::string> abnormal(const facts &seen)
{
    std::vector<std::string> found;
    if (const sign hot = is_module_hot(seen); hot.is == answer::yes)
        found.push_back(hot.sentence);
    if (seen.tx_fault_after && std::ranges::max(*seen.tx_fault_after) > 0)
        found.emplace_back("The module reports a fault of its transmitter, perhaps an old one.");
    return found;
}

/* Adds evidence that is useful for every cause. */
static void add_context(const facts &seen, verdict &made)
{
    std::vector<std::string> &evidence = made.evidence;
    constexpr size_t most_sentences = 5;
    const auto add = [&](std::string sentence) {
        const bool is_told = std::ranges::any_of(
            evidence, [&](const std::string &each) { return each.starts_with(sentence); });
        if (evidence.size() < most_sentences && !is_told)
            evidence.push_back(std::move(sentence));
    };
    if (const sign error = has_driver_error(seen); error.is == answer::yes)
        add(error.sentence);
    if (made.cause != cause::device_reset && made.cause != cause::machine_wide)
        if (const sign fell = have_others_fallen(seen); fell.is == answer::yes)
            add(fell.sentence);
    if (seen.up_for_s)
        add(fmt::format("It had been up for {}.", duration_text(*seen.up_for_s)));
    if (const sign both = was_set_down(seen); both.is == answer::yes)
        add(both.sentence);
    if (seen.device_others_fell.value_or(1) == 0)
        if (const sign stayed = have_others_stayed(seen); stayed.is == answer::yes)
            add(stayed.sentence);
    if (made.cause == cause::not_known)
        for (const std::string &each : abnormal(seen))
            add(each);
    if (const sign weak = has_laser_weakened(seen); weak.is == answer::yes)
        add(weak.sentence);
    for (const sign_of each : {is_light_there, is_flapping})
        if (const sign its = each(seen); its.is == answer::yes)
            add(its.sentence);
    if (seen.signal_quality_before &&
        *seen.signal_quality_before * 2 < seen.signal_quality_most.value_or(0))
        add(fmt::format("The PHY's signal quality was {:.0f} of {:.0f} before.",
                        *seen.signal_quality_before, *seen.signal_quality_most));
    if (seen.extended_state)
        add(fmt::format("The driver says: {}.", *seen.extended_state));
}

/* The unknown facts about a set-down, each of which could be another cause. */
static std::string open_questions(const facts &seen)
{
    static constexpr struct {
        sign_of is;
        const char *question;
    } others[] = {{has_moved, "the interface was moved"},
                  {was_unbound, "the driver left"},
                  {was_removed, "the interface was removed"},
                  {was_reset, "the device was reset"},
                  {was_replaced, "the module was swapped"}};
    std::vector<std::string> open;
    for (const auto &its : others)
        if (its.is(seen).is == answer::unknown)
            open.emplace_back(its.question);
    return open.empty() ? ""
                        : fmt::format("Whether {} at the same time.", fmt::join(open, ", or "));
}

static std::string settle_of(const verdict &made, const advice &its, const facts &seen)
{
    if (made.certainty == certainty::certain)
        return "";
    const std::string open = made.cause == cause::set_down ? open_questions(seen) : "";
    return open.empty() ? its.settle : open;
}

verdict judge(const facts &seen)
{
    verdict made;
    const auto *found = std::ranges::find_if(rules, [&](const rule &its) {
        return is_shown(its, seen) == answer::yes && is_excluded(its, seen) != answer::yes;
    });
    made.conflicts = conflicts_of(seen);
    made.ill = illness_of(seen);
    if (found != std::end(rules)) {
        made.cause = found->cause;
        made.side = found->side;
        made.layer = found->layer;
        made.certainty = made.conflicts.empty() ? certainty_of(*found, seen) : certainty::possible;
        for (const auto &signs : {found->requires_all, found->doubts})
            add_sentences(signs, seen, made.evidence);
    }
    add_context(seen, made);
    const bool has_own = found != std::end(rules) && found->own.action != nullptr;
    const advice &its = has_own ? found->own : advices[static_cast<size_t>(made.cause)];
    made.settle = settle_of(made, its, seen);
    made.action = its.action;
    if (!made.ill.empty())
        made.action += " It came back worse: clean the connectors, and compare light, speed, lanes "
                       "and FEC of both ends.";
    return made;
}

/* Two ends report one fall at most a few seconds apart. If the bounds of the clocks aren't known,
   falls within half a minute count as one. */
static constexpr double longest_apart = 5, longest_apart_by_any_clock = 30;

/* Each end's kernel reports a lost carrier up to a second late. */
static constexpr double longest_hold = 1.1;

static bool is_one_end(const facts &here, const facts &there)
{
    return here.boot && there.boot && *here.boot == *there.boot && here.interface &&
           there.interface && *here.interface == *there.interface;
}

static order order_of(const facts &here, const facts &there)
{
    order who;
    who.sentence = "Who fell first isn't known: a time or the bound of a clock is missing.";
    if (is_one_end(here, there)) {
        who.is_one_fall = false;
        who.sentence = "Both records are of this end: the other one's aren't there.";
        return who;
    }
    if (!here.time || !there.time)
        return who;
    const double apart = *here.time - *there.time,
                 clocks = here.clock_error_s.value_or(0) + there.clock_error_s.value_or(0),
                 bound = clocks + longest_hold;
    const bool are_bound = here.clock_error_s && there.clock_error_s;
    who.is_one_fall =
        std::abs(apart) <= clocks + (are_bound ? longest_apart : longest_apart_by_any_clock);
    if (!who.is_one_fall)
        who.sentence =
            fmt::format("The records are of two falls: {:.0f} s lie between.", std::abs(apart));
    if (!are_bound || !who.is_one_fall)
        return who;
    who.is_known = std::abs(apart) > bound;
    who.here_first = apart < 0;
    who.sentence =
        who.is_known
            ? fmt::format(
                  "{} end fell first, by {:.3f} s; clocks and messages are right within {:.3f} s.",
                  who.here_first ? "This" : "The other", std::abs(apart), bound)
            : fmt::format(
                  "Who fell first isn't known: {:.3f} s lie between, and clocks and messages are "
                  "right within {:.3f} s.",
                  std::abs(apart), bound);
    return who;
}

/* Whether the facts of the other end can explain a cause that one end has found alone. */
static bool is_open_question(cause its)
{
    static constexpr cause open[] = {cause::light_lost,         cause::lane_lost, cause::no_lock,
                                     cause::negotiation_failed, cause::flapping,  cause::not_known,
                                     cause::far_side_deaf};
    return std::ranges::find(open, its) != std::end(open);
}

static void settle_by(verdict &made, const char *settle, std::string action)
{
    made.settle = settle;
    made.action = std::move(action);
}

/* Takes over the cause that the other end has found for this fall. */
static void take_over(verdict &made, const verdict &other)
{
    made.cause = other.cause;
    made.side = side::remote;
    made.layer = other.layer;
    made.certainty = std::min(other.certainty, certainty::likely);
    made.evidence.insert(made.evidence.begin(), "At the other end: " + other.evidence.front());
    settle_by(made, "The other end's own verdict: teskctl why, there.",
              fmt::format("At the other end: {}", other.action));
}

/* Combines the evidence of light at both ends. Returns whether it shows a cause. */
static bool join(verdict &made, const verdict &other, const facts &here, const facts &there)
{
    static constexpr char look[] = "A look at the fibre.";
    static constexpr char fibre[] = "Look at the fibre and its connectors between the two ends.";
    if (made.cause == cause::light_lost && is_laser_on(there)) {
        made.side = side::between;
        made.evidence.emplace_back("The other end's laser is on: its light is lost on the way.");
        settle_by(made, look, fibre);
    } else if (made.cause == cause::far_side_deaf && is_all_dark(there).is == answer::yes &&
               is_laser_on(here)) {
        made.side = side::between;
        made.evidence.emplace_back("The other end receives no light, and this end's laser is on: "
                                   "its light is lost on the way.");
        settle_by(made, look, fibre);
    } else if (made.cause == cause::not_known && other.cause != cause::not_known) {
        made.cause = other.cause;
        made.layer = other.layer;
        made.evidence.insert(made.evidence.begin(), "At the other end: " + other.evidence.front());
        settle_by(made, "What this end sends.", other.action);
    } else {
        return false;
    }
    return true;
}

verdict judge_both(const facts &here, const facts &there, order &who)
{
    verdict made = judge(here);
    const verdict other = judge(there);
    who = order_of(here, there);
    if (who.is_known && !who.here_first)
        made.certainty = std::min(made.certainty, certainty::likely);
    if (!is_open_question(made.cause))
        return made;
    if (!who.is_one_fall) {
        made.settle = "The other end's record of the same fall.";
        return made;
    }
    if (other.side == side::local && !(who.is_known && who.here_first)) {
        take_over(made, other);
    } else if (!join(made, other, here, there)) {
        made.settle = "More facts of the other end than it has given.";
        return made;
    }
    if (!made.conflicts.empty() || !other.conflicts.empty() || !here.time || !there.time)
        made.certainty = certainty::possible;
    return made;
}

const char *name_of(cause it)
{
    static constexpr const char *names[] = {
        "set down",      "interface moved", "driver gone",       "interface gone",
        "device reset",  "machine-wide",    "module replaced",   "module pulled",
        "module failed", "module hot",      "transmitter fault", "laser dark",
        "light faded",   "light lost",      "lane lost",         "far side deaf",
        "no lock",       "errors rose",     "settings differ",   "negotiation failed",
        "flapping",      "not known"};
    static_assert(std::size(names) == cause_count);
    return names[static_cast<size_t>(it)];
}

const char *name_of(side it)
{
    static constexpr const char *names[] = {"local", "remote", "between", "unknown"};
    return names[static_cast<size_t>(it)];
}

const char *name_of(layer it)
{
    static constexpr const char *names[] = {"administration", "driver",  "device",      "module",
                                            "fibre",          "PCS/FEC", "negotiation", "unknown"};
    return names[static_cast<size_t>(it)];
}

const char *name_of(certainty it)
{
    static constexpr const char *names[] = {"possible", "likely", "certain"};
    return names[static_cast<size_t>(it)];
}

} // namespace causes
