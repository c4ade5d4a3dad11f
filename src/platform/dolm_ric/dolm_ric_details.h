/* SPDX-License-Identifier: Apache-2.0 */
/* dolm_ric_details - the details of all ports: a file that a board library writes and any program
   may read, with everything that the calls of dolm_ric.h have no place for. docs/porting.md has the
   rules for its writer; libtesk_client reads it (tesk_details.h).

   The file is DOLM_RIC_DETAILS; else "details" in the folder of DOLM_RIC_PORT_MAP; else
   /run/dolm_ric/details. It begins with a dolm_ric_details_header; the record of port N is
   at header_size + N * record_size. A number without a port is a hole or lies behind the end.

   One writer. It holds an exclusive lock (F_OFD_SETLK, the whole file) for as long as it lives, so
   a reader sees by F_OFD_GETLK whether the file has an owner. Each start makes a new file with a
   new epoch and renames it over the old one.

   A record's sequence is 0 before it is first written, odd while it is being written, and even and
   larger behind each change. Readers copy the record and take the copy if the sequence was even
   and the same before and after. They use pread, never a mapping: what happens to the file then
   can't end them.

   Units: degrees Celsius, volts, milliamperes, milliwatts. Times are nanoseconds of CLOCK_BOOTTIME,
   0 for never. Texts are terminated within their arrays and hold printable ASCII. Reserved words
   are 0. Records grow at the end of a struct by use of its reserved words only; anything else is
   another version. */
#ifndef DOLM_RIC_DETAILS_H
#define DOLM_RIC_DETAILS_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#define DOLM_RIC_DETAILS_ENV "DOLM_RIC_DETAILS"
#define DOLM_RIC_DETAILS_FILE "/run/dolm_ric/details"
#define DOLM_RIC_DETAILS_MAGIC "TESKDET\n"
#define DOLM_RIC_DETAILS_VERSION 1

#define DOLM_RIC_DETAILS_LANES 16
#define DOLM_RIC_DETAILS_VDM 128
#define DOLM_RIC_DETAILS_APPLICATIONS 15
#define DOLM_RIC_DETAILS_COMPLIANCES 16
#define DOLM_RIC_DETAILS_DOUBTS 4
#define DOLM_RIC_DETAILS_ERRORS 8

/* Whether a value is known, and if not, why. */
enum dolm_ric_details_state {
    DOLM_RIC_VALUE_UNKNOWN = 0,       /* nothing is known about the value */
    DOLM_RIC_VALUE_VALID = 1,         /* the value was read at the time read_at */
    DOLM_RIC_VALUE_NOT_SUPPORTED = 2, /* the module doesn't measure the value */
    DOLM_RIC_VALUE_NOT_READ = 3,      /* the module measures the value, which was not read yet */
    DOLM_RIC_VALUE_NOT_READY = 4,     /* the module is in low power, or starts */
    DOLM_RIC_VALUE_NO_ANSWER = 5,     /* the module, or its driver, doesn't answer */
    DOLM_RIC_VALUE_WRONG_CHECKSUM = 6,
    DOLM_RIC_VALUE_DOUBTFUL = 7,       /* the value was read and is impossible; see the doubts */
    DOLM_RIC_VALUE_POLLING_OFF = 8,    /* off by the configuration, or while a lease lasts */
    DOLM_RIC_VALUE_NO_LIGHT = 9,       /* the module is for copper and has no light */
    DOLM_RIC_VALUE_EMPTY = 10,         /* the cage is empty */
    DOLM_RIC_VALUE_BUSY = 11,          /* the kernel keeps the module for something else */
    DOLM_RIC_VALUE_OUT = 12,           /* the port was taken out of the configuration */
    DOLM_RIC_VALUE_NOT_PUBLISHED = 13, /* the board can't read the value */
    DOLM_RIC_VALUE_STATES
};

enum dolm_ric_details_grade {
    DOLM_RIC_GRADE_NONE = 0, /* no value, or no limits that it can be compared with */
    DOLM_RIC_GRADE_OK = 1,
    DOLM_RIC_GRADE_LOW_WARNING = 2,
    DOLM_RIC_GRADE_HIGH_WARNING = 3,
    DOLM_RIC_GRADE_LOW_ALARM = 4,
    DOLM_RIC_GRADE_HIGH_ALARM = 5,
    DOLM_RIC_GRADE_OFF = 6, /* the lane is off on purpose and counts for no grade */
    DOLM_RIC_GRADES
};

