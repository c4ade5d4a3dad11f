/* SPDX-License-Identifier: Apache-2.0 */
/* The library's subscriptions, and the reads of a port and of its module. Nothing is kept between
   calls: a client is always told what the hardware says at that moment, not what an event said.

   A failed read is no failure of the server. get_sfp_info leaves its record as it was, and
   get_port_info starts from values that say "not read" and stops at the first read that fails, so
   that a client sees as much of the port as could be told. */
#include "tesk_server/tesk_dolm_ric_internal.h"
#include "tesk_server/tesk_text.h"

#include <cstdlib>
#include <cstring>

/* A port that the library doesn't know is a client's mistake, any other failure is an error. Both
   texts take the port, its id, the result and the result's text. */
static void trace_port_failure(const char *unknown_port, const char *failure, uint32_t port_no,
                               int32_t result)
{
    if (result == DOLM_RICERR_NODEV)
        tesk_trace(TESK_TRACE_NOTABLE, unknown_port, port_no, dolm_ric_id(port_no), result,
                   dolm_ric_result_text(result));
    else
        tesk_trace(TESK_TRACE_ERROR, failure, port_no, dolm_ric_id(port_no), result,
                   dolm_ric_result_text(result));
}

/* A port that isn't started counts as empty here. The event of such a port says that its presence
   is unknown. */
static tesk_sfp_presence presence_of_read(int32_t result, uint32_t status)
{
    if (result == DOLM_RICERR_NODEV)
        return UNSUPPORTED_PORT;
    if (result != DOLM_RICERR_OK)
        return SFP_UNKNOWN;
    if (status & DOLM_RICRIPORT_MODREADY)
        return SFP_PRESENT_AND_READY;
    if (status & DOLM_RICRIPORT_MODINSERTED)
        return SFP_PRESENT_NOT_READY;
    return SFP_NOT_PRESENT;
}

/* A read of the presence: the operation that gives it, the trace of its answer, which takes the
   result and the status, and the two texts of a failure. */
struct presence_read {
    int32_t (*read)(uintptr_t handle, uint32_t id, dolm_ric_port_status *out);
    const char *answer;
    const char *unknown_port;
    const char *failure;
};

static tesk_sfp_presence read_presence(uint32_t port_no, const presence_read &its)
{
    dolm_ric_port_status port = {};
    const int32_t result = its.read(dolm_ric_handle, dolm_ric_id(port_no), &port);

    tesk_trace(TESK_TRACE_COURSE, its.answer, result, port.status);
    if (result != DOLM_RICERR_OK)
        trace_port_failure(its.unknown_port, its.failure, port_no, result);
    return presence_of_read(result, port.status);
}

tesk_sfp_presence get_dolm_sfp_presence(uint32_t port_no)
{
    static constexpr presence_read its = {
        .read = dolm_ric_ri_getportstatus,
        .answer = "get_dolm_sfp_presence(): dolm_ric_ri_getportstatus resulted with %d and "
                  "port_status %u",
        .unknown_port = "ABN: dolm_ric_ri_getportstatus: port %u(dolm_ric_id %u), %d (%s)",
        .failure = "dolm_ric_ri_getportstatus: port %u(dolm_ric_id %u), %d (%s)",
    };

    return read_presence(port_no, its);
}

tesk_sfp_presence subscribe_sfp_info(uint32_t port_no)
{
    static constexpr presence_read its = {
        .read = dolm_ric_ri_subsport,
        .answer = "subscribe_sfp_info(): dolm_ric_ri_subsport resulted with %d and port_status %u",
        .unknown_port = "ABN: dolm_ric_ri_portstatus: port %u (dolm_ric_id %u), %d (%s)",
        .failure = "dolm_ric_ri_portstatus: port %u(dolm_ric_id %u), %d (%s)",
    };

    return read_presence(port_no, its);
}

/* The status that comes with this subscription is only traced: whoever subscribes reads the port as
   a whole afterwards. */
