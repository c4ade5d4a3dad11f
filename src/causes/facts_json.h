/* SPDX-License-Identifier: Apache-2.0 */
/* facts_json - facts as JSON: one object, whose keys are the names of facts.h in the table of
   docs/causes.md. A missing key, or null, is a fact that isn't known. No state. */
#pragma once

#include "causes/facts.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

namespace causes
{

/* The text names the wrong key and the values that the key accepts. */
class facts_error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/* A text with facts of one fall or of many, for facts_from(). Accepts at most the objects of a
   whole machine, 32 falls of each of 1024 ports, each with its verdict: throws facts_error for more
   or deeper objects, which could take hours or exhaust the stack, and a json::exception if the text
   isn't JSON. */
nlohmann::ordered_json parse_facts(std::string_view written);
/* Throws facts_error for an unknown key, a value of a wrong type or out of range, lists of
   different lengths, or if it isn't an object. */
facts facts_from(const nlohmann::ordered_json &object);
/* The known facts, in the order of the table. */
nlohmann::ordered_json to_json(const facts &known);
/* For each known fact: its key, and all facts but this one. Shows which facts a verdict depends
   on. */
std::vector<std::pair<std::string, facts>> without_each(const facts &known);

} // namespace causes
