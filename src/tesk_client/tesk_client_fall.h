/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_fall - the verdict about a fall, from its facts. No state, any thread. */
#pragma once

#include "tesk_client/tesk_client_session.h"

/* See tesk_client_judge_fall. Throws only if memory is exhausted. */
outcome judge_fall(const char *facts, tesk_client_fall_judged judged, void *user);