int32_t subscribe_port_status(uint32_t port_no)
{
    dolm_ric_link_status link = {};
    const int32_t result = dolm_ric_ri_subslink(dolm_ric_handle, dolm_ric_id(port_no), &link);

    tesk_trace(TESK_TRACE_COURSE,
               "subscribe_port_status(): dolm_ric_ri_subslink resulted with %d and link_status %u",
               result, link.state);
    if (result != DOLM_RICERR_OK) {
        trace_port_failure("ABN: dolm_ric_ri_subslink: port %u (dolm_ric_id %u), %d (%s)",
                           "dolm_ric_ri_subslink: port %u(dolm_ric_id %u), %d (%s)", port_no,
                           result);
        return 1;
    }
    return 0;
}

/* The end of a subscription: the operation, the trace of its success, which takes the port, and the
   two texts of a failure. */
struct subscription_end {
    int32_t (*end)(uintptr_t handle, uint32_t id);
    const char *success;
    const char *unknown_port;
    const char *failure;
};

static int32_t end_subscription(uint32_t port_no, const subscription_end &its)
{
    const int32_t result = its.end(dolm_ric_handle, dolm_ric_id(port_no));

    if (result != DOLM_RICERR_OK) {
        trace_port_failure(its.unknown_port, its.failure, port_no, result);
        return 1;
    }
    tesk_trace(TESK_TRACE_COURSE, its.success, port_no);
    return 0;
}

int32_t unsubscribe_sfp_info(uint32_t port_no)
{
    static constexpr subscription_end its = {
        .end = dolm_ric_ri_unsubsport,
        .success = "unsubscribe_sfp_info(): successfully unsubscribed from port %u",
        .unknown_port = "ABN: dolm_ric_ri_unsubsport: port %u(dolm_ric_id %u), %d (%s)",
        .failure = "dolm_ric_ri_unsubsport: port %u(dolm_ric_id %u), %d (%s)",
    };

    return end_subscription(port_no, its);
}

int32_t unsubscribe_port_status(uint32_t port_no)
{
    static constexpr subscription_end its = {
        .end = dolm_ric_ri_unsubslink,
        .success = "unsubscribe_port_status(): successfully unsubscribed from port %u",
        .unknown_port = "ABN: dolm_ric_ri_unsubslink: port %u(dolm_ric_id %u), %d (%s)",
        .failure = "dolm_ric_ri_unsubslink: port %u(dolm_ric_id %u), %d (%s)",
    };

    return end_subscription(port_no, its);
}

uint32_t sfp_connector_to_type(uint8_t connector)
{
    switch (connector) {
    case DOLM_SFP_CONNECTOR_LC:
        return TESK_SFP_OPTICAL;
    case DOLM_SFP_CONNECTOR_RJ45:
        return TESK_SFP_ELECTRICAL;
    default:
        return TESK_SFP_UNKNOWN;
    }
}

/* Codes that hold the speed itself; 0 for all others, which have no speed in the protocol. */
static uint32_t speed_in_code(uint32_t code)
{
    const bool has_speed = (code & DOLM_RIC_SPEED_RANGE_MASK) == DOLM_RIC_SPEED_TENTH_GBPS;
    return has_speed ? code & ~DOLM_RIC_SPEED_RANGE_MASK : 0;
}

/* In units of 0.1 Gbps. */
static uint32_t sfp_eth_speed_to_speed(uint32_t eth_speed)
{
    switch (eth_speed) {
    case DOLM_SFP_ETHSPEED_1000MB:
        return 10;
    case DOLM_SFP_ETHSPEED_10GB:
        return 100;
    default:
        return speed_in_code(eth_speed);
    }
}

