/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_mutex - a mutex that cannot be locked or unlocked ends the process, since the data that it
   guards can no longer be trusted. Any thread. */
#pragma once

#include <cstdlib>
#include <pthread.h>

static inline void tesk_mutex_lock(pthread_mutex_t *mutex)
{
    if (pthread_mutex_lock(mutex) != 0)
        exit(-1);
}

static inline void tesk_mutex_unlock(pthread_mutex_t *mutex)
{
    if (pthread_mutex_unlock(mutex) != 0)
        exit(-2);
}
