/* SPDX-License-Identifier: Apache-2.0 */
/* scan_folder() lists the folder when it has changed, and reads the changed files. The falls of a
   file are in order of time: those after the last known fall are new, and the last known one may
   have changed. */
#include "tesk_exporter/falls.h"

#include "causes/signs.h"
#include "program/exit_code.h"
#include "program/recorded_falls.h"
#include "program/units.h"

#include <algorithm>
#include <nlohmann/json.hpp>
#include <span>
#include <sys/stat.h>
#include <utility>

namespace exporter
{

static constexpr std::chrono::seconds interval{1};

/* A listing doesn't show a change within the same tick of the file system's clock, so the folder is
   listed again until this time has passed. */
static constexpr int64_t settled_after = 2'000'000'000;

static constexpr size_t most_newest = 64;

static int64_t nanoseconds_of(const timespec &time)
{
    return int64_t{time.tv_sec} * 1'000'000'000 + time.tv_nsec;
}

static int64_t wall_time()
{
    return std::chrono::nanoseconds{std::chrono::system_clock::now().time_since_epoch()}.count();
}

void fall_follower::start(fact_queue &reports)
{
    thread_.start([this, &reports] {
        while (!thread_.must_stop()) {
            for (fall_fact &each : scan(std::chrono::steady_clock::now()))
                reports.post(std::move(each));
            thread_.wait(-1, interval);
        }
    });
}

static fall_fact report_of(uint32_t port_no, causes::facts seen, bool is_new, bool was_ill)
{
    auto made = std::make_shared<recorded_fall>();
    made->port_no = port_no;
    made->is_new = is_new;
    made->is_counted = false;
    made->its = causes::judge(seen);
    made->is_ill_now = !is_new && !was_ill && !made->its.ill.empty();
    made->seen = std::move(seen);
    return made;
}

static fall_fact counted(const recorded_fall &its)
{
    auto made = std::make_shared<recorded_fall>(its);
    made->is_new = made->is_ill_now = false;
    made->is_counted = true;
    return made;
}

/* Falls before the exporter's start are known; only the last one of a port is reported. */
void fall_follower::scan_port(uint32_t port_no, time_point now, std::vector<fall_fact> &found)
{
    std::vector<causes::facts> falls = falls_of(folder_, port_no);
    if (falls.empty())
        return;
    const bool is_first = !was_listed_;
    known_file &its = files_[port_no];
    const auto last = std::ranges::find_if(
        falls, [&](const causes::facts &each) { return each.time.value_or(0) >= its.last; });
    const auto begin = last != falls.end() ? last : falls.end() - 1; /* the clock was set back */
    for (auto each = begin; each != falls.end(); ++each) {
        const bool is_known = each->time.value_or(0) == its.last;
        if (is_first && each + 1 != falls.end())
            continue;
        const bool is_new = !is_first && !is_known;
        if (is_new && its.uncounted)
            found.push_back(counted(*its.uncounted));
        found.push_back(report_of(port_no, *each, is_new, is_first || (is_known && its.is_ill)));
        if (is_new)
            its.due = now + counted_after;
        if (is_new || its.uncounted)
            its.uncounted = found.back();
    }
    its.last = falls.back().time.value_or(0);
    its.is_ill = !found.back()->its.ill.empty();
}

/* Reads the file if it has changed. False if it must be read again later. */
bool fall_follower::scan_file(uint32_t port_no, time_point now, std::vector<fall_fact> &found)
{
    struct stat file = {};
    if (stat((folder_ + "/" + std::to_string(port_no)).c_str(), &file) != 0)
        return false;
    known_file &its = files_[port_no];
    const int64_t changed_at = nanoseconds_of(file.st_mtim);
    if (its.changed_at == changed_at && its.inode == file.st_ino)
        return true;
    try {
        scan_port(port_no, now, found);
    } catch (const tool_error &) { /* teskctl why shows the reason */
        return false;
    }
    its.changed_at = changed_at;
    its.inode = file.st_ino;
    return true;
}

void fall_follower::scan_folder(time_point now, std::vector<fall_fact> &found)
{
    struct stat folder = {};
    if (folder_.empty() || stat(folder_.c_str(), &folder) != 0)
        return;
    const int64_t changed_at = nanoseconds_of(folder.st_mtim);
    if (changed_at == listed_at_ && wall_time() - changed_at > settled_after)
        return;
    try {
        bool is_whole = true;
        std::vector<uint32_t> ports = ports_with_falls(folder_);
        ports.resize(std::min(ports.size(), most_ports_with_falls));
        for (const uint32_t port_no : ports)
            is_whole &= scan_file(port_no, now, found);
        listed_at_ = is_whole ? changed_at : 0;
        was_listed_ = true;
    } catch (const tool_error &) { /* gone again */
    }
}

void fall_follower::count_due(time_point now, std::vector<fall_fact> &found)
{
    for (auto &[port_no, its] : files_)
        if (its.uncounted && now >= its.due)
            found.push_back(counted(*std::exchange(its.uncounted, nullptr)));
}

std::vector<fall_fact> fall_follower::scan(time_point now)
{
    std::vector<fall_fact> found;
    scan_folder(now, found);
    count_due(now, found);
    return found;
}

/* The light of the port's own lanes; nothing unless all of them are measured. */
static causes::by_lane light_of(const dolm_ric_details_record &present)
{
    std::vector<double> found;
    for (uint32_t lane = 0; lane < std::min<uint32_t>(present.lane_count, DOLM_RIC_DETAILS_LANES);
         lane++) {
        const dolm_ric_details_value &its = present.lane[lane].value[DOLM_RIC_RX_POWER];
        if ((present.own_lanes >> lane & 1) == 0)
            continue;
        if (its.state != DOLM_RIC_VALUE_VALID)
            return std::nullopt;
        found.push_back(std::max(milliwatts_to_dbm(std::max(its.value, 1e-9)), causes::no_light));
    }
    return found.empty() ? std::nullopt : causes::by_lane(found);
}

/* The worst bit error ratio of the received signal. */
static causes::number errors_of(const dolm_ric_details_record &present)
{
    causes::number worst;
    for (const auto &row :
         std::span(present.vdm).first(std::min<size_t>(present.vdm_count, DOLM_RIC_DETAILS_VDM)))
        if (row.kind == DOLM_RIC_VDM_PRE_FEC_BER_CURRENT && row.side == DOLM_RIC_SIDE_MEDIA &&
            row.state == DOLM_RIC_VALUE_VALID)
            worst = std::max(row.value, worst.value_or(0));
    return worst;
}

/* The facts of a fall about the time since the link is up again, with the present values. */
static void renew(const dolm_ric_details_record &present, causes::facts &seen)
{
    if (present.link.state == DOLM_RIC_VALUE_VALID && present.link.speed != 0)
        seen.speed_after = present.link.speed;
    if (present.link.state == DOLM_RIC_VALUE_VALID && present.link.lanes != 0)
        seen.lanes_after = present.link.lanes;
    if (present.identity.state == DOLM_RIC_VALUE_VALID)
        seen.serial_after = present.identity.serial;
    if (const auto light = light_of(present))
        seen.rx_again = light;
    if (const auto errors = errors_of(present))
        seen.errors_again = errors;
}

static void forget_again(causes::facts &seen)
{
    seen.speed_after.reset();
    seen.lanes_after.reset();
    seen.rx_again.reset();
    seen.errors_again.reset();
    seen.uncorrectable_again.reset();
}

bool fall_log::of_port::is_ill(const dolm_ric_details_record *present, steady_time now) const
{
    const bool is_down = present != nullptr && present->link.state == DOLM_RIC_VALUE_VALID &&
                         present->link.oper != DOLM_RIC_SWITCH_UP;
    if (ill == nullptr || is_down)
        return false;
    causes::facts seen = ill->seen;
    if (now - ill_since > ill_for)
        forget_again(seen);
    if (present != nullptr)
        renew(*present, seen);
    return !causes::illness_of(seen).empty();
}

/* If an ill link falls again, it is compared with its values from before it became ill. */
static void take_illness(const fall_fact &reported, steady_time now, fall_log::of_port &its)
{
    const bool is_same = its.ill && its.ill->seen.time == reported->seen.time;
    if (!reported->its.ill.empty()) {
        its.ill_since = is_same ? its.ill_since : now;
        its.ill = reported;
    } else if (is_same) {
        its.ill = nullptr;
    } else {
        its.ill_since = now - 2 * fall_log::ill_for;
    }
}

void fall_log::take(const fall_fact &reported, steady_time now)
{
    of_port &its = ports_[reported->port_no];
    its.count[static_cast<size_t>(reported->its.cause)] += reported->is_counted ? 1 : 0;
    take_illness(reported, now, its);
    std::erase_if(newest_, [&](const fall_fact &each) {
        return each->port_no == reported->port_no && each->seen.time == reported->seen.time;
    });
    newest_.push_front(reported);
    std::ranges::stable_sort(newest_, std::greater(),
                             [](const fall_fact &each) { return each->seen.time.value_or(0); });
    if (newest_.size() > most_newest)
        newest_.pop_back();
}

std::string describe(const recorded_fall &fall)
{
    return fall.is_ill_now ? illness_text(fall.its) : "link fell: " + cause_text(fall.its);
}

static std::string body_of(const json_object &falls)
{
    return to_line({{"falls", falls}}) + "\n";
}

std::string fall_log::json(size_t most) const
{
    json_object falls = json_object::array();
    for (size_t i = 0; i < std::min(most, newest_.size()); i++)
        falls.push_back(json_of(newest_[i]->seen, newest_[i]->its, nullptr));
    return body_of(falls);
}

std::string falls_json(const std::string &folder, uint32_t port_no, size_t most)
{
    const std::vector<causes::facts> falls = falls_of(folder, port_no);
    json_object shown = json_object::array();
    for (size_t i = 0; i < std::min(most, falls.size()); i++) {
        const causes::facts &seen = falls[falls.size() - 1 - i];
        shown.push_back(json_of(seen, causes::judge(seen), nullptr));
    }
    return body_of(shown);
}

} // namespace exporter