/* The listed codes are single bits of which the library gives one. */
static uint32_t link_speed_to_tenth_gbps(uint32_t speed)
{
    static constexpr struct {
        uint32_t code;
        uint32_t tenth_gbps;
    } speeds[] = {{0x0001, 12}, {0x0002, 25},  {0x0008, 49},
                  {0x0020, 98}, {0x0040, 101}, {0x1000, 100}};

    for (const auto &entry : speeds)
        if (entry.code == speed)
            return entry.tenth_gbps;
    return speed_in_code(speed);
}

/* The texts of a module's memory, each with a terminator of our own. */
struct module_texts {
    char vendor_name[sizeof(dolm_sfp_info::sfp_vendor_name) + 1];
    char vendor_oui[sizeof(dolm_sfp_info::sfp_vendor_oui) + 1];
    char vendor_pn[sizeof(dolm_sfp_info::sfp_vendor_pn) + 1];
    char vendor_rev[sizeof(dolm_sfp_info::sfp_vendor_rev) + 1];
    char vendor_sn[sizeof(dolm_sfp_info::sfp_vendor_sn) + 1];
    char date_code[sizeof(dolm_sfp_info::sfp_date_code) + 1];
    char rdh[sizeof(dolm_sfp_info::sfp_morvaine_rdh) + 1];
};

/* Seven texts are copied before anything is traced, so the group is asked once for all of it. */
void trace_module_identity(const dolm_sfp_info *sfp, const char *after_rev)
{
    if (!tesk_trace_enabled(TESK_TRACE_COURSE))
        return;

    module_texts texts;
    tesk_copy_bounded(texts.vendor_name, sfp->sfp_vendor_name);
    tesk_copy_bounded(texts.vendor_oui, sfp->sfp_vendor_oui);
    tesk_copy_bounded(texts.vendor_pn, sfp->sfp_vendor_pn);
    tesk_copy_bounded(texts.vendor_rev, sfp->sfp_vendor_rev);
    tesk_copy_bounded(texts.vendor_sn, sfp->sfp_vendor_sn);
    tesk_copy_bounded(texts.date_code, sfp->sfp_date_code);
    tesk_copy_bounded(texts.rdh, sfp->sfp_morvaine_rdh);

    /* What the numbers below mean goes with them, so that a trace can be read without the library's
       documents at hand. */
    tesk_trace(TESK_TRACE_COURSE,
               "Values for sfp_connector: DOLM_SFP_CONNECTOR_UNSPEC = 0x0, DOLM_SFP_CONNECTOR_LC "
               "= 0x1, DOLM_SFP_CONNECTOR_RJ45 = 0x2, DOLM_SFP_CONNECTOR_OTHER = 0xff");
    tesk_trace(TESK_TRACE_COURSE, "Values for sfp_eth_speed: DOLM_SFP_ETHSPEED_UNSPEC = 0x0, "
                                  "DOLM_SFP_ETHSPEED_1000MB = 0x1, DOLM_SFP_ETHSPEED_10GB = 0x2");
    tesk_trace(TESK_TRACE_COURSE,
               "Values for sfp_eth_compliance: DOLM_SFP_ETHCOMP_UNSPEC = 0x000, "
               "DOLM_SFP_ETHCOMP_10GBASE_ER = 0x001, DOLM_SFP_ETHCOMP_10GBASE_LRM = 0x002, "
               "DOLM_SFP_ETHCOMP_10GBASE_LR = 0x004, DOLM_SFP_ETHCOMP_10GBASE_SR = 0x008, "
               "DOLM_SFP_ETHCOMP_1000BASE_T = 0x010, DOLM_SFP_ETHCOMP_1000BASE_CX = 0x020, "
               "DOLM_SFP_ETHCOMP_1000BASE_LX = 0x040, DOLM_SFP_ETHCOMP_1000BASE_SX = 0x080, "
               "DOLM_SFP_ETHCOMP_1000BASE_BX = 0x100, DOLM_SFP_ETHCOMP_1000BASE_ZX = 0x200");
    tesk_trace(TESK_TRACE_COURSE,
               "Values for sfp_morvaine: DOLM_SFP_MORVAINE_NONE = 0x0, DOLM_SFP_MORVAINE_MONI = "
               "0x1");
    tesk_trace(TESK_TRACE_COURSE,
               "Values for sfp_type: DOLM_SFP_TYPE_UNKNOWN = 0x0, DOLM_SFP_TYPE_OPTICAL = 0x1, "
               "DOLM_SFP_TYPE_BASET = 0x2, DOLM_SFP_TYPE_DAC_PASSIVE = 0x3, "
               "DOLM_SFP_TYPE_DAC_ACTIVE = 0x4");
    tesk_trace(TESK_TRACE_COURSE,
               "sfp->sfp_connector = %u, sfp_eth_speed = %u, sfp_eth_compliance = %u, "
               "sfp_nom_bitrate = %u, sfp_vendor_name = %s",
               sfp->sfp_connector, sfp->sfp_eth_speed, sfp->sfp_eth_compliance,
               sfp->sfp_nom_bitrate, texts.vendor_name);
    tesk_trace(TESK_TRACE_COURSE,
               "sfp_vendor_oui = %s, sfp_vendor_pn = %s, sfp_vendor_rev = %s%ssfp_vendor_sn = %s, "
               "sfp_date_code = %s, sfp_morvaine = %u",
               texts.vendor_oui, texts.vendor_pn, texts.vendor_rev, after_rev, texts.vendor_sn,
               texts.date_code, sfp->sfp_morvaine);
    tesk_trace(TESK_TRACE_COURSE, "sfp_morvaine_rdh = %s", texts.rdh);
}

