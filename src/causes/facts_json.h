/* SPDX-License-Identifier: Apache-2.0 */
/* facts_json - facts as JSON: one object, its keys are the names of facts.h, in the table of
   docs/causes.md. A missing key, or null, is a fact that isn't known. No state. */
#pragma once

#include "causes/facts.h"

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string_view>

namespace causes
{

/* Its text names the wrong key and the values that the key takes. */
class facts_error : public std::runtime_error
{
  public:
    using std::runtime_error::runtime_error;
};

/* A text with facts of one fall or of many, for facts_from(). Parses only what a machine can have,
   32 falls of each of 1024 ports, each with its verdict: throws facts_error for a text with more or
   deeper objects, which could take hours or the stack, and a json::exception for one that is none.
 */
nlohmann::ordered_json parse_facts(std::string_view written);
/* Throws facts_error for a key that isn't known, a value of another type or out of its range, lists
   of different lengths, or no object. */
facts facts_from(const nlohmann::ordered_json &object);
/* The facts that are known, in the order of the table. */
nlohmann::ordered_json to_json(const facts &known);
/* For each fact that is known: its key, and the facts without it. Shows which facts a verdict rests
   on. */
std::vector<std::pair<std::string, facts>> without_each(const facts &known);

} // namespace causes
