/* SPDX-License-Identifier: Apache-2.0 */
/* In the order of the header. A threshold of a sign is defined above the sign, with its reason. */
#include "causes/signs.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace causes
{

/* Below the sensitivity of every receiver: what a photodiode without light measures. */
static constexpr double dark = -30;
/* The alarm limit of receivers without one of their own, a little below the sensitivity of
   10GBASE-LR: -14.4 dBm. */
static constexpr double usual_low_alarm = -16;
/* More than the loss of a connector that is moved, less than half of a link's usual margin. */
static constexpr double much_loss = 2;
/* A laser that is off has a bias of some microamperes. */
static constexpr double no_bias = 0.5;
/* No module is too hot below this temperature; a limit of 0 means that there is none. */
static constexpr double no_limit = 20;
/* With an error ratio of 1e-12, the largest that standards permit, 10 Gbit/s have one error in 100
   s. */
static constexpr double usual_errors = 10;
/* A swap by hand takes longer than this; after another cause, a swap follows much later. */
static constexpr double soonest_swap = 10;
/* In dB: light that is further above a receiver's limit has not become too weak. */
static constexpr double safe_margin = 3;
/* A sudden loss is larger than the loss of fading light between two looks. */
static constexpr double sudden_loss = 6;
/* More falls in an hour than a person causes who works on the link. */
static constexpr double many_in_hour = 10;
/* Forward error correction (RS) fails within a decade of this ratio. */
static constexpr double usual_errors_limit = 2e-4;

static answer to_answer(bool is)
{
    return is ? answer::yes : answer::no;
}

static sign of_flag(const flag &its, const char *sentence)
{
    if (!its)
        return {};
    return {to_answer(*its), sentence};
}

static size_t count_on(const std::vector<double> &flags)
{
    return static_cast<size_t>(std::ranges::count_if(flags, [](double on) { return on > 0; }));
}

/* " on lanes 0, 2 of 4", numbered as in teskctl module; empty if there is one lane. */
static std::string lanes_text(const std::vector<double> &flags)
{
    const size_t on = count_on(flags);
    if (flags.size() == 1)
        return "";
    if (on == flags.size())
        return fmt::format(" on all {} lanes", on);
    std::string list;
    for (size_t lane = 0; lane < flags.size(); lane++)
        if (flags[lane] > 0)
            list += fmt::format("{}{}", list.empty() ? "" : ", ", lane);
    return fmt::format(" on lane{} {} of {}", on == 1 ? "" : "s", list, flags.size());
}

/* A limit of 0 in the module's table means that there is none. */
static double low_alarm(const facts &seen)
{
    const double own = seen.rx_low_alarm.value_or(0);
    return own < 0 ? own : usual_low_alarm;
}

static double errors_limit(const facts &seen)
{
    const double own = seen.errors_limit.value_or(0);
    return own > 0 ? own : usual_errors_limit;
}

sign was_set_down(const facts &seen)
{
    return of_flag(seen.set_down, "The interface was set down.");
}

sign has_moved(const facts &seen)
{
    return of_flag(seen.interface_moved, "The interface was moved to another network namespace.");
}

sign was_unbound(const facts &seen)
{
    return of_flag(seen.driver_unbound, seen.device_removed.value_or(false)
                                            ? "The device was removed, and its driver with it."
                                            : "The driver left the device.");
}

sign was_removed(const facts &seen)
{
    return of_flag(seen.interface_removed, "The kernel removed the interface.");
}

sign has_stayed(const facts &seen)
{
    if (!seen.interface_removed)
        return {};
    return {to_answer(!*seen.interface_removed), "The interface stayed."};
}

/* A set-down, or a pulled module, concerns one port: falls of other ports are evidence against
   these causes. */
sign have_others_fallen(const facts &seen)
{
    const double of_machine = seen.machine_others_fell.value_or(0);
    if (seen.device_others_fell.value_or(0) + of_machine <= 0)
        return seen.device_others_fell ? sign{answer::no, ""} : sign{};
    const bool is_device = seen.device_others_fell.value_or(0) > 0;
    return {answer::yes,
            fmt::format(
                "Other ports of {} fell within a second, too: {:.0f}; {:.0f} stayed up.",
                is_device ? "the device" : "the machine",
                is_device ? *seen.device_others_fell : of_machine,
                (is_device ? seen.device_others_stayed : seen.machine_others_stayed).value_or(0))};
}

/* Both ports of a card, or two cards, may be connected to one switch that restarts. */
sign has_one_other_fallen(const facts &seen)
{
    const double others =
        seen.device_others_fell.value_or(0) + seen.machine_others_fell.value_or(0);
    return {to_answer(others <= 1), "That is one port more, which may share its other end."};
}

sign is_rest_unknown(const facts &seen)
{
    return {to_answer(!seen.machine_others_fell),
            "Whether ports of other devices fell isn't known."};
}

sign have_others_stayed(const facts &seen)
{
    if (!seen.device_others_stayed)
        return {};
    return {
        to_answer(*seen.device_others_stayed > 0),
        fmt::format("Other ports of the device stayed up: {:.0f}.", *seen.device_others_stayed)};
}

sign may_have_left(const facts &seen)
{
    return {to_answer(!seen.interface_removed || !seen.interface_moved),
            "Whether the interface was removed or moved isn't known."};
}

sign has_left_later(const facts &seen)
{
    if (!seen.left_after_s)
        return {};
    return {answer::yes, fmt::format("The interface was gone {:.1f} s later: a driver that leaves "
                                     "slowly may have set it down.",
                                     *seen.left_after_s)};
}

sign was_reset(const facts &seen)
{
    return of_flag(seen.device_reset, "The driver reset the device.");
}

/* `sentence` is a format for the number of fallen ports. */
static sign did_all_fall(const number &fell, const number &stayed, const char *sentence)
{
    if (!fell || (*fell >= 1 && !stayed))
        return {};
    return {to_answer(*fell >= 1 && *stayed == 0), fmt::format(fmt::runtime(sentence), *fell)};
}

sign fell_with_device(const facts &seen)
{
    return did_all_fall(
        seen.device_others_fell, seen.device_others_stayed,
        "All other ports of the device that were up fell within a second, too: {:.0f}.");
}

sign fell_with_machine(const facts &seen)
{
    if (seen.device_others_stayed.value_or(0) > 0)
        return {answer::no, ""};
    return did_all_fall(
        seen.machine_others_fell, seen.machine_others_stayed,
        "All ports of other devices that were up fell within a second, too: {:.0f}.");
}

/* False for an empty text, as of a module without a serial number, and for the bytes of a bus that
   nothing drives. */
static bool is_serial(const std::string &read)
{
    return !read.empty() && std::ranges::all_of(read, [](char c) { return c > ' ' && c <= '~'; });
}

/* A reading that is truncated, or that has one wrong bit in each letter, is not another module. */
static bool are_alike(const std::string &one, const std::string &other)
{
    const size_t length = std::min(one.size(), other.size());
    return std::ranges::equal(one.substr(0, length), other.substr(0, length),
                              [](char a, char b) { return (a | ' ') == (b | ' '); });
}

static answer is_serial_another(const facts &seen)
{
    if (!seen.serial_before || !seen.serial_after || !is_serial(*seen.serial_before) ||
        !is_serial(*seen.serial_after))
        return answer::unknown;
    if (*seen.serial_before == *seen.serial_after)
        return answer::no;
    return are_alike(*seen.serial_before, *seen.serial_after) ? answer::unknown : answer::yes;
}

sign was_replaced(const facts &seen)
{
    if (seen.present_before && !*seen.present_before && seen.present_after && !*seen.present_after)
        return {answer::no, ""};
    const answer is_another = is_serial_another(seen);
    if (is_another != answer::yes)
        return {is_another, ""};
    /* If the new serial number was read later, the link may have fallen first, for another
       reason. */
    if (!seen.serial_after_s || *seen.serial_after_s > soonest_swap)
        return {};
    return {answer::yes,
            fmt::format("The module {} was there before and {} {:.1f} s after.",
                        *seen.serial_before, *seen.serial_after, *seen.serial_after_s)};
}

sign is_module_gone(const facts &seen)
{
    if (!seen.present_before || !seen.present_after)
        return {};
    return {to_answer(*seen.present_before && !*seen.present_after),
            "A module answered before the fall, and none at the first look after it."};
}

sign has_another_serial(const facts &seen)
{
    if (is_serial_another(seen) != answer::yes)
        return {answer::no, ""};
    return {answer::yes, fmt::format("Another module is there now: {}, before {}.",
                                     *seen.serial_after, *seen.serial_before)};
}

sign was_no_module_there(const facts &seen)
{
    if (!seen.present_before)
        return {};
    return {to_answer(!*seen.present_before), "No module answered before the fall."};
}

/* A module that is being swapped doesn't answer at the first look after the fall. */
sign does_module_answer(const facts &seen)
{
    return of_flag(seen.present_after, "A module answered at the first look after the fall.");
}

sign has_module_failed(const facts &seen)
{
    if (!seen.state_before || !seen.state_after)
        return {};
    return {to_answer(*seen.state_before == "ready" && *seen.state_after != "ready"),
            fmt::format("The module's state went from ready to {}.", *seen.state_after)};
}

/* Drivers fill the extended state late, or wrongly: alone it is no evidence. */
static sign driver_says(const facts &seen, std::initializer_list<const char *> states)
{
    if (!seen.extended_state)
        return {};
    return {to_answer(std::ranges::any_of(
                states, [&](const char *each) { return *seen.extended_state == each; })),
            fmt::format("The driver says: {}.", *seen.extended_state)};
}

sign says_module_hot(const facts &seen)
{
    return driver_says(seen, {"Overheat"});
}

static sign says_no_cable(const facts &seen)
{
    return driver_says(seen, {"No cable"});
}

/* If the module is known to be present, "No cable" means that no signal comes from the far end. */
sign says_module_gone(const facts &seen)
{
    return seen.present_after.value_or(false) ? sign{answer::no, ""} : says_no_cable(seen);
}

sign says_module_failed(const facts &seen)
{
    return driver_says(seen, {"Module", "Cable issue", "EEPROM issue", "Power budget exceeded"});
}

/* A module above its own temperature limit switches itself off. */
sign is_module_hot(const facts &seen)
{
    if (!seen.temperature_before || seen.temperature_high_alarm.value_or(0) <= no_limit) {
        sign said = says_module_hot(seen);
        return said.is == answer::yes ? said : sign{};
    }
    return {to_answer(*seen.temperature_before >= *seen.temperature_high_alarm),
            fmt::format("The module had {:.1f} degrees Celsius; its alarm limit is {:.1f}.",
                        *seen.temperature_before, *seen.temperature_high_alarm)};
}

/* The flag is latched: it is evidence of the fall only if it was clear before. */
sign has_tx_fault(const facts &seen)
{
    if (!seen.tx_fault_after)
        return {};
    const size_t after = count_on(*seen.tx_fault_after);
    if (after == 0)
        return {answer::no, ""};
    if (!seen.tx_fault_before)
        return {};
    return {to_answer(count_on(*seen.tx_fault_before) < after),
            fmt::format("The module reports a fault of its transmitter{}.",
                        lanes_text(*seen.tx_fault_after))};
}

sign was_switched_off(const facts &seen)
{
    if (!seen.tx_off_before || !seen.tx_off_after)
        return {};
    return {to_answer(count_on(*seen.tx_off_after) > count_on(*seen.tx_off_before)),
            fmt::format("The transmitter is switched off{}, and wasn't before.",
                        lanes_text(*seen.tx_off_after))};
}

sign is_laser_dark(const facts &seen)
{
    if (sign its = was_switched_off(seen); its.is == answer::yes)
        return its;
    const auto went_off = [](const by_lane &before, const by_lane &after, double least) {
        return before && after &&
               std::ranges::all_of(*before, [&](double v) { return v > least; }) &&
               std::ranges::all_of(*after, [&](double v) { return v <= least; });
    };
    if (went_off(seen.bias_before, seen.bias_after, no_bias))
        return {answer::yes, fmt::format("The laser's current is {:.1f} mA, it was {:.1f} mA.",
                                         seen.bias_after->front(), seen.bias_before->front())};
    if (went_off(seen.tx_before, seen.tx_after, dark))
        return {answer::yes, fmt::format("The module sends {:.1f} dBm, before the fall {:.1f} dBm.",
                                         seen.tx_after->front(), seen.tx_before->front())};
    return seen.bias_after || seen.tx_after ? sign{answer::no, ""} : sign{};
}

sign has_laser_weakened(const facts &seen)
{
    if (!seen.tx_before || !seen.tx_after)
        return {};
    const double before = std::ranges::min(*seen.tx_before),
                 after = std::ranges::min(*seen.tx_after);
    return {
        to_answer(before - after >= much_loss),
        fmt::format("This end sends {:.1f} dBm on the weakest lane, before the fall {:.1f} dBm.",
                    after, before)};
}

bool is_laser_on(const facts &seen)
{
    const auto is_all_over = [](const by_lane &lanes, double least) {
        return std::ranges::all_of(lanes.value(), [&](double value) { return value > least; });
    };
    return (seen.tx_after || seen.bias_after) &&
           (!seen.tx_after || is_all_over(seen.tx_after, dark)) &&
           (!seen.bias_after || is_all_over(seen.bias_after, no_bias)) &&
           (!seen.tx_off_after || count_on(*seen.tx_off_after) == 0);
}

/* The light was near the module's own limit, and is a little below it now. */
static bool has_become_too_weak(const facts &seen)
{
    if (!seen.rx_before || !seen.rx_after || seen.rx_low_alarm.value_or(0) >= 0)
        return false;
    const double before = std::ranges::min(*seen.rx_before),
                 after = std::ranges::min(*seen.rx_after);
    return before < low_alarm(seen) + safe_margin && after < low_alarm(seen) && after < before &&
           after > before - sudden_loss;
}

/* Strong light that disappears at once hasn't faded, whatever was lost before. */
static bool was_cut(const facts &seen)
{
    if (!seen.rx_before || !seen.rx_after)
        return false;
    const double before = std::ranges::min(*seen.rx_before);
    return before >= low_alarm(seen) + safe_margin &&
           std::ranges::min(*seen.rx_after) < before - sudden_loss;
}

sign has_faded(const facts &seen)
{
    if (seen.rx_lost_before.value_or(0) < much_loss && has_become_too_weak(seen))
        return {answer::yes,
                fmt::format("The weakest lane receives {:.1f} dBm, before the fall {:.1f} dBm; its "
                            "limit is {:.1f} dBm.",
                            std::ranges::min(*seen.rx_after), std::ranges::min(*seen.rx_before),
                            low_alarm(seen))};
    if (!seen.rx_lost_before)
        return {};
    /* If the light was dark already, it was lost and the fall was reported late. Light that is
       still strong was not lost. */
    if (was_cut(seen) || (seen.rx_before && std::ranges::min(*seen.rx_before) <= dark) ||
        (seen.rx_after && std::ranges::min(*seen.rx_after) >= low_alarm(seen) + safe_margin))
        return {answer::no, ""};
    const std::string time = seen.lost_in_s ? fmt::format(" within {:.0f} s", *seen.lost_in_s) : "";
    const std::string levels =
        seen.rx_before && seen.rx_after
            ? fmt::format(" It was {:.1f} dBm on the weakest lane, and is {:.1f}.",
                          std::ranges::min(*seen.rx_before), std::ranges::min(*seen.rx_after))
            : "";
    return {to_answer(*seen.rx_lost_before >= much_loss),
            fmt::format("The received light became {:.1f} dB weaker{} before the fall.{}",
                        *seen.rx_lost_before, time, levels)};
}

/* A bent or half pulled fibre may still pass a little light. */
static bool is_lane_dark(const facts &seen, size_t lane)
{
    const double level = (*seen.rx_after)[lane];
    const bool is_told = seen.rx_los_after && (*seen.rx_los_after)[lane] > 0;
    const bool was_sudden = !seen.rx_before || (*seen.rx_before)[lane] >= level + sudden_loss;
    return level <= dark || (is_told && was_sudden && level < low_alarm(seen));
}

/* Lanes that had light before the fall and are dark now. A copper cable that isn't known as copper
   reads as dark, too. */
static by_lane lanes_lost(const facts &seen)
{
    if (is_copper(seen).is == answer::yes || (!seen.medium && !seen.rx_before))
        return std::nullopt;
    if (!seen.rx_after && !seen.rx_los_after)
        return std::nullopt;
    std::vector<double> lost(seen.rx_after ? seen.rx_after->size() : seen.rx_los_after->size());
    for (size_t lane = 0; lane < lost.size(); lane++) {
        const bool is_dark =
            seen.rx_after ? is_lane_dark(seen, lane) : (*seen.rx_los_after)[lane] > 0;
        lost[lane] = is_dark && (!seen.rx_before || (*seen.rx_before)[lane] > dark) ? 1 : 0;
    }
    return lost;
}

sign is_copper(const facts &seen)
{
    if (!seen.medium)
        return {};
    return {to_answer(*seen.medium == "copper"), "The cable is of copper."};
}

sign is_all_dark(const facts &seen)
{
    const by_lane lost = lanes_lost(seen);
    if (!lost)
        return {};
    const std::string after = seen.rx_after
                                  ? fmt::format("{:.1f} dBm", std::ranges::max(*seen.rx_after))
                                  : "the module says so";
    const std::string before =
        seen.rx_before ? fmt::format(", before {:.1f} dBm", std::ranges::max(*seen.rx_before)) : "";
    return {to_answer(!lost->empty() && count_on(*lost) == lost->size()),
            fmt::format("The received light is gone{}: {}{}.", lanes_text(*lost), after, before)};
}

sign was_no_light_seen(const facts &seen)
{
    return {to_answer(!seen.rx_before), "How much light there was before isn't known."};
}

sign is_one_lane_dark(const facts &seen)
{
    const by_lane lost = lanes_lost(seen);
    if (!lost)
        return {};
    const size_t count = count_on(*lost);
    return {
        to_answer(count > 0 && count < lost->size()),
        fmt::format("The received light is gone{}, and there on the others.", lanes_text(*lost))};
}

sign is_light_there(const facts &seen)
{
    if (is_copper(seen).is == answer::yes || !seen.rx_after)
        return {};
    const double least = *std::ranges::min_element(*seen.rx_after);
    return {to_answer(least >= low_alarm(seen)),
            fmt::format("Light is received: {:.1f} dBm on the weakest lane.", least)};
}

/* If the light is gone, it may have been lost first, unseen, whatever else happened then. A copper
   cable, and a port without a module, have no light to lose. */
sign is_light_missing(const facts &seen)
{
    const bool is_empty = !seen.present_before.value_or(true) && !seen.present_after.value_or(true);
    if (is_copper(seen).is == answer::yes || is_empty)
        return {answer::no, ""};
    const bool is_weak = seen.rx_after && std::ranges::min(*seen.rx_after) < low_alarm(seen);
    const bool is_told = seen.rx_los_after && count_on(*seen.rx_los_after) > 0;
    if (is_weak || is_told)
        return {answer::yes,
                "Light is missing at the first look after it: it may have been lost before."};
    return seen.rx_after && seen.rx_los_after ? sign{answer::no, ""} : sign{};
}

sign is_light_seen_missing(const facts &seen)
{
    sign its = is_light_missing(seen);
    return its.is == answer::yes ? its : sign{answer::no, ""};
}

static bool were_any_counted(const facts &seen)
{
    return seen.uncorrectable_in_minute || seen.symbol_errors_in_minute ||
           seen.frame_errors_in_minute;
}

/* Whether a reading before the fall could have given values that are missing. */
static bool are_readings_missing(const facts &seen)
{
    const bool has_light = is_copper(seen).is != answer::yes && seen.present_after.value_or(true);
    return (has_light && has_tx_fault(seen).is == answer::unknown) ||
           (seen.rx_before && !seen.rx_lost_before) ||
           (seen.counted_for_s && !were_any_counted(seen));
}

sign has_link_fault(const facts &seen)
{
    for (const auto shown :
         {has_tx_fault, says_far_side_deaf, has_no_lock, has_faded, have_errors_risen,
          has_negotiation_failed, is_module_hot, says_module_hot, says_module_failed, says_no_cable,
          is_flapping, do_settings_differ})
        if (const sign its = shown(seen); its.is == answer::yes)
            return {answer::yes, its.sentence + " That may have been before."};
    return {answer::no, ""};
}

/* An error that isn't reported may still have happened: few drivers report any. */
sign has_driver_error(const facts &seen)
{
    if (!seen.driver_error)
        return {};
    return {answer::yes, fmt::format("The driver reported an error: {}.", *seen.driver_error)};
}

/* A driver that gives up its device sets the interface down itself. Optical modules have a flag for
   faults of their transmitter; few ports have the values for the other signs. */
sign has_earlier_fault(const facts &seen)
{
    if (const sign error = has_driver_error(seen); error.is == answer::yes)
        return {answer::yes, error.sentence + " It may have set the interface down for that."};
    sign fault = has_link_fault(seen);
    return fault.is == answer::no && are_readings_missing(seen) ? sign{} : fault;
}

sign has_module_gone_or_failed(const facts &seen)
{
    for (const auto shown : {is_module_gone, has_module_failed})
        if (const sign its = shown(seen); its.is == answer::yes)
            return {answer::yes, its.sentence + " That may have been before."};
    return {answer::no, ""};
}

sign says_far_side_deaf(const facts &seen)
{
    return of_flag(seen.remote_fault, "The far end says that it doesn't receive (remote fault).");
}

sign has_no_lock(const facts &seen)
{
    if (seen.rx_lol_after && count_on(*seen.rx_lol_after) > 0)
        return {answer::yes, fmt::format("The module finds no clock in the received signal{}.",
                                         lanes_text(*seen.rx_lol_after))};
    if (sign said = driver_says(seen, {"Link logical mismatch", "Bad signal integrity"});
        said.is == answer::yes)
        return said;
    return seen.rx_lol_after ? sign{answer::no, ""} : sign{};
}

/* "1 block", "12 blocks". */
static std::string count_text(double count, const char *of_what)
{
    return fmt::format("{:.0f} {}{}", count, of_what, count == 1 ? "" : "s");
}

static std::string counted_time(const facts &seen)
{
    return seen.counted_for_s.value_or(60) < 60
               ? fmt::format(", counted for {:.0f} s of it", *seen.counted_for_s)
               : "";
}

/* The first kind of error with too many counts; nothing if no kind was counted. */
static sign were_many_counted(const facts &seen)
{
    const struct {
        const number &count;
        double most;
        const char *of_what, *what;
    } kinds[] = {
        {seen.uncorrectable_in_minute, 0, "block", "couldn't be corrected"},
        {seen.symbol_errors_in_minute, usual_errors, "symbol", "were damaged"},
        {seen.frame_errors_in_minute, usual_errors, "frame", "were damaged"},
    };
    sign found;
    for (const auto &kind : kinds) {
        if (!kind.count)
            continue;
        if (*kind.count > kind.most)
            return {answer::yes, fmt::format("{} {} in the last minute{}.",
                                             count_text(*kind.count, kind.of_what), kind.what,
                                             counted_time(seen))};
        found.is = answer::no;
    }
    return found;
}

sign were_few_counted(const facts &seen)
{
    const double blocks = seen.uncorrectable_in_minute.value_or(0);
    return {to_answer(blocks > 0 && blocks < usual_errors &&
                      seen.symbol_errors_in_minute.value_or(0) <= usual_errors &&
                      seen.frame_errors_in_minute.value_or(0) <= usual_errors),
            "So few may be older than the fall's cause."};
}

sign have_errors_risen(const facts &seen)
{
    sign many = were_many_counted(seen);
    if (many.is == answer::yes)
        return many;
    const double limit = errors_limit(seen);
    if (seen.errors_before)
        return {to_answer(*seen.errors_before >= limit / 10),
                fmt::format("The bit error ratio before correction was {:.1e}; correction fails at "
                            "about {:.1e}.",
                            *seen.errors_before, limit)};
    return many;
}

sign do_settings_differ(const facts &seen)
{
    if (!seen.settings_changed)
        return {};
    /* Any of the three settings may have been changed: a change of speed can change FEC, too. */
    const std::string speed =
        seen.speed_before && seen.speed_after && *seen.speed_before != *seen.speed_after
            ? fmt::format(" The speed was {:.0f} Mbit/s, and is {:.0f} now.", *seen.speed_before,
                          *seen.speed_after)
            : "";
    const std::string fec =
        seen.fec_before && seen.fec_after && *seen.fec_before != *seen.fec_after
            ? fmt::format(" FEC was {}, and is {} now.", *seen.fec_before, *seen.fec_after)
            : "";
    return {to_answer(*seen.settings_changed),
            "Speed, negotiation or FEC were set just before." + speed + fec};
}

sign has_negotiation_failed(const facts &seen)
{
    return driver_says(seen, {"Autoneg", "Link training failure"});
}

/* If a link falls three times in a minute, or again and again, the reason is not a lasting one. */
sign is_flapping(const facts &seen)
{
    if (seen.falls_in_minute.value_or(0) < 3 && seen.falls_in_hour.value_or(0) >= many_in_hour)
        return {answer::yes,
                fmt::format("It fell {:.0f} times within an hour.", *seen.falls_in_hour)};
    if (!seen.falls_in_minute)
        return {};
    return {to_answer(*seen.falls_in_minute >= 3),
            fmt::format("It fell {:.0f} times within a minute.", *seen.falls_in_minute)};
}

std::vector<std::string> conflicts_of(const facts &seen)
{
    std::vector<std::string> found;
    const auto both = [&](bool is, const char *sentence) {
        if (is)
            found.emplace_back(sentence);
    };
    const auto is_yes = [](const sign &its) { return its.is == answer::yes; };
    const bool has_levels = seen.rx_after || seen.rx_before;
    both(is_yes(is_copper(seen)) && has_levels, "A cable of copper has no levels of light.");
    both(seen.rx_los_after && count_on(*seen.rx_los_after) == seen.rx_los_after->size() &&
             is_yes(is_light_there(seen)),
         "The module reports a loss of light and measures light.");
    both(is_yes(was_unbound(seen)) && seen.interface_removed && !*seen.interface_removed,
         "A driver that leaves takes its interface along.");
    both(seen.negotiates && !*seen.negotiates && seen.extended_state.value_or("") == "Autoneg",
         "The driver speaks of negotiation, which is off.");
    both(seen.present_before && !*seen.present_before && seen.serial_before,
         "No module answered before the fall, but one was read.");
    both(is_yes(was_removed(seen)) && seen.is_up.value_or(false),
         "An interface that was removed can't be up again.");
    both(is_yes(is_module_gone(seen)) && seen.serial_before && seen.serial_after &&
             *seen.serial_before == *seen.serial_after && seen.serial_after_s.value_or(99) < 1,
         "The module was gone and was read within a second.");
    both(is_yes(is_module_gone(seen)) && seen.state_after.value_or("") == "ready",
         "A module that is gone can't be ready.");
    both(seen.bias_after && seen.tx_after && seen.bias_after->front() <= no_bias &&
             seen.tx_after->front() > -10,
         "A laser without current can't send.");
    both(seen.down_for_s && seen.is_up && !*seen.is_up, "It is down, and was so for a while only.");
    return found;
}

std::vector<std::string> illness_of(const facts &seen)
{
    std::vector<std::string> found;
    if (!seen.is_up.value_or(false))
        return found;
    const auto less = [&](const number &before, const number &after, const char *what) {
        if (before && after && *after > 0 && *after < *before)
            found.push_back(
                fmt::format("It is up with {:.0f} {}, {:.0f} before.", *after, what, *before));
    };
    if (!seen.settings_changed.value_or(false)) {
        less(seen.speed_before, seen.speed_after, "Mbit/s");
        less(seen.lanes_before, seen.lanes_after, "lanes");
        if (seen.fec_before && seen.fec_after && *seen.fec_before != "none" &&
            *seen.fec_after == "none")
            found.push_back(fmt::format("It is up without FEC; it had {}.", *seen.fec_before));
    }
    /* The values before the fall don't apply to another module. */
    const bool is_same =
        !seen.serial_before || !seen.serial_after || *seen.serial_before == *seen.serial_after;
    if (is_same && seen.rx_before && seen.rx_again) {
        const double before = *std::ranges::min_element(*seen.rx_before),
                     again = *std::ranges::min_element(*seen.rx_again);
        if (before - again >= much_loss)
            found.push_back(
                fmt::format("It receives {:.1f} dBm, which is {:.1f} dB less than before.", again,
                            before - again));
    }
    if (seen.uncorrectable_again.value_or(0) > 0)
        found.push_back(fmt::format("{} couldn't be corrected since it is up again.",
                                    count_text(*seen.uncorrectable_again, "block")));
    const double limit = errors_limit(seen);
    if (seen.errors_again &&
        (*seen.errors_again >= limit / 10 ||
         (is_same && seen.errors_before && *seen.errors_before > 0 &&
          *seen.errors_again >= 10 * *seen.errors_before && *seen.errors_again >= limit / 1000)))
        found.push_back(fmt::format("Its bit error ratio before correction is {:.1e}; correction "
                                    "fails at about {:.1e}.",
                                    *seen.errors_again, limit));
    return found;
}

} // namespace causes
