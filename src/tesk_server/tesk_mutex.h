/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_mutex - a mutex that cannot be taken or given back ends the process: nothing that it guards
   can be trusted any more. */
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
