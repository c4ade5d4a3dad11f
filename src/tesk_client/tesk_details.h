/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_details - reads the details of the ports: identity, all lanes with limits and flags, the
   reasons for missing values, the cost of reading, and the link. It needs neither a session nor an
   answer of the server: the board's library publishes the records in a file.

   A handle belongs to one thread at a time. No call waits for longer than half a second. A handle
   stays valid when the board is restarted: the next read takes the new file. Records of a board
   that has ended are refused, since nobody updates them.

   dolm_ric_details.h has the record with the units of all its members. Texts in a record are
   terminated, but may contain any bytes: escape them before they go to a terminal. Codes may be
   larger than those listed, from a newer board. */
#ifndef TESK_DETAILS_H
#define TESK_DETAILS_H

#include "dolm_ric_details.h"

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

typedef struct tesk_details tesk_details;

typedef enum tesk_details_result {
    TESK_DETAILS_OK = 0,
    TESK_DETAILS_MISUSE = 1,        /* a null pointer where the call needs one */
    TESK_DETAILS_NO_FILE = 2,       /* no board publishes details at this path */
    TESK_DETAILS_NO_ACCESS = 3,     /* this user may not read the file */
    TESK_DETAILS_NOT_DETAILS = 4,   /* a link, a FIFO, a device, or a file of another kind */
    TESK_DETAILS_OTHER_VERSION = 5, /* the file has a version that this library doesn't know */
    TESK_DETAILS_TRUNCATED = 6,     /* the file is shorter than it says */
    TESK_DETAILS_ENDED = 7,         /* the board was shut down, or its process died */
    TESK_DETAILS_NO_PORT = 8,       /* the board has no such port */
    TESK_DETAILS_BUSY = 9,          /* the record was being written during half a second */
    TESK_DETAILS_DAMAGED = 10,      /* the record contradicts itself */
    TESK_DETAILS_FAILED = 11,       /* the system failed; errno says how */
} tesk_details_result;

/* A null `path` stands for the environment's DOLM_RIC_DETAILS; else "details" in the folder of
   DOLM_RIC_PORT_MAP; else /run/dolm_ric/details, unless MBX_DIR selects another server than the
   system's. On TESK_DETAILS_OK the caller closes the handle;
   else it is null. */
tesk_details_result tesk_details_open(const char *path, tesk_details **details);

/* Null is ignored. */
void tesk_details_close(tesk_details *details);

/* Copies the record of a port, as it was at one moment. On any other result `record` is cleared. */
tesk_details_result tesk_details_read(tesk_details *details, uint32_t port,
                                      dolm_ric_details_record *record);

/* Whether a read would return another record than `known`, which may be an empty one; also true if
   the read would fail now. Takes a few hundred nanoseconds. */
bool tesk_details_is_newer(tesk_details *details, const dolm_ric_details_record *known);

/* One more than the highest port number that the board has had; 0 if the file can't be read. */
uint32_t tesk_details_port_limit(tesk_details *details);

/* A short text for a result. Never null. */
const char *tesk_details_result_text(tesk_details_result result);

/* The enumerations of dolm_ric_details.h that have texts. */
typedef enum tesk_details_enumeration {
    TESK_DETAILS_TEXT_STATE,
    TESK_DETAILS_TEXT_GRADE,
    TESK_DETAILS_TEXT_FLAG,         /* "low warning", .. */
    TESK_DETAILS_TEXT_MODULE_VALUE, /* "temperature", .. */
    TESK_DETAILS_TEXT_LANE_VALUE,   /* "tx bias", .. */
    TESK_DETAILS_TEXT_SIGNAL,       /* "rx los", .. */
    TESK_DETAILS_TEXT_PRESENCE,
    TESK_DETAILS_TEXT_FAMILY,
    TESK_DETAILS_TEXT_MEDIUM,
    TESK_DETAILS_TEXT_POWER_KIND,
    TESK_DETAILS_TEXT_LENGTH, /* "smf", .. */
    TESK_DETAILS_TEXT_MODULE_STATE,
    TESK_DETAILS_TEXT_SWITCH,
    TESK_DETAILS_TEXT_DUPLEX,
    TESK_DETAILS_TEXT_FEC,
    TESK_DETAILS_TEXT_SIDE,
    TESK_DETAILS_TEXT_VDM_KIND, /* "pre-fec ber", "pre-fec ber min", .. */
    TESK_DETAILS_TEXT_FAULT_CAUSE,
} tesk_details_enumeration;

/* The text of a code; "unknown" if it has none. Never null. */
const char *tesk_details_text(tesk_details_enumeration enumeration, uint32_t code);

#ifdef __cplusplus
}
#endif
#endif
