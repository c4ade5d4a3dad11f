/* SPDX-License-Identifier: Apache-2.0 */
/* The table below has the rules, from top to bottom; the first one whose signs are all there is the
   verdict. judge() then lowers its certainty by what isn't known. */
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

struct rule {
    causes::cause cause;
    causes::side side;
    causes::layer layer;
    certainty best; /* with all that is excluded known not to be */
    sign_of requires_all[most_signs];
    sign_of excludes[most_signs];
    sign_of doubts[most_signs] = {}; /* each makes it weaker */
};

struct advice {
    const char *settle;
    const char *action;
};

} // namespace

/* Administration, driver and device come first, since a laser that they switch off looks like a
   dead one; then the module, since what is pulled takes its light along; then light, since without
   it there is neither lock nor negotiation. */
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
     certainty::certain,
     {was_set_down},
     {has_moved, was_unbound, was_removed, was_reset},
     {is_light_missing, has_other_fault}},
    {cause::interface_moved,
     side::local,
     layer::administration,
     certainty::certain,
     {has_moved},
     {was_unbound}},
    {cause::driver_gone, side::local, layer::driver, certainty::certain, {was_unbound}, {}},
    {cause::interface_gone,
     side::local,
     layer::driver,
     certainty::certain,
     {was_removed},
     {has_moved, was_unbound, was_reset}},
    {cause::device_reset,
     side::local,
     layer::device,
     certainty::certain,
     {was_reset},
     {was_unbound}},
    /* A switch at the other end of all fibres takes their light along. */
    {cause::machine_wide,
     side::unknown,
     layer::device,
     certainty::likely,
     {fell_with_machine},
     {is_all_dark, is_one_lane_dark, is_module_gone}},
    {cause::device_reset,
     side::local,
     layer::device,
     certainty::likely,
     {fell_with_device},
     {is_all_dark, is_one_lane_dark, is_module_gone},
     {says_far_side_deaf, has_no_lock, do_settings_differ, has_module_failed, has_tx_fault,
      is_laser_dark}},
    {cause::module_replaced, side::local, layer::module, certainty::certain, {was_replaced}, {}},
    /* One that doesn't answer any more looks like one that was pulled. */
    {cause::module_pulled, side::local, layer::module, certainty::likely, {is_module_gone}, {}},
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
     layer::module,
     certainty::likely,
     {is_laser_dark},
     {is_all_dark}},
    {cause::module_failed,
     side::local,
     layer::module,
     certainty::possible,
     {is_laser_dark, is_all_dark},
     {}},
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
     {is_module_hot}},
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
    {cause::errors_rose, side::between, layer::pcs_fec, certainty::likely, {have_errors_risen}, {}},
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

/* By cause. */
static constexpr advice advices[] = {
    {"Whether the interface was moved, removed or reset at the same time, or the module swapped.",
     "Set it up again, or ask who set it down: the network's own service, a script, an operator."},
    {"Whether the driver left at the same time.", "Look in the namespace that it was moved to."},
    {"Whether the device was reset.",
     "Look in the kernel's log for the reason (journalctl -k): bind the driver again, or see why "
     "the device is gone."},
    {"Whether a driver left, or the interface was moved or reset.",
     "Look in the kernel's log (journalctl -k): a device that is gone may have lost its power."},
    {"The kernel's own message of a reset.",
     "Look in the kernel's log for the reason (journalctl -k); see whether its firmware is old."},
    {other_end, "Look for what they share: power, a backplane, the kernel, the switch they go to."},
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
     "See with teskctl why --json which facts are known, and compare the far end's log."},
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

/* Yes if all signs are there, no if one of them isn't. */
static answer is_shown(const rule &its, const facts &seen)
{
    return asked(its.requires_all, seen, answer::no, answer::yes);
}

/* Yes if one of them is there, no if none is. */
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

/* In the largest unit of which it has two. */
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

/* What a reader wants to know with any cause. */
static void add_context(const facts &seen, std::vector<std::string> &evidence)
{
    constexpr size_t most_sentences = 5;
    const auto add = [&](std::string sentence) {
        if (evidence.size() < most_sentences &&
            std::ranges::find(evidence, sentence) == evidence.end())
            evidence.push_back(std::move(sentence));
    };
    if (seen.driver_error)
        add(fmt::format("The driver reported an error: {}.", *seen.driver_error));
    if (seen.up_for_s)
        add(fmt::format("It had been up for {}.", duration_text(*seen.up_for_s)));
    if (const sign both = was_set_down(seen); both.is == answer::yes)
        add(both.sentence);
    if (seen.device_others_fell && *seen.device_others_fell == 0 &&
        seen.device_others_stayed.value_or(0) > 0)
        add(fmt::format("Other ports of the device stayed up: {:.0f}.",
                        *seen.device_others_stayed));
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
    add_context(seen, made.evidence);
    const advice &its = advices[static_cast<size_t>(made.cause)];
    made.settle = made.certainty == certainty::certain ? "" : its.settle;
    made.action = its.action;
    return made;
}

/* The two ends of a link notice a fall within a second or two. */
static constexpr double longest_apart = 30;

/* The kernel tells of a lost carrier up to a second late, at each end. */
static constexpr double longest_hold = 1.1;

static order order_of(const facts &here, const facts &there)
{
    order who;
    who.sentence = "Who fell first isn't known: a time or the bound of a clock is missing.";
    if (!here.time || !there.time)
        return who;
    const double apart = *here.time - *there.time,
                 clocks = here.clock_error_s.value_or(0) + there.clock_error_s.value_or(0),
                 bound = clocks + 2 * longest_hold;
    who.is_one_fall = std::abs(apart) <= longest_apart + clocks;
    if (!here.clock_error_s || !there.clock_error_s)
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

/* Of what one end saw alone, and what the other end explains. */
static bool is_open_question(cause its)
{
    static constexpr cause open[] = {cause::light_lost,         cause::lane_lost, cause::no_lock,
                                     cause::negotiation_failed, cause::flapping,  cause::not_known,
                                     cause::far_side_deaf};
    return std::ranges::find(open, its) != std::end(open);
}

verdict judge_both(const facts &here, const facts &there, order &who)
{
    verdict made = judge(here);
    const verdict other = judge(there);
    who = order_of(here, there);
    if (!who.is_one_fall) {
        who.is_known = false;
        who.sentence = "The records are of two falls: too much time lies between.";
        return made;
    }
    if (!is_open_question(made.cause))
        return made;
    if (other.side == side::local && !(who.is_known && who.here_first)) {
        made.cause = other.cause;
        made.side = side::remote;
        made.layer = other.layer;
        made.certainty = std::min(other.certainty, certainty::likely);
        made.evidence.insert(made.evidence.begin(), "At the other end: " + other.evidence.front());
    } else if (made.cause == cause::light_lost && is_laser_on(there)) {
        made.side = side::between;
        made.evidence.emplace_back("The other end's laser is on: its light is lost on the way.");
    } else {
        return made;
    }
    if (!made.conflicts.empty() || !other.conflicts.empty())
        made.certainty = certainty::possible;
    const advice &its = advices[static_cast<size_t>(made.cause)];
    made.settle = made.side == side::between ? "A look at the fibre." : its.settle;
    made.action = its.action;
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
