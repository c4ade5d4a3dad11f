/* SPDX-License-Identifier: Apache-2.0 */
/* fake_platform_internal - declarations that the two sources of the fake platform share. */
#pragma once

#include "testkit/fake_platform/fake_platform.h"

namespace fake_platform
{

/* Records a violation unless the condition is true. */
void expect(bool holds, const char *violated);

/* The result that the test has set for the call; `logged` also adds the call to the log. */
int32_t result_of(const char *call);
int32_t logged(const char *call);

void reset_board();

} // namespace fake_platform
