/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_signals - all signals of the server: numbers, sizes, records, and the conversion between
   host and network byte order. A record overlays a received or allocated block that is at least as
   long. The first word of every signal, its number, stays in host order; the internal signals and
   those of the shell protocol are in host order throughout. No state, no allocation, any thread. */
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little,
              "tesk-server runs on little-endian processors only: its protocol swaps every word");

/* The mailbox that receives the requests of clients. */
inline constexpr char TESK_SERVER_NAME[] = "tesk-server";

inline constexpr uint32_t TESK_PROTOCOL_REVISION = 1;
inline constexpr uint32_t TESK_HIGHEST_PORT = 65534;
inline constexpr size_t TESK_ERROR_DESCRIPTION_SIZE = 256;

enum tesk_signal_number : uint32_t {
    TESK_SHELL_GET_PORT_STATUS_CACHE_REQ = 0x117,
    TESK_SHELL_GET_PORT_STATUS_CACHE_CFM = 0x118,
    TESK_SHELL_GET_SFP_INFO_CACHE_REQ = 0x119,
    TESK_SHELL_GET_SFP_INFO_CACHE_CFM = 0x11a,
    TESK_SHELL_GET_ACTIONS_CACHE_REQ = 0x11b,
    TESK_SHELL_GET_ACTIONS_CACHE_CFM = 0x11c,

    TESK_CONN_ESTABLISH_REQ = 0x1648400,
    TESK_CONN_ESTABLISH_CFM = 0x1648401,
    TESK_CONN_ESTABLISH_REJ = 0x1648402,
    TESK_GET_CAPABILITIES_REQ = 0x1648403,
    TESK_GET_CAPABILITIES_CFM = 0x1648404,
    TESK_SUBSCRIBE_SFP_INFO_REQ = 0x1648406,
    TESK_SUBSCRIBE_SFP_INFO_CFM = 0x1648407,
    TESK_SUBSCRIBE_SFP_INFO_REJ = 0x1648408,
    TESK_SFP_INFO_IND = 0x1648409,
    TESK_GET_PM_COUNTERS_REQ = 0x164840a,
    TESK_GET_PM_COUNTERS_CFM = 0x164840b,
    TESK_GET_PM_COUNTERS_REJ = 0x164840c,
    TESK_UNSUBSCRIBE_SFP_INFO_REQ = 0x164840d,
    TESK_UNSUBSCRIBE_SFP_INFO_CFM = 0x164840e,
    TESK_UNSUBSCRIBE_SFP_INFO_REJ = 0x164840f,
    TESK_SUBSCRIBE_PORT_STATUS_REQ = 0x1648410,
    TESK_SUBSCRIBE_PORT_STATUS_CFM = 0x1648411,
    TESK_SUBSCRIBE_PORT_STATUS_REJ = 0x1648412,
    TESK_PORT_STATUS_IND = 0x1648413,
    TESK_UNSUBSCRIBE_PORT_STATUS_REQ = 0x1648414,
    TESK_UNSUBSCRIBE_PORT_STATUS_CFM = 0x1648415,
    TESK_UNSUBSCRIBE_PORT_STATUS_REJ = 0x1648416,

    TESK_PORT_STATUS_FILTER_TICK = 0x1648501,
    TESK_EXIT_SIGNAL = 0xdeadbeaf,
};

enum tesk_error_code : int32_t {
    TESK_ERROR_REJECTED = 1,
    TESK_ERROR_INVALID_PORT = 2,
};

enum tesk_sfp_type : uint32_t {
    TESK_SFP_NOT_PRESENT = 0,
    TESK_SFP_ELECTRICAL = 1,
    TESK_SFP_OPTICAL = 2,
    TESK_SFP_UNKNOWN = 3,
};

enum tesk_conn_status : uint32_t {
    TESK_CONN_STOPPED = 0,
    TESK_CONN_NOT_OPERATIONAL = 1,
    TESK_CONN_OPERATIONAL = 2,
};

