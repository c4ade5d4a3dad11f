/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client - the client library of tesk-server, for programs in C or C++.

   A session is one program's connection to the server. It belongs to the thread that connected it:
   a thread has at most one session, and all calls on it except tesk_client_stop must come from that
   thread. A forked child can't use or close it, but can connect a session of its own. The library
   has no threads and no signal handlers of its own; it works only inside calls to it. A program
   either lets tesk_client_run wait, or polls tesk_client_fd in its own loop and calls
   tesk_client_dispatch when the descriptor is readable.

   Blocking calls (subscribe, unsubscribe, the read_ calls) wait for the server's answer; callbacks
   are called meanwhile. A callback can't make a blocking call, but it can call tesk_client_request,
   which never waits. Each request has a deadline and always completes: answered, failed or timed
   out.

   A null pointer where the call needs one, or a number that its enumeration doesn't list, is
   TESK_CLIENT_MISUSE: nothing is sent, and nothing stored but an empty count.

   No exception crosses this interface. Where memory is exhausted, a call returns TESK_CLIENT_FAILED
   and the session stays usable; only a signal that libmbx can't allocate ends the process, with one
   line on standard error.

   Numbers are in host byte order. Texts come from a module's memory: they are terminated inside
   their arrays, but may contain any bytes; escape them before they go to a terminal. */
#ifndef TESK_CLIENT_H
#define TESK_CLIENT_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* The underlying type of enumerations that are passed to the library. With it any number is a valid
   value in C++, too, so that the library can check for numbers that aren't listed. */
#ifdef __cplusplus
#define TESK_CLIENT_ANY_NUMBER : unsigned int
#else
#define TESK_CLIENT_ANY_NUMBER
#endif

typedef struct tesk_client_session tesk_client_session;

typedef enum tesk_client_result TESK_CLIENT_ANY_NUMBER {
    TESK_CLIENT_OK = 0,
    TESK_CLIENT_REJECTED = 1,  /* the server refused and gave a text */
    TESK_CLIENT_MISUSE = 2,    /* a wrong argument, or a call that isn't allowed here */
    TESK_CLIENT_NO_SERVER = 3, /* no process owns the server's mailbox name */
    TESK_CLIENT_NO_ACCESS =
        4,                   /* this user may not use the server's mailbox, or read the port map */
    TESK_CLIENT_TIMEOUT = 5, /* no answer before the deadline; what the server did is unknown */
    TESK_CLIENT_LOST = 6,    /* the server went away before it answered */
    TESK_CLIENT_CANCELLED = 7,   /* the session was closed before the answer came */
    TESK_CLIENT_FAILED = 8,      /* the system or the mailbox library failed */
    TESK_CLIENT_NO_PORT_MAP = 9, /* the port map doesn't exist */
    TESK_CLIENT_BAD_PORT_MAP =
        10, /* the file is not a port map; tesk_client_error names the line */
} tesk_client_result;

/* Why the server rejected a request, as far as its text says. */
typedef enum tesk_client_rejection {
    TESK_CLIENT_REJECTION_NONE = 0,           /* the server did not reject the request */
    TESK_CLIENT_REJECTION_OTHER = 1,          /* any reason that isn't listed here: see the text */
    TESK_CLIENT_REJECTION_NO_PORT = 2,        /* the port doesn't exist */
    TESK_CLIENT_REJECTION_NO_MODULE = 3,      /* no module in the port, or none that can be read */
    TESK_CLIENT_REJECTION_SUBSCRIBED = 4,     /* this session is subscribed already */
    TESK_CLIENT_REJECTION_NOT_SUBSCRIBED = 5, /* this session is not subscribed */
    TESK_CLIENT_REJECTION_BUSY = 6,           /* the module is present, but can't be read now */
} tesk_client_rejection;

/* The enumerations of the server. Fields that hold them are plain words, since a newer server may
   send values that aren't listed here; tesk_client_text has a text for those, too. */
