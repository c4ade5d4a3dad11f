/* SPDX-License-Identifier: Apache-2.0 */
/* The smallest hardware library that works: a starting point for the library of a board.

   The hardware is a directory (EXAMPLE_BOARD, by default /tmp/example_board), as a driver might
   provide it: port N has a module while the file portN/module exists, and its link is up while
   portN/link exists. Replace the three functions below "the hardware"; the rest need not change.

   There is no interrupt, so the event thread polls the ports ten times a second while it waits.
   Changes are reported for subscribed ports. The status reported last is kept for each port, so
   that no change is lost or reported twice, however slow the event thread is. */
#include "dolm_ric.h"

#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#define EXPORT __attribute__((visibility("default")))

enum { PORTS = 2, POLL_INTERVAL_MS = 100 };

/* ---- the hardware ---- */

static bool exists(uint32_t port, const char *file)
{
    const char *board = getenv("EXAMPLE_BOARD");
    char path[256];
    snprintf(path, sizeof(path), "%s/port%u/%s", board ? board : "/tmp/example_board", port, file);
    return access(path, F_OK) == 0;
}

static uint32_t read_port_status(uint32_t port)
{
    const uint32_t module = DOLM_RICRIPORT_MODINSERTED | DOLM_RICRIPORT_MODREADY;
    return DOLM_RICRIPORT_STARTED | (exists(port, "module") ? module : 0);
}

static uint32_t read_link_state(uint32_t port)
{
    return exists(port, "module") && exists(port, "link") ? DOLM_RICRILINKSTATE_OPERATIONAL
                                                          : DOLM_RICRILINKSTATE_NOOPERATION;
}

/* ---- the library's state ---- */

struct port {
    bool port_subscribed, link_subscribed;
    uint32_t reported_status, reported_link;
};

static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t stopped = PTHREAD_COND_INITIALIZER;
static struct port ports[PORTS];
static bool running;

/* An id is 0x00020000 | port; calls with any other return "no device". */
static bool known(uint32_t id)
{
    return id >> 16 == 2 && (id & 0xffff) < PORTS;
}

static void fill_port_status(dolm_ric_port_status *out, uint32_t id, uint32_t status)
{
    memset(out, 0, sizeof(*out));
    out->id = id;
    out->status = status;
}

static void fill_link_status(dolm_ric_link_status *out, uint32_t id, uint32_t state)
{
    memset(out, 0, sizeof(*out));
    out->id = id;
    out->state = state;
    out->speed = 0x1000; /* 10 Gbps */
}

/* ---- start, stop and events ---- */

EXPORT int32_t dolm_ric_init(uintptr_t *handle, uint32_t flags)
{
    (void)flags;
    memset(ports, 0, sizeof(ports));
    running = true;
    *handle = 1;
    return DOLM_RICERR_OK;
}

EXPORT int32_t dolm_ric_shutdown(uintptr_t handle, uint32_t flags)
{
    (void)handle, (void)flags;
    pthread_mutex_lock(&lock);
    running = false;
    pthread_cond_signal(&stopped);
    pthread_mutex_unlock(&lock);
    return DOLM_RICERR_OK;
}

/* Fills in the next change that has not been reported. */
static bool take_change(dolm_ric_event *event)
{
    for (uint32_t i = 0; i < PORTS; i++) {
        struct port *port = &ports[i];
        const uint32_t status = read_port_status(i), link = read_link_state(i);
        if (port->port_subscribed && status != port->reported_status) {
            event->type = DOLM_RICEVT_RIPORTSTATUS;
            fill_port_status(&event->port_status, 0x20000 | i, port->reported_status = status);
            return true;
        }
        if (port->link_subscribed && link != port->reported_link) {
            event->type = DOLM_RICEVT_RILINKSTATUS;
            fill_link_status(&event->link_status, 0x20000 | i, port->reported_link = link);
            return true;
        }
    }
    return false;
}

/* The only call that blocks; the server calls it on a thread of its own. */
EXPORT int32_t dolm_ric_waitevent(uintptr_t handle, dolm_ric_event **event)
{
    (void)handle;
    *event = calloc(1, sizeof **event);
    if (*event == NULL)
        return DOLM_RICERR_NOMEM;
    pthread_mutex_lock(&lock);
    while (running && !take_change(*event)) {
        struct timespec until;
        clock_gettime(CLOCK_REALTIME, &until);
        until.tv_nsec += POLL_INTERVAL_MS * 1000000L;
        until.tv_sec += until.tv_nsec / 1000000000L;
        until.tv_nsec %= 1000000000L;
        pthread_cond_timedwait(&stopped, &lock, &until);
    }
    if (!running)
        (*event)->type = DOLM_RICEVT_SHUTDOWN;
    pthread_mutex_unlock(&lock);
    return DOLM_RICERR_OK;
}