static void fill_sfp_info(const dolm_sfp_info *sfp, tesk_sfp_info *info)
{
    trace_module_identity(sfp, "");
    info->type = sfp_connector_to_type(sfp->sfp_connector);
    info->sfp_speed = sfp_eth_speed_to_speed(sfp->sfp_eth_speed);
    /* Only an optical module is asked whether it is one of ours. What others hold in the place of
       the text goes to the client as it is. */
    if (info->type == TESK_SFP_OPTICAL && sfp->sfp_morvaine != DOLM_SFP_MORVAINE_MONI)
        tesk_copy_text(info->sfp_morvaine_rdh, "Non-Morvaine");
    else
        tesk_copy_bounded(info->sfp_morvaine_rdh, sfp->sfp_morvaine_rdh);
    tesk_copy_bounded(info->sfp_morvaine_rdh_ext, sfp->sfp_morvaine_rdh_ext);
    tesk_copy_bounded(info->sfp_vendor_name, sfp->sfp_vendor_name);
    tesk_copy_bounded(info->sfp_vendor_pn, sfp->sfp_vendor_pn);
    tesk_copy_bounded(info->sfp_vendor_rev, sfp->sfp_vendor_rev);
    tesk_copy_bounded(info->sfp_date_code, sfp->sfp_date_code);
    tesk_copy_bounded(info->sfp_vendor_sn, sfp->sfp_vendor_sn);
}

tesk_sfp_presence get_sfp_info(uint32_t port_no, uint32_t presence, tesk_sfp_info *info)
{
    /* A module that isn't ready has nothing to say yet, and a presence that nobody knows can only
       be found out by reading. */
    if (presence != SFP_PRESENT_AND_READY && presence != SFP_UNKNOWN)
        return SFP_NOT_PRESENT;

    dolm_ric_module_info module = {};
    const int32_t result =
        dolm_ric_ri_getmoduleinfo(dolm_ric_handle, dolm_ric_id(port_no), &module);
    switch (result) {
    case DOLM_RICERR_OK:
        break;
    case DOLM_RICERR_NODEV:
        return UNSUPPORTED_PORT;
    case DOLM_RICERR_NOTAVAIL:
        return SFP_NOT_PRESENT;
    default:
        tesk_trace(TESK_TRACE_NOTABLE, "WARNING: dolm_ric_ri_getmoduleinfo returned result %d!",
                   result);
        return SFP_UNKNOWN;
    }

    /* Whatever is in the port and is no SFP module goes as an electrical one without texts. */
    if (module.mode_type != DOLM_RIC_MODE_SFP) {
        info->type = TESK_SFP_ELECTRICAL;
        tesk_trace(TESK_TRACE_NOTABLE,
                   "dolm_ric_ri_getmoduleinfo returned result %d with mode_type %u!", result,
                   module.mode_type);
        return SFP_PRESENT_AND_READY;
    }

    /* Without memory for the copy the process ends before anything of the module is traced. */
    auto *sfp = static_cast<dolm_sfp_info *>(alloc_or_abort(sizeof(dolm_sfp_info)));
    *sfp = module.sfp;
    fill_sfp_info(sfp, info);
    free(sfp);
    return SFP_PRESENT_AND_READY;
}