enum tesk_fault_level : uint32_t {
    TESK_FAULT_NONE = 0, /* between the warning thresholds */
    TESK_FAULT_LOW_WARNING = 1,
    TESK_FAULT_HIGH_WARNING = 2,
    TESK_FAULT_LOW_ALARM = 3,
    TESK_FAULT_HIGH_ALARM = 4,
    TESK_FAULT_NOT_MEASURED = 5,
    TESK_FAULT_NOT_SUPPORTED = 6,
};

/* env_status of a port, derived from the module's status word. */
enum tesk_env_status : uint32_t {
    TESK_ENV_OTHER = 0,
    TESK_ENV_RAISED = 1,
    TESK_ENV_NOT_READ = 5,
};

/* The first three words of every client signal. The records below repeat them instead of having
   them as a member or a base class: so each field is accessed by one name, and a record keeps the
   standard layout that offsetof requires. */
struct tesk_header {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
};

struct tesk_conn_establish_req {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    uint32_t number_of_rev;
    uint32_t protocol_rev[]; /* number_of_rev entries */
};
static_assert(sizeof(tesk_conn_establish_req) == 16);

struct tesk_conn_establish_cfm {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    uint32_t protocol_rev;
};
static_assert(sizeof(tesk_conn_establish_cfm) == 16);

struct tesk_conn_establish_rej {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    int32_t error_code;
    char error_description[TESK_ERROR_DESCRIPTION_SIZE];
};
static_assert(sizeof(tesk_conn_establish_rej) == 272);
static_assert(offsetof(tesk_conn_establish_rej, error_description) == 16);

using tesk_get_capabilities_req = tesk_header;
static_assert(sizeof(tesk_get_capabilities_req) == 12);

struct tesk_capability {
    uint32_t capability_id;
    uint32_t capability_value;
};

struct tesk_get_capabilities_cfm {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    uint32_t number_of_capabilities;
    tesk_capability capabilities[]; /* number_of_capabilities entries */
};
static_assert(sizeof(tesk_get_capabilities_cfm) == 16);
static_assert(offsetof(tesk_get_capabilities_cfm, capabilities) == 16);

/* The requests and confirmations with a port. */
struct tesk_port_signal {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    uint32_t port_no;
};
static_assert(sizeof(tesk_port_signal) == 16);

struct tesk_subscribe_port_status_req {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    uint32_t port_no;
    uint32_t reserved;
};
static_assert(sizeof(tesk_subscribe_port_status_req) == 20);

/* The rejections with a port. */
struct tesk_port_rej {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    uint32_t port_no;
    int32_t error_code;
    char error_description[TESK_ERROR_DESCRIPTION_SIZE];
};
static_assert(sizeof(tesk_port_rej) == 276);
static_assert(offsetof(tesk_port_rej, error_description) == 20);

/* The result of a read of a module, in the layout of TESK_SFP_INFO_IND, so that it is copied whole.
   The width of a text includes its terminator; the two reserved bytes align the word behind the
   texts. */
struct tesk_sfp_info {
    uint32_t port_no;
    uint32_t type; /* tesk_sfp_type */
    uint32_t is_optical;
    char sfp_morvaine_rdh[15];
    char sfp_morvaine_rdh_ext[6];
    char sfp_vendor_name[17];
    char sfp_vendor_pn[17];
    char sfp_vendor_rev[6];
    char sfp_date_code[12];
    char sfp_vendor_sn[17];
    uint8_t reserved[2];
    uint32_t sfp_speed; /* 0.1 Gbps */
};
static_assert(sizeof(tesk_sfp_info) == 108);

struct tesk_sfp_info_ind {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    tesk_sfp_info info;
};
static_assert(sizeof(tesk_sfp_info_ind) == 120);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_morvaine_rdh) == 24);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_morvaine_rdh_ext) == 39);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_vendor_name) == 45);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_vendor_pn) == 62);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_vendor_rev) == 79);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_date_code) == 85);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_vendor_sn) == 97);
static_assert(offsetof(tesk_sfp_info_ind, info.sfp_speed) == 116);

