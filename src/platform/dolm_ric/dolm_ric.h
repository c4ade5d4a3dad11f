/* SPDX-License-Identifier: Apache-2.0 */
/* libdolm_ric - the ports and modules of a board. Everything here has C linkage. Every operation
   returns a result code, 0 or negative; records that it fills are valid on 0 only. One thread may
   sit in dolm_ric_waitevent while another calls the rest. */
#ifndef DOLM_RIC_H
#define DOLM_RIC_H

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

enum dolm_ric_result {
    DOLM_RICERR_OK = 0,
    DOLM_RICERR_INVALID = -1,
    DOLM_RICERR_NOMEM = -2,
    DOLM_RICERR_NODEV = -3,
    DOLM_RICERR_NOTAVAIL = -4,
    DOLM_RICERR_UNSUPPORTED = -6,
    DOLM_RICERR_BUSY = -8,
    DOLM_RICERR_SHUTDOWN = -10,
    DOLM_RICERR_INTERNAL = -11,
};

enum dolm_ric_port_bits {
    DOLM_RICRIPORT_STARTED = 0x01,
    DOLM_RICRIPORT_MODREADY = 0x02,
    DOLM_RICRIPORT_POWERFAULT = 0x04,
    DOLM_RICRIPORT_MODINSERTED = 0x08,
};

enum dolm_ric_link_state {
    DOLM_RICRILINKSTATE_STOPPED = 0,
    DOLM_RICRILINKSTATE_NOOPERATION = 1,
    DOLM_RICRILINKSTATE_OPERATIONAL = 2,
};

enum dolm_ric_event_type {
    DOLM_RICEVT_SHUTDOWN = 0,
    DOLM_RICEVT_RIPORTSTATUS = 1,
    DOLM_RICEVT_RILINKSTATUS = 3,
};

enum dolm_sfp_connector {
    DOLM_SFP_CONNECTOR_UNSPEC = 0x0,
    DOLM_SFP_CONNECTOR_LC = 0x1,
    DOLM_SFP_CONNECTOR_RJ45 = 0x2,
    DOLM_SFP_CONNECTOR_OTHER = 0xff,
};

/* A speed that has no code of its own: this range, with the speed in 0.1 Gb/s in its lower half. It
   goes for the speed of a link and for that of a module. */
#define DOLM_RIC_SPEED_TENTH_GBPS 0x54530000u
#define DOLM_RIC_SPEED_RANGE_MASK 0xffff0000u

enum dolm_sfp_ethspeed {
    DOLM_SFP_ETHSPEED_UNSPEC = 0x0,
    DOLM_SFP_ETHSPEED_1000MB = 0x1,
    DOLM_SFP_ETHSPEED_10GB = 0x2,
};

enum dolm_sfp_morvaine {
    DOLM_SFP_MORVAINE_NONE = 0x0,
    DOLM_SFP_MORVAINE_MONI = 0x1,
};

enum dolm_sfp_diagcap {
    DOLM_SFP_DIAGCAP_TEMP = 0x01,
    DOLM_SFP_DIAGCAP_VOLTAGE = 0x02,
    DOLM_SFP_DIAGCAP_TXBIAS = 0x04,
    DOLM_SFP_DIAGCAP_TXPOWER = 0x08,
    DOLM_SFP_DIAGCAP_RXPOWER = 0x10,
    DOLM_SFP_DIAGCAP_LASERTEMP = 0x20,
    DOLM_SFP_DIAGCAP_TECCURRENT = 0x40,
};

/* The mode_type of a record that holds an SFP module. */
#define DOLM_RIC_MODE_SFP 1u

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
    uint32_t speed; /* speed code, valid while operational */
    uint32_t reserved2[7];
} dolm_ric_link_status;

typedef struct dolm_ric_event {
    uint32_t type; /* dolm_ric_event_type */
    union {
        dolm_ric_port_status port_status;
        dolm_ric_link_status link_status;
    };
} dolm_ric_event;

/* What the module's memory holds. No text is sure to be terminated. */
typedef struct dolm_sfp_info {
    uint8_t sfp_connector; /* dolm_sfp_connector */
    uint8_t reserved0[3];
    uint32_t sfp_eth_speed; /* dolm_sfp_ethspeed or DOLM_RIC_SPEED_TENTH_GBPS */
    uint32_t sfp_eth_compliance;
    uint8_t sfp_nom_bitrate;
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
    uint32_t status;
    uint32_t reserved1[4];
} dolm_ric_module_status;