/* Signed and unsigned measurements alike fit the wide type, so one comparison serves both. A value
   on a threshold counts as beyond it. The order of the tests decides where a module's thresholds
   coincide, as the zeros of one that has none do. */
static uint32_t fault_level(int64_t value, int64_t low_warn, int64_t high_warn, int64_t low_alarm,
                            int64_t high_alarm)
{
    if (value < high_warn && value > low_warn)
        return TESK_FAULT_NONE;
    if (value <= low_warn && value > low_alarm)
        return TESK_FAULT_LOW_WARNING;
    if (value <= low_alarm)
        return TESK_FAULT_LOW_ALARM;
    if (value < high_alarm && value >= high_warn)
        return TESK_FAULT_HIGH_WARNING;
    return TESK_FAULT_HIGH_ALARM;
}

/* The level of one measurement against the thresholds of its own group. */
#define LEVEL_OF(diag, name)                                                                       \
    fault_level((diag)->name, (diag)->name##_low_warn, (diag)->name##_high_warn,                   \
                (diag)->name##_low_alarm, (diag)->name##_high_alarm)

static void fill_fault_levels(const dolm_ric_module_diag *diag, tesk_port_info *info)
{
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_TXPOWER)
        info->tx_power_fault_level = LEVEL_OF(diag, txpower);
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_RXPOWER)
        info->rx_power_fault_level = LEVEL_OF(diag, rxpower);
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_TEMP)
        info->temp_fault_level = LEVEL_OF(diag, temperature);
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_VOLTAGE)
        info->vcc_fault_level = LEVEL_OF(diag, voltage);
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_TXBIAS)
        info->tx_bias_fault_level = LEVEL_OF(diag, txbias);

    dolm_ric_module_status module = {};
    const uint32_t id = dolm_ric_id(info->port_no);
    const int32_t result = dolm_ric_ri_getmodstatus(dolm_ric_handle, id, &module);
    if (result != DOLM_RICERR_OK) {
        tesk_trace(TESK_TRACE_ERROR,
                   "dolm_ric_ri_getmodstatus failed, for port %u (dolm_ric_id %u), err=%s",
                   info->port_no, id, dolm_ric_result_text(result));
        return;
    }
    /* Two readers, two readings of this word: here it is the value 2 that counts, and for the PM
       counters it is the bit 0x01. */
    info->env_status = module.status == 2 ? TESK_ENV_RAISED : TESK_ENV_OTHER;
}

/* False when the link can't be read. */
static bool read_link(uint32_t port_no, tesk_port_info *info)
{
    dolm_ric_link_status link = {};
    const uint32_t id = dolm_ric_id(port_no);
    const int32_t result = dolm_ric_ri_getlinkstatus(dolm_ric_handle, id, &link);

    if (result != DOLM_RICERR_OK) {
        tesk_trace(TESK_TRACE_ERROR,
                   "dolm_ric_ri_getlinkstatus failed, for port %u (dolm_ric_id %u), err=%s",
                   port_no, id, dolm_ric_result_text(result));
        return false;
    }
    /* A link that is stopped is told as one that doesn't work: the protocol's value for stopped is
       never used. */
    if (link.state == DOLM_RICRILINKSTATE_OPERATIONAL)
        info->conn_status = TESK_CONN_OPERATIONAL;
    tesk_trace(TESK_TRACE_COURSE, "get_port_info(): port_no=%u, conn_status=%u", port_no,
               info->conn_status);
    if (info->conn_status == TESK_CONN_OPERATIONAL) {
        info->link_speed = link_speed_to_tenth_gbps(link.speed);
        tesk_trace(TESK_TRACE_COURSE, "Link speed -> %u", link.speed);
    }
    return true;
}