EXPORT int32_t dolm_ric_freeevent(uintptr_t handle, dolm_ric_event **event)
{
    (void)handle;
    free(*event);
    *event = NULL;
    return DOLM_RICERR_OK;
}

/* ---- ports ---- */

EXPORT int32_t dolm_ric_ri_getportstatus(uintptr_t handle, uint32_t id, dolm_ric_port_status *out)
{
    (void)handle;
    if (!known(id))
        return DOLM_RICERR_NODEV;
    fill_port_status(out, id, read_port_status(id & 0xffff));
    return DOLM_RICERR_OK;
}

EXPORT int32_t dolm_ric_ri_getlinkstatus(uintptr_t handle, uint32_t id, dolm_ric_link_status *out)
{
    (void)handle;
    if (!known(id))
        return DOLM_RICERR_NODEV;
    fill_link_status(out, id, read_link_state(id & 0xffff));
    return DOLM_RICERR_OK;
}

/* The status that a subscription returns counts as reported. */
EXPORT int32_t dolm_ric_ri_subsport(uintptr_t handle, uint32_t id, dolm_ric_port_status *out)
{
    pthread_mutex_lock(&lock);
    const int32_t result = dolm_ric_ri_getportstatus(handle, id, out);
    if (result == DOLM_RICERR_OK) {
        ports[id & 0xffff].port_subscribed = true;
        ports[id & 0xffff].reported_status = out->status;
    }
    pthread_mutex_unlock(&lock);
    return result;
}

EXPORT int32_t dolm_ric_ri_subslink(uintptr_t handle, uint32_t id, dolm_ric_link_status *out)
{
    pthread_mutex_lock(&lock);
    const int32_t result = dolm_ric_ri_getlinkstatus(handle, id, out);
    if (result == DOLM_RICERR_OK) {
        ports[id & 0xffff].link_subscribed = true;
        ports[id & 0xffff].reported_link = out->state;
    }
    pthread_mutex_unlock(&lock);
    return result;
}

static int32_t unsubscribe(uint32_t id, bool *subscribed)
{
    if (!known(id))
        return DOLM_RICERR_NODEV;
    pthread_mutex_lock(&lock);
    *subscribed = false;
    pthread_mutex_unlock(&lock);
    return DOLM_RICERR_OK;
}

EXPORT int32_t dolm_ric_ri_unsubsport(uintptr_t handle, uint32_t id)
{
    (void)handle;
    return unsubscribe(id, &ports[id % PORTS].port_subscribed);
}

EXPORT int32_t dolm_ric_ri_unsubslink(uintptr_t handle, uint32_t id)
{
    (void)handle;
    return unsubscribe(id, &ports[id % PORTS].link_subscribed);
}

/* ---- modules ---- */

EXPORT int32_t dolm_ric_ri_getmoduleinfo(uintptr_t handle, uint32_t id, dolm_ric_module_info *out)
{
    (void)handle;
    if (!known(id))
        return DOLM_RICERR_NODEV;
    if (!exists(id & 0xffff, "module"))
        return DOLM_RICERR_NOTAVAIL;
    memset(out, 0, sizeof(*out));
    out->mode_type = DOLM_RIC_MODE_SFP;
    out->sfp.sfp_connector = DOLM_SFP_CONNECTOR_LC;
    out->sfp.sfp_eth_speed = DOLM_SFP_ETHSPEED_10GB;
    memcpy(out->sfp.sfp_vendor_name, "EXAMPLE", 8);
    memcpy(out->sfp.sfp_vendor_pn, "EX-10G-1", 9);
    return DOLM_RICERR_OK;
}

EXPORT int32_t dolm_ric_ri_getmodstatus(uintptr_t handle, uint32_t id, dolm_ric_module_status *out)
{
    (void)handle;
    if (!known(id))
        return DOLM_RICERR_NODEV;
    memset(out, 0, sizeof(*out));
    return DOLM_RICERR_OK;
}

/* These modules have no measured values. */
EXPORT int32_t dolm_ric_ri_getmodulediag(uintptr_t handle, uint32_t id, dolm_ric_module_diag *out)
{
    (void)handle, (void)out;
    return known(id) ? DOLM_RICERR_UNSUPPORTED : DOLM_RICERR_NODEV;
}