/* Measured values with the module's own thresholds: temperatures in 0.001 degrees Celsius, voltages
   in microvolts, bias currents in microamperes, powers in microwatts. */
typedef struct dolm_ric_module_diag {
    uint32_t reserved0;
    uint32_t mode_type;
    uint32_t diag_cap; /* dolm_sfp_diagcap: which measurements are valid */
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

/* Starts the library and stores its handle. */
int32_t dolm_ric_init(uintptr_t *handle, uint32_t flags);

/* Stops it: the thread in dolm_ric_waitevent gets a DOLM_RICEVT_SHUTDOWN. */
int32_t dolm_ric_shutdown(uintptr_t handle, uint32_t flags);

/* Waits for an event; every event delivered goes back through dolm_ric_freeevent. */
int32_t dolm_ric_waitevent(uintptr_t handle, dolm_ric_event **event);
int32_t dolm_ric_freeevent(uintptr_t handle, dolm_ric_event **event);

/* `id` is 0x00020000 | port. -3 for an id that the board doesn't have. */
int32_t dolm_ric_ri_getportstatus(uintptr_t handle, uint32_t id, dolm_ric_port_status *out);
int32_t dolm_ric_ri_subsport(uintptr_t handle, uint32_t id, dolm_ric_port_status *out);
int32_t dolm_ric_ri_unsubsport(uintptr_t handle, uint32_t id);
int32_t dolm_ric_ri_subslink(uintptr_t handle, uint32_t id, dolm_ric_link_status *out);
int32_t dolm_ric_ri_unsubslink(uintptr_t handle, uint32_t id);
int32_t dolm_ric_ri_getlinkstatus(uintptr_t handle, uint32_t id, dolm_ric_link_status *out);
/* -4 where the module's memory can't be read, as with no module in the port. */
int32_t dolm_ric_ri_getmoduleinfo(uintptr_t handle, uint32_t id, dolm_ric_module_info *out);
int32_t dolm_ric_ri_getmodstatus(uintptr_t handle, uint32_t id, dolm_ric_module_status *out);
/* -4 or -6 where the module has none. */
int32_t dolm_ric_ri_getmodulediag(uintptr_t handle, uint32_t id, dolm_ric_module_diag *out);

#ifdef __cplusplus
}

#include <cstddef>
static_assert(sizeof(dolm_ric_port_status) == 28);
static_assert(sizeof(dolm_ric_link_status) == 52);
static_assert(offsetof(dolm_ric_link_status, state) == 8);
static_assert(offsetof(dolm_ric_link_status, speed) == 20);
static_assert(offsetof(dolm_ric_event, port_status) == 4);
static_assert(offsetof(dolm_ric_event, link_status) == 4);
static_assert(sizeof(dolm_sfp_info) == 124);
static_assert(offsetof(dolm_sfp_info, sfp_vendor_name) == 13);
static_assert(offsetof(dolm_sfp_info, sfp_vendor_oui) == 30);
static_assert(offsetof(dolm_sfp_info, sfp_vendor_pn) == 33);
static_assert(offsetof(dolm_sfp_info, sfp_vendor_rev) == 50);
static_assert(offsetof(dolm_sfp_info, sfp_vendor_sn) == 55);
static_assert(offsetof(dolm_sfp_info, sfp_date_code) == 72);
static_assert(offsetof(dolm_sfp_info, sfp_morvaine) == 84);
static_assert(offsetof(dolm_sfp_info, sfp_morvaine_rdh_ext) == 100);
static_assert(sizeof(dolm_ric_module_info) == 136);
static_assert(offsetof(dolm_ric_module_info, sfp) == 8);
static_assert(sizeof(dolm_ric_module_status) == 24);
static_assert(offsetof(dolm_ric_module_status, status) == 4);
static_assert(sizeof(dolm_ric_module_diag) == 264);
static_assert(offsetof(dolm_ric_module_diag, temperature) == 28);
static_assert(offsetof(dolm_ric_module_diag, voltage) == 48);
static_assert(offsetof(dolm_ric_module_diag, txbias) == 68);
static_assert(offsetof(dolm_ric_module_diag, txpower) == 88);
static_assert(offsetof(dolm_ric_module_diag, rxpower) == 108);
#endif
#endif