/* The index of a flag, in this order everywhere. */
enum dolm_ric_details_flag_kind {
    DOLM_RIC_FLAG_LOW_WARNING = 0,
    DOLM_RIC_FLAG_HIGH_WARNING = 1,
    DOLM_RIC_FLAG_LOW_ALARM = 2,
    DOLM_RIC_FLAG_HIGH_ALARM = 3,
    DOLM_RIC_FLAGS = 4
};

/* Values of the whole module. Laser temperature and TEC current are those of CMIS' auxiliary
   monitors. */
enum dolm_ric_details_module_value {
    DOLM_RIC_TEMPERATURE = 0,       /* degrees Celsius */
    DOLM_RIC_VOLTAGE = 1,           /* V */
    DOLM_RIC_LASER_TEMPERATURE = 2, /* degrees Celsius */
    DOLM_RIC_TEC_CURRENT = 3,       /* percent of the largest current, as modules report it */
    DOLM_RIC_MODULE_VALUES = 4
};

/* Values of each lane. */
enum dolm_ric_details_lane_value {
    DOLM_RIC_TX_BIAS = 0,  /* mA */
    DOLM_RIC_TX_POWER = 1, /* mW */
    DOLM_RIC_RX_POWER = 2, /* mW */
    DOLM_RIC_LANE_VALUES = 3
};

/* Conditions of a lane, each present or absent. */
enum dolm_ric_details_signal {
    DOLM_RIC_RX_LOS = 0,   /* receiver: no light */
    DOLM_RIC_RX_LOL = 1,   /* receiver: its clock recovery has no lock */
    DOLM_RIC_TX_LOS = 2,   /* transmitter: no signal from the host */
    DOLM_RIC_TX_LOL = 3,   /* transmitter: its clock recovery has no lock */
    DOLM_RIC_TX_FAULT = 4, /* transmitter: fault */
    DOLM_RIC_TX_OFF = 5,   /* the host, or the data path, has switched the transmitter off */
    DOLM_RIC_RX_OFF = 6,   /* the host, or the data path, has switched the receiver off */
    DOLM_RIC_SIGNALS = 7
};

enum dolm_ric_details_presence {
    DOLM_RIC_PRESENCE_UNKNOWN = 0,
    DOLM_RIC_PRESENCE_EMPTY = 1,
    DOLM_RIC_PRESENCE_NOT_READY = 2, /* the module can't be read, or not yet */
    DOLM_RIC_PRESENCE_READY = 3,
    DOLM_RIC_PRESENCE_POLLING_OFF = 4,
    DOLM_RIC_PRESENCE_OUT = 5,          /* the port was taken out of the configuration */
    DOLM_RIC_PRESENCE_NO_INTERFACE = 6, /* the port's interface doesn't exist */
    DOLM_RIC_PRESENCES
};

enum dolm_ric_details_family {
    DOLM_RIC_FAMILY_UNKNOWN = 0,
    DOLM_RIC_FAMILY_SFF8472 = 1,
    DOLM_RIC_FAMILY_SFF8636 = 2,
    DOLM_RIC_FAMILY_CMIS = 3,
    DOLM_RIC_FAMILIES
};

enum dolm_ric_details_medium {
    DOLM_RIC_MEDIUM_UNKNOWN = 0,
    DOLM_RIC_MEDIUM_LIGHT = 1,
    DOLM_RIC_MEDIUM_COPPER = 2,
    DOLM_RIC_MEDIA
};

enum dolm_ric_details_power_kind {
    DOLM_RIC_POWER_UNKNOWN = 0,
    DOLM_RIC_POWER_AVERAGE = 1,
    DOLM_RIC_POWER_OMA = 2, /* the optical modulation amplitude */
    DOLM_RIC_POWER_KINDS
};

