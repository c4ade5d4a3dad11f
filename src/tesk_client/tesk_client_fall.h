/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_fall - a verdict about a fall, from its facts. No state, any thread. */
#pragma once

#include "tesk_client/tesk_client_session.h"

/* As tesk_client_judge_fall. Throws only without memory. */
outcome judge_fall(const char *facts, tesk_client_fall_judged judged, void *user);