/* False when the module can't be read. A memory that isn't available stands for an electrical
   module, whose diagnostics may still be. */
static bool read_module_type(uint32_t port_no, tesk_port_info *info)
{
    dolm_ric_module_info module = {};
    const int32_t result =
        dolm_ric_ri_getmoduleinfo(dolm_ric_handle, dolm_ric_id(port_no), &module);

    if (result != DOLM_RICERR_OK && result != DOLM_RICERR_NOTAVAIL) {
        tesk_trace(dolm_ric_result_group(result), "dolm_ric_ri_getmoduleinfo: %d (%s)", result,
                   dolm_ric_result_text(result));
        return false;
    }
    info->sfp_type = result == DOLM_RICERR_OK ? sfp_connector_to_type(module.sfp.sfp_connector)
                                              : uint32_t{TESK_SFP_ELECTRICAL};
    tesk_trace(TESK_TRACE_COURSE, "get_port_info(): port_no=%u, sfp_type=%u", port_no,
               info->sfp_type);
    return true;
}

static void read_fault_levels(uint32_t port_no, tesk_port_info *info)
{
    dolm_ric_module_diag diag = {};
    const int32_t result = dolm_ric_ri_getmodulediag(dolm_ric_handle, dolm_ric_id(port_no), &diag);

    if (result != DOLM_RICERR_OK) {
        tesk_trace(dolm_ric_result_group(result), "dolm_ric_ri_getmodulediag: %d (%s)", result,
                   dolm_ric_result_text(result));
        return;
    }
    fill_fault_levels(&diag, info);
    tesk_trace(TESK_TRACE_COURSE,
               "get_port_info(): port_no=%u, fault levels - vcc_fault_level=%u, "
               "tec_fault_level=%u, temp_fault_level=%u, tx_bias_fault_level=%u, "
               "tx_power_fault_level=%u, rx_power_fault_level=%u, laser_temp_fault_level=%u, "
               "env_status=%u",
               port_no, info->vcc_fault_level, info->tec_fault_level, info->temp_fault_level,
               info->tx_bias_fault_level, info->tx_power_fault_level, info->rx_power_fault_level,
               info->laser_temp_fault_level, info->env_status);
}

void get_port_info(uint32_t port_no, tesk_port_info *info)
{
    *info = {
        .port_no = port_no,
        .conn_status = TESK_CONN_NOT_OPERATIONAL,
        .sfp_type = TESK_SFP_UNKNOWN,
        .link_speed = 0,
        .reserved_fault_level = TESK_FAULT_NOT_MEASURED,
        .tx_power_fault_level = TESK_FAULT_NOT_MEASURED,
        .rx_power_fault_level = TESK_FAULT_NOT_MEASURED,
        .tx_bias_fault_level = TESK_FAULT_NOT_MEASURED,
        .vcc_fault_level = TESK_FAULT_NOT_MEASURED,
        .temp_fault_level = TESK_FAULT_NOT_MEASURED,
        .laser_temp_fault_level = TESK_FAULT_NOT_SUPPORTED,
        .tec_fault_level = TESK_FAULT_NOT_SUPPORTED,
        .env_status = TESK_ENV_NOT_READ,
        .reserved = {},
    };
    if (!read_link(port_no, info))
        return;
    if (!read_module_type(port_no, info))
        return;
    read_fault_levels(port_no, info);
}
