/* SPDX-License-Identifier: Apache-2.0 */
/* The rules are in src/causes, which the tools and the exporter use, too. */
#include "tesk_client/tesk_client_fall.h"

#include "causes/facts_json.h"
#include "causes/verdict_json.h"
#include "util/escape.h"

#include <cstring>
#include <nlohmann/json.hpp>

static constexpr size_t largest_facts = size_t{64} << 10;

static outcome refusal(const std::string &why)
{
    outcome refused;
    refused.result = TESK_CLIENT_MISUSE;
    refused.text = why;
    return refused;
}

outcome judge_fall(const char *facts, tesk_client_fall_judged judged, void *user)
{
    using json = nlohmann::ordered_json;
    if (strnlen(facts, largest_facts + 1) > largest_facts)
        return refusal("the facts of a fall have at most 64 KiB");
    try {
        const causes::facts seen = causes::facts_from(causes::parse_facts(facts));
        const json verdict = causes::json_of(seen, causes::judge(seen), nullptr);
        judged(verdict.dump(-1, ' ', false, json::error_handler_t::replace).c_str(), user);
        return {};
    } catch (const causes::facts_error &error) {
        return refusal(escape(error.what()));
    } catch (const json::exception &) {
        return refusal("the facts of a fall are one object of JSON");
    }
}