/* The result of a read of a port, in the layout of TESK_PORT_STATUS_IND. */
struct tesk_port_info {
    uint32_t port_no;
    uint32_t conn_status; /* tesk_conn_status */
    uint32_t sfp_type;    /* tesk_sfp_type */
    uint32_t link_speed;  /* 0.1 Gbps */
    uint32_t reserved_fault_level;
    uint32_t tx_power_fault_level; /* tesk_fault_level, and so the six below */
    uint32_t rx_power_fault_level;
    uint32_t tx_bias_fault_level;
    uint32_t vcc_fault_level;
    uint32_t temp_fault_level;
    uint32_t laser_temp_fault_level;
    uint32_t tec_fault_level;
    uint32_t env_status; /* tesk_env_status */
    uint8_t reserved[32];
};
static_assert(sizeof(tesk_port_info) == 84);

struct tesk_port_status_ind {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    tesk_port_info info;
};
static_assert(sizeof(tesk_port_status_ind) == 96);
static_assert(offsetof(tesk_port_status_ind, info.link_speed) == 24);
static_assert(offsetof(tesk_port_status_ind, info.env_status) == 60);

/* One snapshot of a port's measured values. A value without its has_ flag is 0, which can also be a
   measured value: only the flag distinguishes the two. */
struct tesk_pm_counters {
    uint32_t port_no;
    uint32_t pm_sfp_type; /* tesk_sfp_type */
    uint32_t has_pm_loss_of_frame_count;
    uint32_t pm_loss_of_frame_count;
    uint32_t has_pm_loss_of_signal_count;
    uint32_t pm_loss_of_signal_count;
    uint32_t has_pm_bit_error_count; /* for the six words behind it */
    uint32_t ber_level10_8;
    uint32_t ber_level10_7;
    uint32_t ber_level10_6;
    uint32_t ber_level10_5;
    uint32_t ber_level10_4;
    uint32_t ber_level10_3;
    uint32_t has_pm_sfp_tx_power;
    uint32_t pm_sfp_tx_power; /* microwatts */
    uint32_t has_pm_sfp_rx_power;
    uint32_t pm_sfp_rx_power; /* microwatts */
    uint32_t has_pm_sfp_temperature;
    int32_t pm_sfp_temperature; /* 0.1 degrees Celsius */
    uint32_t has_pm_sfp_voltage;
    uint32_t pm_sfp_voltage; /* 0.0001 V */
    uint32_t has_pm_sfp_tx_bias;
    uint32_t pm_sfp_tx_bias; /* 0.01 mA */
};
static_assert(sizeof(tesk_pm_counters) == 92);

struct tesk_get_pm_counters_cfm {
    uint32_t number;
    uint32_t procedure_ref;
    uint32_t connection_ref;
    tesk_pm_counters counters;
};
static_assert(sizeof(tesk_get_pm_counters_cfm) == 104);
static_assert(offsetof(tesk_get_pm_counters_cfm, counters.has_pm_sfp_tx_power) == 64);
static_assert(offsetof(tesk_get_pm_counters_cfm, counters.pm_sfp_temperature) == 84);
static_assert(offsetof(tesk_get_pm_counters_cfm, counters.pm_sfp_tx_bias) == 100);

/* The tick of the filter, sent by the server to itself through the timer service. */
struct tesk_port_status_filter_tick {
    uint32_t number;
    uint32_t bucket_id;
    uint32_t port_no;
};
static_assert(sizeof(tesk_port_status_filter_tick) == 12);

/* The layout of the three answers of the shell protocol. Four reserved bytes follow the records. */
template <typename record_type>
struct tesk_shell_cfm {
    uint32_t number;
    uint32_t count;
    record_type records[]; /* `count` entries */
};

struct tesk_shell_port_status_record {
    uint32_t port_no;
    int32_t bucket_level;
    uint32_t port_state; /* 1 up, 2 down, 0 any other */
    uint32_t tx_power_fault_level;
    uint32_t rx_power_fault_level;
    uint32_t tx_bias_fault_level;
    uint32_t vcc_fault_level;
    uint32_t temp_fault_level;
    uint32_t laser_temp_fault_level;
    uint32_t tec_fault_level;
    uint32_t tv_sec;
    uint32_t tv_usec;
};
static_assert(sizeof(tesk_shell_port_status_record) == 48);
static_assert(offsetof(tesk_shell_port_status_record, tv_sec) == 40);