/* The index of a length. */
enum dolm_ric_details_length {
    DOLM_RIC_LENGTH_SMF = 0,
    DOLM_RIC_LENGTH_OM1 = 1,
    DOLM_RIC_LENGTH_OM2 = 2,
    DOLM_RIC_LENGTH_OM3 = 3,
    DOLM_RIC_LENGTH_OM4 = 4,
    DOLM_RIC_LENGTH_OM5 = 5,
    DOLM_RIC_LENGTH_CABLE = 6, /* length of the cable itself, copper or fibre */
    DOLM_RIC_LENGTHS = 7
};

/* States of a module with CMIS. Codes above these are defined by the module and shown as
   numbers. */
enum dolm_ric_details_module_state {
    DOLM_RIC_MODULE_STATE_NONE = 0, /* the module has no such state, or it wasn't read */
    DOLM_RIC_MODULE_LOW_POWER = 1,
    DOLM_RIC_MODULE_POWERING_UP = 2,
    DOLM_RIC_MODULE_READY = 3,
    DOLM_RIC_MODULE_POWERING_DOWN = 4,
    DOLM_RIC_MODULE_FAULT = 5,
    DOLM_RIC_MODULE_STATES
};

enum dolm_ric_details_switch {
    DOLM_RIC_SWITCH_UNKNOWN = 0,
    DOLM_RIC_SWITCH_DOWN = 1, /* or off */
    DOLM_RIC_SWITCH_UP = 2,   /* or on */
    DOLM_RIC_SWITCHES
};

enum dolm_ric_details_duplex {
    DOLM_RIC_DUPLEX_UNKNOWN = 0,
    DOLM_RIC_DUPLEX_HALF = 1,
    DOLM_RIC_DUPLEX_FULL = 2,
    DOLM_RIC_DUPLEXES
};

enum dolm_ric_details_fec {
    DOLM_RIC_FEC_UNKNOWN = 0,
    DOLM_RIC_FEC_NONE = 1,
    DOLM_RIC_FEC_BASE_R = 2,
    DOLM_RIC_FEC_RS = 3,
    DOLM_RIC_FEC_LLRS = 4,
    DOLM_RIC_FECS
};

enum dolm_ric_details_side { DOLM_RIC_SIDE_HOST = 0, DOLM_RIC_SIDE_MEDIA = 1, DOLM_RIC_SIDES };

/* The quantity that a VDM row observes. A ratio is a number from 0 to 1, SNR is in dB. */
enum dolm_ric_details_vdm_kind {
    DOLM_RIC_VDM_OTHER = 0, /* see `code` */
    DOLM_RIC_VDM_SNR = 1,
    DOLM_RIC_VDM_PRE_FEC_BER_CURRENT = 2,
    DOLM_RIC_VDM_PRE_FEC_BER_MIN = 3,
    DOLM_RIC_VDM_PRE_FEC_BER_MAX = 4,
    DOLM_RIC_VDM_PRE_FEC_BER_AVERAGE = 5,
    DOLM_RIC_VDM_ERRORED_FRAMES_CURRENT = 6,
    DOLM_RIC_VDM_ERRORED_FRAMES_MIN = 7,
    DOLM_RIC_VDM_ERRORED_FRAMES_MAX = 8,
    DOLM_RIC_VDM_ERRORED_FRAMES_AVERAGE = 9,
    DOLM_RIC_VDM_LASER_TEMPERATURE = 10, /* degrees Celsius */
    DOLM_RIC_VDM_TEC_CURRENT = 11,       /* percent */
    DOLM_RIC_VDM_KINDS
};

typedef struct dolm_ric_details_header {
    char magic[8];
    uint32_t version;
    uint32_t header_size;  /* size of the file's first part; a multiple of 4096 */
    uint32_t record_size;  /* of each record, a multiple of 4096 */
    uint32_t record_count; /* the highest port number + 1; never decreases */
    uint64_t epoch;        /* new at each start of the board; never 0 */
    int64_t started_at;
    uint32_t ended; /* 1: the board was shut down in order */
    uint32_t reserved[5];
} dolm_ric_details_header;

/* In the order of enum dolm_ric_details_flag_kind. */
typedef struct dolm_ric_details_flag {
    uint64_t count; /* readings in which the module had the flag raised */
    int64_t first_at;
    int64_t last_at;
} dolm_ric_details_flag;

typedef struct dolm_ric_details_limits {
    uint32_t state; /* enum dolm_ric_details_state */
    uint32_t reserved;
    double low_alarm;
    double low_warning;
    double high_warning;
    double high_alarm;
} dolm_ric_details_limits;