enum tesk_client_sfp_type {
    TESK_CLIENT_SFP_NOT_PRESENT = 0,
    TESK_CLIENT_SFP_ELECTRICAL = 1,
    TESK_CLIENT_SFP_OPTICAL = 2,
    TESK_CLIENT_SFP_UNKNOWN = 3,
};

enum tesk_client_link {
    TESK_CLIENT_LINK_STOPPED = 0,
    TESK_CLIENT_LINK_NOT_OPERATIONAL = 1,
    TESK_CLIENT_LINK_OPERATIONAL = 2,
};

/* The grade of a measured value against the thresholds of its module. */
enum tesk_client_level {
    TESK_CLIENT_LEVEL_OK = 0,
    TESK_CLIENT_LEVEL_LOW_WARNING = 1,
    TESK_CLIENT_LEVEL_HIGH_WARNING = 2,
    TESK_CLIENT_LEVEL_LOW_ALARM = 3,
    TESK_CLIENT_LEVEL_HIGH_ALARM = 4,
    TESK_CLIENT_LEVEL_NOT_MEASURED = 5,
    TESK_CLIENT_LEVEL_NOT_SUPPORTED = 6,
};

/* The measured value that a level belongs to: the index into the arrays of levels. */
enum tesk_client_measurement {
    TESK_CLIENT_TX_POWER,
    TESK_CLIENT_RX_POWER,
    TESK_CLIENT_TX_BIAS,
    TESK_CLIENT_VCC,
    TESK_CLIENT_TEMPERATURE,
    TESK_CLIENT_LASER_TEMPERATURE,
    TESK_CLIENT_TEC,
    TESK_CLIENT_MEASUREMENTS, /* number of measurements */
};

enum tesk_client_environment {
    TESK_CLIENT_ENVIRONMENT_CLEAR = 0,
    TESK_CLIENT_ENVIRONMENT_SET = 1, /* the module's status word is 2 */
    TESK_CLIENT_ENVIRONMENT_NOT_READ = 5,
};

enum tesk_client_port_state {
    TESK_CLIENT_PORT_UNKNOWN = 0,
    TESK_CLIENT_PORT_UP = 1,
    TESK_CLIENT_PORT_DOWN = 2,
};

enum tesk_client_presence {
    TESK_CLIENT_PRESENCE_NONE = 0,
    TESK_CLIENT_PRESENCE_NOT_READY = 1,
    TESK_CLIENT_PRESENCE_READY = 2,
    TESK_CLIENT_PRESENCE_UNKNOWN = 3,
    TESK_CLIENT_PRESENCE_UNSUPPORTED_PORT = 4,
};

enum tesk_client_action {
    TESK_CLIENT_ACTION_UNKNOWN = 0,
    TESK_CLIENT_ACTION_STATUS_SUBSCRIBE = 1,
    TESK_CLIENT_ACTION_STATUS_UNSUBSCRIBE = 2,
    TESK_CLIENT_ACTION_SFP_SUBSCRIBE = 3,
    TESK_CLIENT_ACTION_SFP_UNSUBSCRIBE = 4,
    TESK_CLIENT_ACTION_STATUS_INDICATION = 5,
    TESK_CLIENT_ACTION_SFP_INDICATION = 6,
};

/* The module in a port. All texts are empty if no module could be read. */
typedef struct tesk_client_sfp_info {
    uint32_t port_no;
    uint32_t type;         /* tesk_client_sfp_type */
    char morvaine_rdh[15]; /* product text of the manufacturer */
    char morvaine_rdh_ext[6];
    char vendor_name[17];
    char vendor_pn[17];
    char vendor_rev[6];
    char date_code[12];
    char vendor_sn[17];
    uint32_t speed; /* nominal, in 0.1 Gbps; 0: not given */
} tesk_client_sfp_info;

/* The state of a port. */
typedef struct tesk_client_port_status {
    uint32_t port_no;
    uint32_t link;                            /* tesk_client_link */
    uint32_t sfp_type;                        /* tesk_client_sfp_type */
    uint32_t link_speed;                      /* in 0.1 Gbps; 0 without a link or if not known */
    uint32_t level[TESK_CLIENT_MEASUREMENTS]; /* tesk_client_level */
    uint32_t environment;                     /* tesk_client_environment */
} tesk_client_port_status;

