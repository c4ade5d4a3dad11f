/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_port_map - reads the file in which the board library names its ports. No state, any
   thread. */
#pragma once

#include "tesk_client/tesk_client_session.h"

/* Calls `each` for every port of the map, in ascending order; for no port if any line is wrong. A
   null path stands for DOLM_RIC_PORT_MAP, or the default. */
outcome read_port_map(const char *path, tesk_client_port_named each, void *user);