typedef struct dolm_ric_details_value {
    uint32_t state;  /* enum dolm_ric_details_state */
    uint32_t grade;  /* enum dolm_ric_details_grade */
    int64_t read_at; /* when the value was read; for a missing value, when it was last read */
    double value;    /* 0 unless the state is valid */
    dolm_ric_details_flag flag[DOLM_RIC_FLAGS];
} dolm_ric_details_value;

/* `state` is valid if the module reports the condition; `on` is 1 while the condition is there.
   Modules latch most of these: `count` counts the readings that found it. */
typedef struct dolm_ric_details_condition {
    uint32_t state;
    uint32_t on;
    uint64_t count;
    int64_t first_at;
    int64_t last_at;
} dolm_ric_details_condition;

typedef struct dolm_ric_details_lane {
    dolm_ric_details_value value[DOLM_RIC_LANE_VALUES];
    dolm_ric_details_condition signal[DOLM_RIC_SIGNALS];
} dolm_ric_details_lane;

/* Bit of `raised`: the flags weren't read. */
#define DOLM_RIC_VDM_FLAGS_UNKNOWN 0x80000000u

/* `lane` counts from 0; 0xff stands for the whole module or data path. */
typedef struct dolm_ric_details_vdm {
    uint8_t code; /* the module's own number of the observed quantity */
    uint8_t kind; /* enum dolm_ric_details_vdm_kind */
    uint8_t side; /* enum dolm_ric_details_side */
    uint8_t lane;
    uint32_t state;
    uint32_t grade;
    uint32_t raised; /* bit n: the last reading of the flags found flag n */
    int64_t read_at;
    double value;
    dolm_ric_details_limits limits;
} dolm_ric_details_vdm;

typedef struct dolm_ric_details_application {
    uint8_t host_code; /* of SFF-8024 */
    uint8_t media_code;
    uint8_t host_lanes;
    uint8_t media_lanes;
    uint16_t host_starts; /* bit n: the application may begin on host lane n */
    uint16_t media_starts;
    uint32_t selected_lanes; /* bit n: lane n of the host uses the application now */
    uint32_t reserved;
    char host[40];
    char media[40];
} dolm_ric_details_application;

/* Empty texts and zeros where the module gives no value. */
typedef struct dolm_ric_details_identity {
    uint32_t state; /* enum dolm_ric_details_state of the whole identity */
    uint32_t family;
    int64_t read_at;
    uint32_t medium;
    uint8_t form_factor_code; /* a code of SFF-8024, as is connector_code */
    uint8_t connector_code;
    uint8_t cmis_revision; /* major in the upper half, minor in the lower one; 0: not CMIS */
    uint8_t power_class;   /* 1 to 8 */
    char form_factor[32];
    char connector[32];
    char encoding[24];
    char technology[40];
    char vendor[20];
    uint8_t oui[4]; /* three bytes */
    char part[20];
    char revision[8];
    char serial[20];
    char date[12];
    double max_power;                /* W */
    double bit_rate;                 /* nominal, in Gbit/s; per lane where there are several */
    double wavelength;               /* nm */
    double length[DOLM_RIC_LENGTHS]; /* m */
    uint32_t compliance_count;
    uint32_t application_count;
    char compliance[DOLM_RIC_DETAILS_COMPLIANCES][32];
    char firmware[16]; /* the active firmware version */
    char inactive_firmware[16];
    uint32_t module_state; /* enum dolm_ric_details_module_state */
    uint32_t fault_cause;  /* CMIS' number; 0: none reported */
    dolm_ric_details_application application[DOLM_RIC_DETAILS_APPLICATIONS];
} dolm_ric_details_identity;

typedef struct dolm_ric_details_error {
    int32_t error; /* errno; 0: the row is unused; the last row counts all other errors, as -1 */
    uint32_t reserved;
    uint64_t count;
} dolm_ric_details_error;

