/* SPDX-License-Identifier: Apache-2.0 */
/* The keys stand in the order in which people ask: what, how certain, why, what to do. */
#include "causes/verdict_json.h"

#include "causes/facts_json.h"

namespace causes
{

using json = nlohmann::ordered_json;

json json_of(const facts &seen, const verdict &its, const order *who)
{
    json object = {{"cause", name_of(its.cause)},
                   {"side", name_of(its.side)},
                   {"layer", name_of(its.layer)},
                   {"certainty", name_of(its.certainty)},
                   {"evidence", its.evidence},
                   {"conflicts", its.conflicts},
                   {"ill", its.ill},
                   {"settle", its.settle.empty() ? json(nullptr) : json(its.settle)},
                   {"action", its.action}};
    if (who != nullptr)
        object["fell_first"] = !who->is_known    ? json(nullptr)
                               : who->here_first ? json("this end")
                                                 : json("other end");
    object["facts"] = to_json(seen);
    return object;
}

} // namespace causes
