/* SPDX-License-Identifier: Apache-2.0 */
/* libdolm_ric - the ports and modules of a board. All names have C linkage.

   Results. Each operation returns 0 or a negative code. Records that it fills are valid on 0 only;
   the caller clears nothing before. Codes other than those below are allowed and count as failures.

   Threads. One thread calls dolm_ric_waitevent and dolm_ric_freeevent, another one all the rest,
   both at the same time: a wait must not block the other calls, and an event may be freed during
   any of them. All calls but dolm_ric_waitevent answer within milliseconds, from a copy where the
   hardware is slower. The library's own threads block all signals.

   Ids. A port's id is 0x00020000 | port, with ports from 0 to 65534 that need not be contiguous.
   Operations return DOLM_RICERR_NODEV for any other id.

   Reserved fields are 0 and are not read. Words are in the processor's byte order. */
#ifndef DOLM_RIC_H
#define DOLM_RIC_H

#include <stddef.h>
#include <stdint.h>

/* Keeps compilers from warning about C11 features in older C. */
#ifdef __GNUC__
#define DOLM_RIC_EXTENSION __extension__
#else
#define DOLM_RIC_EXTENSION
#endif

#ifdef __cplusplus
extern "C" {
#endif

enum dolm_ric_result {
    DOLM_RICERR_OK = 0,
    DOLM_RICERR_INVALID = -1,     /* a wrong handle or pointer, or a port that isn't subscribed */
    DOLM_RICERR_NOMEM = -2,       /* memory is exhausted */
    DOLM_RICERR_NODEV = -3,       /* the board has no such port */
    DOLM_RICERR_NOTAVAIL = -4,    /* no module; or its diagnostics weren't read */
    DOLM_RICERR_UNSUPPORTED = -6, /* the module doesn't support the request */
    DOLM_RICERR_BUSY = -8,        /* from dolm_ric_init: the library has been started already; from
                                     a read of a module: it is there and can't be read at present */
    DOLM_RICERR_SHUTDOWN = -10,   /* the library has been shut down */
    DOLM_RICERR_INTERNAL = -11,   /* any other failure */
};

/* A module is inserted first and ready once its memory can be read. The first bit that is set, in
   the order ready, inserted, started, decides what clients see; an event with none of the three
   reports a module as unknown, so STARTED is set on each port that works. POWERFAULT is traced. */
enum dolm_ric_port_bits {
    DOLM_RICRIPORT_STARTED = 0x01,
    DOLM_RICRIPORT_MODREADY = 0x02,
    DOLM_RICRIPORT_POWERFAULT = 0x04,
    DOLM_RICRIPORT_MODINSERTED = 0x08,
};

enum dolm_ric_link_state {
    DOLM_RICRILINKSTATE_STOPPED = 0,     /* by the administrator; clients see "not operational" */
    DOLM_RICRILINKSTATE_NOOPERATION = 1, /* down */
    DOLM_RICRILINKSTATE_OPERATIONAL = 2, /* up */
};

/* Codes of a link's speed. For other speeds a code is made of the speed in 0.1 Gbps, 1 to 65535;
   the server reports that number. Any other code is reported as 0, a speed that isn't known. The
   module's dolm_sfp_info.sfp_eth_speed takes such codes, too. */
enum dolm_ric_link_speed {
    DOLM_RICRISPEED_1_2G = 0x0001,
    DOLM_RICRISPEED_2_5G = 0x0002,
    DOLM_RICRISPEED_4_9G = 0x0008,
    DOLM_RICRISPEED_9_8G = 0x0020,
    DOLM_RICRISPEED_10_1G = 0x0040,
    DOLM_RICRISPEED_10G = 0x1000,
};
#define DOLM_RIC_SPEED_CODE(tenth_gbps) (0x54530000u | (tenth_gbps))

enum dolm_ric_event_type {
    DOLM_RICEVT_SHUTDOWN = 0,
    DOLM_RICEVT_RIPORTSTATUS = 1,
    DOLM_RICEVT_RILINKSTATUS = 3,
};

/* LC is reported as an optical module, RJ45 as an electrical one, any other as unknown. So give LC
   for every module that sends light, whatever its plug, RJ45 for all copper, cables among it, and
   OTHER only where the module's memory has no such information. */
enum dolm_sfp_connector {
    DOLM_SFP_CONNECTOR_UNSPEC = 0x0,
    DOLM_SFP_CONNECTOR_LC = 0x1,
    DOLM_SFP_CONNECTOR_RJ45 = 0x2,
    DOLM_SFP_CONNECTOR_OTHER = 0xff,
};

/* 1.0 and 10.0 Gbps; or a DOLM_RIC_SPEED_CODE. */
enum dolm_sfp_ethspeed {
    DOLM_SFP_ETHSPEED_UNSPEC = 0x0,
    DOLM_SFP_ETHSPEED_1000MB = 0x1,
    DOLM_SFP_ETHSPEED_10GB = 0x2,
};

/* Bits. Traced, not reported. */
enum dolm_sfp_ethcomp {
    DOLM_SFP_ETHCOMP_UNSPEC = 0x000,
    DOLM_SFP_ETHCOMP_10GBASE_ER = 0x001,
    DOLM_SFP_ETHCOMP_10GBASE_LRM = 0x002,
    DOLM_SFP_ETHCOMP_10GBASE_LR = 0x004,
    DOLM_SFP_ETHCOMP_10GBASE_SR = 0x008,
    DOLM_SFP_ETHCOMP_1000BASE_T = 0x010,
    DOLM_SFP_ETHCOMP_1000BASE_CX = 0x020,
    DOLM_SFP_ETHCOMP_1000BASE_LX = 0x040,
    DOLM_SFP_ETHCOMP_1000BASE_SX = 0x080,
    DOLM_SFP_ETHCOMP_1000BASE_BX = 0x100,
    DOLM_SFP_ETHCOMP_1000BASE_ZX = 0x200,
};

/* An optical module without MONI is reported with the product name "Non-Morvaine" instead of its
   sfp_morvaine_rdh. */
enum dolm_sfp_morvaine {
    DOLM_SFP_MORVAINE_NONE = 0x0,
    DOLM_SFP_MORVAINE_MONI = 0x1,
};

/* Bits of the measurements that are valid. The last two have no fields. */
enum dolm_sfp_diagcap {
    DOLM_SFP_DIAGCAP_TEMP = 0x01,
    DOLM_SFP_DIAGCAP_VOLTAGE = 0x02,
    DOLM_SFP_DIAGCAP_TXBIAS = 0x04,
    DOLM_SFP_DIAGCAP_TXPOWER = 0x08,
    DOLM_SFP_DIAGCAP_RXPOWER = 0x10,
    DOLM_SFP_DIAGCAP_LASERTEMP = 0x20,
    DOLM_SFP_DIAGCAP_TECCURRENT = 0x40,
};

/* The mode_type of a record that describes an SFP module. With another one, a module is reported as
   electrical and without texts, and performance values are left out. */
#define DOLM_RIC_MODE_SFP 1u

/* Bit of dolm_ric_module_status.status: the word is reported as the count of losses of signal. */
#define DOLM_RIC_MODSTATUS_LOS 0x01u
/* This value of the whole word sets the environment status that clients see. */
#define DOLM_RIC_MODSTATUS_ENV 2u

typedef struct dolm_ric_port_status {
    uint32_t id;
    uint32_t status; /* dolm_ric_port_bits */
    uint32_t reserved[5];
} dolm_ric_port_status;

typedef struct dolm_ric_link_status {
    uint32_t id;
    uint32_t reserved0;
    uint32_t state; /* dolm_ric_link_state */
    uint32_t reserved1[2];
    uint32_t speed; /* dolm_ric_link_speed, read while operational */
    uint32_t reserved2[7];
} dolm_ric_link_status;

/* RIPORTSTATUS and RILINKSTATUS carry the record of that name; other types are traced and freed. */
typedef struct dolm_ric_event {
    uint32_t type; /* dolm_ric_event_type */
    DOLM_RIC_EXTENSION union {
        dolm_ric_port_status port_status;
        dolm_ric_link_status link_status;
    };
} dolm_ric_event;

/* The contents of the module's memory. Texts may hold any bytes and may lack a terminating NUL. */
typedef struct dolm_sfp_info {
    uint8_t sfp_connector; /* dolm_sfp_connector */
    uint8_t reserved0[3];
    uint32_t sfp_eth_speed;      /* dolm_sfp_ethspeed */
    uint32_t sfp_eth_compliance; /* dolm_sfp_ethcomp */
    uint8_t sfp_nom_bitrate;     /* in 0.1 Gbps; traced, not reported */
    char sfp_vendor_name[17];
    char sfp_vendor_oui[3];
    char sfp_vendor_pn[17];
    char sfp_vendor_rev[5];
    char sfp_vendor_sn[17];
    char sfp_date_code[12];
    uint8_t sfp_morvaine; /* dolm_sfp_morvaine */
    char sfp_morvaine_rdh[15];
    char sfp_morvaine_rdh_ext[6];
    uint8_t reserved1[18];
} dolm_sfp_info;

typedef struct dolm_ric_module_info {
    uint32_t reserved0;
    uint32_t mode_type;
    dolm_sfp_info sfp;
    uint32_t reserved1;
} dolm_ric_module_info;

typedef struct dolm_ric_module_status {
    uint32_t reserved0;
    uint32_t status; /* see DOLM_RIC_MODSTATUS_LOS and DOLM_RIC_MODSTATUS_ENV */
    uint32_t reserved1[4];
} dolm_ric_module_status;

/* Measured values with the module's own thresholds: temperatures in 0.001 degrees Celsius, voltages
   in microvolts, bias currents in microamperes, powers in microwatts. A value is graded against the
   four thresholds of its name; a value equal to a threshold counts as beyond it. */
typedef struct dolm_ric_module_diag {
    uint32_t reserved0;
    uint32_t mode_type;
    uint32_t diag_cap; /* dolm_sfp_diagcap */
    int32_t temperature_low_warn;
    int32_t temperature_high_warn;
    int32_t temperature_low_alarm;
    int32_t temperature_high_alarm;
    int32_t temperature;
    uint32_t voltage_low_warn;
    uint32_t voltage_high_warn;
    uint32_t voltage_low_alarm;
    uint32_t voltage_high_alarm;
    uint32_t voltage;
    uint32_t txbias_low_warn;
    uint32_t txbias_high_warn;
    uint32_t txbias_low_alarm;
    uint32_t txbias_high_alarm;
    uint32_t txbias;
    uint32_t txpower_low_warn;
    uint32_t txpower_high_warn;
    uint32_t txpower_low_alarm;
    uint32_t txpower_high_alarm;
    uint32_t txpower;
    uint32_t rxpower_low_warn;
    uint32_t rxpower_high_warn;
    uint32_t rxpower_low_alarm;
    uint32_t rxpower_high_alarm;
    uint32_t rxpower;
    uint32_t reserved1[38];
} dolm_ric_module_diag;

/* Starts the library and stores its handle; `flags` is 0. After a failure nothing is running, and
   one line on standard error states the reason. */
int32_t dolm_ric_init(uintptr_t *handle, uint32_t flags);

/* Shuts the library down, whatever it returns; `flags` is 0. The thread in dolm_ric_waitevent, or
   its next call, gets the events that are still queued and then one DOLM_RICEVT_SHUTDOWN; nothing
   else ends that thread. From then on the other operations return DOLM_RICERR_SHUTDOWN; waiting,
   again, too. Events can still be freed. */
int32_t dolm_ric_shutdown(uintptr_t handle, uint32_t flags);

/* Waits until there is an event and stores a pointer to it. The event is valid until it is freed. A
   failure stores nothing; the caller tries again, after pauses that grow to 100 ms. */
int32_t dolm_ric_waitevent(uintptr_t handle, dolm_ric_event **event);

/* Frees an event, whatever its type, and sets the pointer to null. Called once for each event that
   dolm_ric_waitevent delivered, on the same thread, also after dolm_ric_shutdown. */
int32_t dolm_ric_freeevent(uintptr_t handle, dolm_ric_event **event);

/* The present status of a port or link. A subscription also delivers an event for each later
   change, in order, until it ends; changes that follow each other may be merged, but the last one
   is never lost. Events queued before the end of a subscription are not delivered after it. A
   refused unsubscription leaves the port subscribed. */
int32_t dolm_ric_ri_getportstatus(uintptr_t handle, uint32_t id, dolm_ric_port_status *out);
int32_t dolm_ric_ri_subsport(uintptr_t handle, uint32_t id, dolm_ric_port_status *out);
int32_t dolm_ric_ri_unsubsport(uintptr_t handle, uint32_t id);
int32_t dolm_ric_ri_subslink(uintptr_t handle, uint32_t id, dolm_ric_link_status *out);
int32_t dolm_ric_ri_unsubslink(uintptr_t handle, uint32_t id);
int32_t dolm_ric_ri_getlinkstatus(uintptr_t handle, uint32_t id, dolm_ric_link_status *out);

/* The module. DOLM_RICERR_NOTAVAIL without one; DOLM_RICERR_BUSY while it is there and its memory
   can't be read or makes no sense, and for a status that is not known. */
int32_t dolm_ric_ri_getmoduleinfo(uintptr_t handle, uint32_t id, dolm_ric_module_info *out);
int32_t dolm_ric_ri_getmodstatus(uintptr_t handle, uint32_t id, dolm_ric_module_status *out);
/* DOLM_RICERR_UNSUPPORTED or DOLM_RICERR_NOTAVAIL where the module has no diagnostics. */
int32_t dolm_ric_ri_getmodulediag(uintptr_t handle, uint32_t id, dolm_ric_module_diag *out);

#ifdef __cplusplus
}
#endif