/* The measured values of a port. A value is valid if its has_ flag is set, and 0 otherwise. */
typedef struct tesk_client_pm {
    uint32_t port_no;
    uint32_t sfp_type; /* tesk_client_sfp_type */
    bool has_loss_of_frame;
    bool has_loss_of_signal;
    bool has_bit_errors;
    bool has_tx_power;
    bool has_rx_power;
    bool has_temperature;
    bool has_voltage;
    bool has_tx_bias;
    uint32_t loss_of_frame;
    uint32_t loss_of_signal;
    uint32_t bit_errors[6]; /* at rates of 1e-8, 1e-7, ... 1e-3 */
    uint32_t tx_power;      /* microwatts */
    uint32_t rx_power;      /* microwatts */
    int32_t temperature;    /* 0.1 degrees Celsius */
    uint32_t voltage;       /* 0.0001 V */
    uint32_t tx_bias;       /* 0.01 mA */
} tesk_client_pm;

typedef struct tesk_client_capability {
    uint32_t id;
    uint32_t value;
} tesk_client_capability;

/* One record of the server's history. After port_no only the fields of the record's kind are set;
   the others are 0. */
typedef struct tesk_client_history_record {
    uint64_t time_us; /* wall clock, microseconds since 1970 */
    uint32_t port_no;
    /* port status */
    uint32_t port_state;  /* tesk_client_port_state */
    int32_t filter_level; /* 0 to 100; from 50 on the filter suppresses indications */
    uint32_t level[TESK_CLIENT_MEASUREMENTS]; /* tesk_client_level */
    /* SFP info */
    uint32_t presence; /* tesk_client_presence */
    /* actions */
    uint32_t action;    /* tesk_client_action */
    uint32_t client_id; /* the server's number for the client */
    uint32_t conn_ref;  /* the client's own reference; this library uses the process id */
} tesk_client_history_record;

/* How many records the server keeps of each kind. */
#define TESK_CLIENT_HISTORY_LENGTH 30

/* The kinds of subscription to a port. */
typedef enum tesk_client_kind TESK_CLIENT_ANY_NUMBER {
    TESK_CLIENT_SFP_INFO,
    TESK_CLIENT_PORT_STATUS,
} tesk_client_kind;

typedef enum tesk_client_history_kind TESK_CLIENT_ANY_NUMBER {
    TESK_CLIENT_HISTORY_PORT_STATUS,
    TESK_CLIENT_HISTORY_SFP_INFO,
    TESK_CLIENT_HISTORY_ACTIONS,
} tesk_client_history_kind;

/* Events of the session, such as the loss of the server. */
typedef enum tesk_client_event_type {
    TESK_CLIENT_EVENT_LOST,     /* the server went away */
    TESK_CLIENT_EVENT_RESTORED, /* the server is back; the subscriptions are being renewed */
    TESK_CLIENT_EVENT_SUBSCRIPTION_LOST, /* a subscription could not be renewed */
} tesk_client_event_type;

typedef struct tesk_client_event {
    tesk_client_event_type type;
    /* The fields below describe the lost subscription. */
    tesk_client_kind kind;
    uint32_t port_no;
    tesk_client_result result;
    const char *text; /* the server's or the library's; valid during the callback */
} tesk_client_event;

/* Options of a session. 0 and null select the default. Callbacks are called only inside calls on
   the session. They may make requests and must not throw; their arguments are valid until they
   return. */
typedef struct tesk_client_options {
    uint32_t deadline_ms;      /* of each request, from the call on; default 2000 */
    uint32_t window;           /* requests in flight at most, others are queued; default 16 */
    bool reconnect;            /* after a loss, look for the server and subscribe again */
    uint32_t retry_ms;         /* delay before the first retry, doubled each time; default 100 */
    uint32_t longest_retry_ms; /* upper limit of retry_ms when doubled; default 2000 */
    void (*on_sfp_info)(const tesk_client_sfp_info *info, void *user);
    void (*on_port_status)(const tesk_client_port_status *status, void *user);
    void (*on_event)(const tesk_client_event *event, void *user);
    void *user; /* passed to the three callbacks */
} tesk_client_options;