/* The cost of reading the module, since the board started. Durations in ns. */
typedef struct dolm_ric_details_cost {
    uint64_t reads;
    uint64_t bytes;
    uint64_t failures;
    dolm_ric_details_error error[DOLM_RIC_DETAILS_ERRORS];
    int64_t last_sweep; /* one reading of all measured values */
    int64_t longest_sweep;
    int64_t longest_read;
    int64_t total;       /* duration of all readings together */
    uint64_t dropped;    /* readings dropped because a second reading didn't confirm them */
    int64_t lease_until; /* until then the board doesn't read the module; 0: no lease */
    int64_t period;      /* the present time between two sweeps */
} dolm_ric_details_cost;

typedef struct dolm_ric_details_link {
    uint32_t state; /* enum dolm_ric_details_state of the whole struct */
    uint32_t admin; /* enum dolm_ric_details_switch, as is oper */
    uint32_t oper;
    uint32_t speed; /* Mbit/s; 0: not known */
    uint32_t duplex;
    uint32_t autoneg; /* enum dolm_ric_details_switch */
    uint32_t lanes;   /* between host and module; 0: not known */
    uint32_t fec;
    uint64_t falls; /* falls of the carrier, since the board started */
    uint64_t rises;
    int64_t changed_at;    /* the last change of admin, oper or speed */
    uint32_t filter_state; /* 0: the board has no filter */
    uint32_t filter_level;
    char interface[32]; /* name of the interface; empty while the port has none */
} dolm_ric_details_link;

typedef struct dolm_ric_details_record {
    uint64_t sequence;
    uint64_t epoch; /* the epoch of the header */
    uint32_t port;
    uint32_t presence;      /* enum dolm_ric_details_presence */
    uint32_t presence_code; /* enum dolm_ric_details_state: why the module's values are missing */
    uint32_t lane_count;    /* number of rows of `lane`; further rows are not written */
    uint32_t vdm_count;     /* number of rows of `vdm`; further rows are not written */
    uint32_t vdm_left_out;  /* number of the module's rows that didn't fit into `vdm` */
    uint32_t own_lanes;     /* bit n: lane n of the module belongs to this port */
    uint32_t power_kind;    /* enum dolm_ric_details_power_kind, of the receive power */
    uint32_t lanes_state;   /* enum dolm_ric_details_state: why there are no lanes */
    uint32_t vdm_state;     /* enum dolm_ric_details_state: why there is no VDM */
    int64_t inserted_at;    /* when this module was found */
    int64_t published_at;   /* the last change of this record */
    uint32_t doubt_count;
    uint32_t reserved;
    char doubt[DOLM_RIC_DETAILS_DOUBTS][80];
    dolm_ric_details_link link;
    dolm_ric_details_cost cost;
    dolm_ric_details_identity identity;
    dolm_ric_details_limits module_limits[DOLM_RIC_MODULE_VALUES];
    dolm_ric_details_limits lane_limits[DOLM_RIC_LANE_VALUES];
    dolm_ric_details_value module_value[DOLM_RIC_MODULE_VALUES];
    dolm_ric_details_lane lane[DOLM_RIC_DETAILS_LANES];
    dolm_ric_details_vdm vdm[DOLM_RIC_DETAILS_VDM];
} dolm_ric_details_record;

#ifdef __cplusplus
}
#endif

/* Keeps compilers from warning about C11 features in older C. */
#ifdef __cplusplus
#define DOLM_RIC_CHECK(condition) static_assert(condition, #condition)
#elif defined(__GNUC__)
#define DOLM_RIC_CHECK(condition) __extension__ _Static_assert(condition, #condition)
#else
#define DOLM_RIC_CHECK(condition) _Static_assert(condition, #condition)
#endif
DOLM_RIC_CHECK(sizeof(dolm_ric_details_header) == 64);
DOLM_RIC_CHECK(offsetof(dolm_ric_details_header, epoch) == 24);
DOLM_RIC_CHECK(sizeof(dolm_ric_details_value) == 120);
DOLM_RIC_CHECK(sizeof(dolm_ric_details_limits) == 40);
DOLM_RIC_CHECK(sizeof(dolm_ric_details_condition) == 32);
DOLM_RIC_CHECK(sizeof(dolm_ric_details_lane) == 584);
DOLM_RIC_CHECK(sizeof(dolm_ric_details_vdm) == 72);
DOLM_RIC_CHECK(sizeof(dolm_ric_details_application) == 96);
#undef DOLM_RIC_CHECK
#endif