struct tesk_shell_sfp_info_record {
    uint32_t port_no;
    uint32_t sfp_presence; /* 0 to 4 as tesk_sfp_presence */
    uint32_t tv_sec;
    uint32_t tv_usec;
};
static_assert(sizeof(tesk_shell_sfp_info_record) == 16);

struct tesk_shell_action_record {
    uint32_t port_no;
    uint32_t client_id;
    uint32_t conn_ref;
    uint32_t action; /* 1 to 6 as tesk_cache_action, 0 any other */
    uint32_t tv_sec;
    uint32_t tv_usec;
};
static_assert(sizeof(tesk_shell_action_record) == 24);
static_assert(sizeof(tesk_shell_cfm<tesk_shell_action_record>) == 8);

/* Blocks are aligned to words, and no record requires more. */
static_assert(alignof(tesk_sfp_info_ind) == alignof(uint32_t));
static_assert(alignof(tesk_get_pm_counters_cfm) == alignof(uint32_t));

/* Swaps the byte order of words, from host to network byte order or back: the swap is its own
   inverse. */
template <typename... word_type>
constexpr void tesk_swap_words(word_type &...word)
{
    static_assert(((sizeof(word_type) == sizeof(uint32_t)) && ...));
    ((word = static_cast<word_type>(__builtin_bswap32(static_cast<uint32_t>(word)))), ...);
}

/* Swaps the fixed part only: the caller swaps the entries of protocol_rev, as it knows how many of
   them the block contains. */
constexpr void tesk_swap_byte_order(tesk_conn_establish_req &signal)
{
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, signal.number_of_rev);
}

constexpr void tesk_swap_byte_order(tesk_conn_establish_cfm &signal)
{
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, signal.protocol_rev);
}

constexpr void tesk_swap_byte_order(tesk_conn_establish_rej &signal)
{
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, signal.error_code);
}

constexpr void tesk_swap_byte_order(tesk_header &signal)
{
    tesk_swap_words(signal.procedure_ref, signal.connection_ref);
}

constexpr void tesk_swap_byte_order(tesk_capability &capability)
{
    tesk_swap_words(capability.capability_id, capability.capability_value);
}

constexpr void tesk_swap_byte_order(tesk_port_signal &signal)
{
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, signal.port_no);
}

constexpr void tesk_swap_byte_order(tesk_port_rej &signal)
{
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, signal.port_no, signal.error_code);
}

constexpr void tesk_swap_byte_order(tesk_sfp_info_ind &signal)
{
    tesk_sfp_info &info = signal.info;
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, info.port_no, info.type,
                    info.is_optical, info.sfp_speed);
}

constexpr void tesk_swap_byte_order(tesk_port_status_ind &signal)
{
    tesk_port_info &info = signal.info;
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, info.port_no, info.conn_status,
                    info.sfp_type, info.link_speed, info.reserved_fault_level,
                    info.tx_power_fault_level, info.rx_power_fault_level, info.tx_bias_fault_level,
                    info.vcc_fault_level, info.temp_fault_level, info.laser_temp_fault_level,
                    info.tec_fault_level, info.env_status);
}

constexpr void tesk_swap_byte_order(tesk_get_pm_counters_cfm &signal)
{
    tesk_pm_counters &pm = signal.counters;
    tesk_swap_words(signal.procedure_ref, signal.connection_ref, pm.port_no, pm.pm_sfp_type,
                    pm.has_pm_loss_of_frame_count, pm.pm_loss_of_frame_count,
                    pm.has_pm_loss_of_signal_count, pm.pm_loss_of_signal_count,
                    pm.has_pm_bit_error_count, pm.ber_level10_8, pm.ber_level10_7, pm.ber_level10_6,
                    pm.ber_level10_5, pm.ber_level10_4, pm.ber_level10_3, pm.has_pm_sfp_tx_power,
                    pm.pm_sfp_tx_power, pm.has_pm_sfp_rx_power, pm.pm_sfp_rx_power,
                    pm.has_pm_sfp_temperature, pm.pm_sfp_temperature, pm.has_pm_sfp_voltage,
                    pm.pm_sfp_voltage, pm.has_pm_sfp_tx_bias, pm.pm_sfp_tx_bias);
}