/* The layout, for C and C++ alike. */
#ifdef __cplusplus
#define DOLM_RIC_CHECK(condition) static_assert(condition, #condition)
#else
#define DOLM_RIC_CHECK(condition) DOLM_RIC_EXTENSION _Static_assert(condition, #condition)
#endif
DOLM_RIC_CHECK(sizeof(dolm_ric_port_status) == 28);
DOLM_RIC_CHECK(offsetof(dolm_ric_port_status, status) == 4);
DOLM_RIC_CHECK(sizeof(dolm_ric_link_status) == 52);
DOLM_RIC_CHECK(offsetof(dolm_ric_link_status, state) == 8);
DOLM_RIC_CHECK(offsetof(dolm_ric_link_status, speed) == 20);
DOLM_RIC_CHECK(offsetof(dolm_ric_event, port_status) == 4);
DOLM_RIC_CHECK(offsetof(dolm_ric_event, link_status) == 4);
DOLM_RIC_CHECK(sizeof(dolm_sfp_info) == 124);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_vendor_name) == 13);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_vendor_oui) == 30);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_vendor_pn) == 33);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_vendor_rev) == 50);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_vendor_sn) == 55);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_date_code) == 72);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_morvaine) == 84);
DOLM_RIC_CHECK(offsetof(dolm_sfp_info, sfp_morvaine_rdh_ext) == 100);
DOLM_RIC_CHECK(sizeof(dolm_ric_module_info) == 136);
DOLM_RIC_CHECK(offsetof(dolm_ric_module_info, sfp) == 8);
DOLM_RIC_CHECK(sizeof(dolm_ric_module_status) == 24);
DOLM_RIC_CHECK(offsetof(dolm_ric_module_status, status) == 4);
DOLM_RIC_CHECK(sizeof(dolm_ric_module_diag) == 264);
DOLM_RIC_CHECK(offsetof(dolm_ric_module_diag, temperature) == 28);
DOLM_RIC_CHECK(offsetof(dolm_ric_module_diag, voltage) == 48);
DOLM_RIC_CHECK(offsetof(dolm_ric_module_diag, txbias) == 68);
DOLM_RIC_CHECK(offsetof(dolm_ric_module_diag, txpower) == 88);
DOLM_RIC_CHECK(offsetof(dolm_ric_module_diag, rxpower) == 108);
#undef DOLM_RIC_CHECK
#undef DOLM_RIC_EXTENSION
#endif
