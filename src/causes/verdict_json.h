/* SPDX-License-Identifier: Apache-2.0 */
/* verdict_json - a verdict with its facts as JSON: the objects of teskctl why --json, of the
   exporter and of the client library. No state, any thread. */
#pragma once

#include "causes/facts.h"
#include "causes/verdict.h"

#include <nlohmann/json_fwd.hpp>

namespace causes
{

/* `who` is null if the other end isn't known. */
nlohmann::ordered_json json_of(const facts &seen, const verdict &its, const order *who);

} // namespace causes