/* Connects to the server. `options` may be null. On success `*session` must be closed with
   tesk_client_close; on failure it is null. Locating the server takes at most the time that libmbx
   allows; then the call waits for the server's answer until the deadline. */
tesk_client_result tesk_client_connect(const tesk_client_options *options,
                                       tesk_client_session **session);

/* Closes a session. The server drops its subscriptions. Requests without an answer complete with
   TESK_CLIENT_CANCELLED. Null is allowed; inside a callback the call does nothing. */
void tesk_client_close(tesk_client_session *session);

/* False while there is no connection to the server, or for a null session. */
bool tesk_client_connected(const tesk_client_session *session);

/* A descriptor that is readable when tesk_client_dispatch has work to do, including an expired
   deadline. The session owns it and never changes it. -1 without a session. */
int tesk_client_fd(const tesk_client_session *session);

/* Processes received signals and deadlines, and calls the callbacks. Doesn't wait, except that
   libmbx waits when a session reconnects to a server that is stopped. Returns TESK_CLIENT_LOST if
   the server is gone and the session doesn't reconnect: the descriptor then stays silent. */
tesk_client_result tesk_client_dispatch(tesk_client_session *session);

/* Waits and dispatches until tesk_client_stop is called or timeout_ms has passed; -1 means no
   limit. Returns TESK_CLIENT_OK, or TESK_CLIENT_LOST as tesk_client_dispatch does. */
tesk_client_result tesk_client_run(tesk_client_session *session, int timeout_ms);

/* Makes the running tesk_client_run return; if none is running, the next one. May be called in any
   thread and in signal handlers. Null is ignored. */
void tesk_client_stop(tesk_client_session *session);

/* Subscribes to a port. The first indication follows the answer; further ones report changes until
   the unsubscribe. */
tesk_client_result tesk_client_subscribe(tesk_client_session *session, tesk_client_kind kind,
                                         uint32_t port_no);
tesk_client_result tesk_client_unsubscribe(tesk_client_session *session, tesk_client_kind kind,
                                           uint32_t port_no);

/* Reads the measured values of a port. `pm` is unchanged on failure. */
tesk_client_result tesk_client_read_pm(tesk_client_session *session, uint32_t port_no,
                                       tesk_client_pm *pm);

/* Both calls fill at most `capacity` elements and store their number in `count`, 0 on failure. The
   history is sorted oldest first; if it doesn't fit, only the newest records are stored. */
tesk_client_result tesk_client_read_capabilities(tesk_client_session *session,
                                                 tesk_client_capability *capabilities,
                                                 size_t capacity, size_t *count);
tesk_client_result tesk_client_read_history(tesk_client_session *session,
                                            tesk_client_history_kind kind,
                                            tesk_client_history_record *records, size_t capacity,
                                            size_t *count);

/* The types of request for tesk_client_request. */
typedef enum tesk_client_request_type TESK_CLIENT_ANY_NUMBER {
    TESK_CLIENT_REQUEST_SUBSCRIBE_SFP_INFO,
    TESK_CLIENT_REQUEST_UNSUBSCRIBE_SFP_INFO,
    TESK_CLIENT_REQUEST_SUBSCRIBE_PORT_STATUS,
    TESK_CLIENT_REQUEST_UNSUBSCRIBE_PORT_STATUS,
    TESK_CLIENT_REQUEST_PM,
    TESK_CLIENT_REQUEST_CAPABILITIES,
    TESK_CLIENT_REQUEST_HISTORY_PORT_STATUS,
    TESK_CLIENT_REQUEST_HISTORY_SFP_INFO,
    TESK_CLIENT_REQUEST_HISTORY_ACTIONS,
} tesk_client_request_type;

typedef struct tesk_client_answer {
    tesk_client_request_type request;
    uint32_t port_no; /* port of the request */
    tesk_client_result result;
    int32_t error_code; /* 0 unless rejected; 2: a port over 65534, 1: mostly; see rejection */
    const char *text;   /* the reason if the result isn't TESK_CLIENT_OK: the server's or the
                           library's */
    /* The requested payload; the other two pointers are null. */
    const tesk_client_pm *pm;
    const tesk_client_capability *capabilities;
    const tesk_client_history_record *history;
    size_t count; /* number of capabilities or history records */
    tesk_client_rejection rejection;
} tesk_client_answer;

typedef void (*tesk_client_answered)(const tesk_client_answer *answer, void *user);

/* Sends a request, or queues it while the window is full. On TESK_CLIENT_OK `answered`, which may
   be null, is called exactly once, later; on any other result never. While a reconnecting session
   has no server, requests wait for it until their deadline. `port_no` is used by the first five
   types only. */
tesk_client_result tesk_client_request(tesk_client_session *session,
                                       tesk_client_request_type request, uint32_t port_no,
                                       tesk_client_answered answered, void *user);

/* Receives a port of the port map. The name is escaped: printable ASCII, a backslash doubled, every
   other byte as \xNN. It is valid until the callback returns. */
typedef void (*tesk_client_port_named)(uint32_t port_no, const char *name, void *user);

/* Reads the file in which the board library names its ports, in ascending order of their numbers. A
   null `path` stands for the environment's DOLM_RIC_PORT_MAP, else for /run/dolm_ric/ports, the map
   of the system's server; if MBX_DIR selects another server, that map is not read. The whole file
   is read and checked first: on failure `each` is never called. Needs no session and no server; any
   thread. `each` must not throw. TESK_CLIENT_NO_PORT_MAP if there is no such file. */
tesk_client_result tesk_client_read_port_map(const char *path, tesk_client_port_named each,
                                             void *user);

/* Receives a verdict: one object of JSON in UTF-8, with the keys of teskctl why --json. It is valid
   until the callback returns. */
typedef void (*tesk_client_fall_judged)(const char *verdict, void *user);

/* Says why a link fell, from the recorded facts: `facts` is one JSON object of at most 64 KiB, such
   as a line of the board's file. On TESK_CLIENT_OK `judged` was called once. Needs no session, no
   server and no file; any thread. `judged` must not throw. TESK_CLIENT_MISUSE if facts are invalid;
   tesk_client_error names the first. */
tesk_client_result tesk_client_judge_fall(const char *facts, tesk_client_fall_judged judged,
                                          void *user);

/* The error text of the calling thread's last failed call; for TESK_CLIENT_REJECTED the server's
   text. Valid until the thread's next call. Never null. */
const char *tesk_client_error(void);

/* The reason of the same rejection; TESK_CLIENT_REJECTION_NONE unless the result is
   TESK_CLIENT_REJECTED. */
tesk_client_rejection tesk_client_error_rejection(void);

/* The version of the library, such as "1.1.0". Never null. */
const char *tesk_client_version(void);

/* A short text for a result. Never null. */
const char *tesk_client_result_text(tesk_client_result result);

/* The enumerations that have texts. */
typedef enum tesk_client_enumeration TESK_CLIENT_ANY_NUMBER {
    TESK_CLIENT_TEXT_SFP_TYPE,
    TESK_CLIENT_TEXT_LINK,
    TESK_CLIENT_TEXT_LEVEL,
    TESK_CLIENT_TEXT_MEASUREMENT,
    TESK_CLIENT_TEXT_ENVIRONMENT,
    TESK_CLIENT_TEXT_PORT_STATE,
    TESK_CLIENT_TEXT_PRESENCE,
    TESK_CLIENT_TEXT_ACTION,
} tesk_client_enumeration;

/* The text of a value, such as "low warning"; "unknown" if it has none. Never null. */
const char *tesk_client_text(tesk_client_enumeration enumeration, uint32_t value);

#ifdef __cplusplus
}
#endif
#endif
