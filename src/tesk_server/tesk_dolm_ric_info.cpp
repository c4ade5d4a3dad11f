/* SPDX-License-Identifier: Apache-2.0 */
/* The library's subscriptions, and the reads of a port and of its module. Nothing is stored between
   calls: a client gets the values of the hardware at that moment, not those of an event.

   A failed read is not a failure of the server. get_sfp_info leaves its record as it was.
   get_port_info starts from the values for "not read" and stops at the first failed read, so that a
   client gets as much of the port as could be read. */
#include "tesk_server/tesk_dolm_ric_internal.h"
#include "tesk_server/tesk_text.h"

#include <cstdlib>
#include <cstring>

/* The names of a library operation in the traces. */
struct operation_names {
    const char *course;  /* in the trace of the read */
    const char *failure; /* in the traces of a failure */
    const char *gap;     /* between port and id in the trace for an unknown port */
};

/* A port that the library doesn't know is a client's mistake; any other failure is an error. */
static void trace_port_failure(const operation_names &names, uint32_t port_no, int32_t result)
{
    const uint32_t id = dolm_ric_id(port_no);
    const char *text = dolm_ric_result_text(result);

    if (result == DOLM_RICERR_NODEV)
        tesk_trace(TESK_TRACE_NOTABLE, "ABN: %s: port %u%s(dolm_ric_id %u), %d (%s)", names.failure,
                   port_no, names.gap, id, result, text);
    else
        tesk_trace(TESK_TRACE_ERROR, "%s: port %u(dolm_ric_id %u), %d (%s)", names.failure, port_no,
                   id, result, text);
}

/* A port that isn't started counts as empty here, whereas its event gives an unknown presence. */
static tesk_sfp_presence presence_of_read(int32_t result, uint32_t status)
{
    if (result == DOLM_RICERR_NODEV)
        return unsupported_port;
    if (result != DOLM_RICERR_OK)
        return sfp_unknown;
    if (status & DOLM_RICRIPORT_MODREADY)
        return sfp_present_and_ready;
    if (status & DOLM_RICRIPORT_MODINSERTED)
        return sfp_present_not_ready;
    return sfp_not_present;
}

using presence_operation = int32_t(uintptr_t handle, uint32_t id, dolm_ric_port_status *out);

static tesk_sfp_presence read_presence(uint32_t port_no, presence_operation *read,
                                       const operation_names &names)
{
    dolm_ric_port_status port = {};
    const int32_t result = read(dolm_ric_handle, dolm_ric_id(port_no), &port);

    tesk_trace(TESK_TRACE_COURSE, "%s resulted with %d and port_status %u", names.course, result,
               port.status);
    if (result != DOLM_RICERR_OK)
        trace_port_failure(names, port_no, result);
    return presence_of_read(result, port.status);
}

tesk_sfp_presence get_dolm_sfp_presence(uint32_t port_no)
{
    static constexpr operation_names names = {
        .course = "get_dolm_sfp_presence(): dolm_ric_ri_getportstatus",
        .failure = "dolm_ric_ri_getportstatus",
        .gap = "",
    };

    return read_presence(port_no, dolm_ric_ri_getportstatus, names);
}

tesk_sfp_presence subscribe_sfp_info(uint32_t port_no)
{
    static constexpr operation_names names = {
        .course = "subscribe_sfp_info(): dolm_ric_ri_subsport",
        .failure = "dolm_ric_ri_portstatus",
        .gap = " ",
    };

    return read_presence(port_no, dolm_ric_ri_subsport, names);
}

/* The link status that this call returns is only traced: the caller reads the port afterwards. */
int32_t subscribe_port_status(uint32_t port_no)
{
    static constexpr operation_names names = {
        .course = "subscribe_port_status(): dolm_ric_ri_subslink",
        .failure = "dolm_ric_ri_subslink",
        .gap = " ",
    };
    dolm_ric_link_status link = {};
    const int32_t result = dolm_ric_ri_subslink(dolm_ric_handle, dolm_ric_id(port_no), &link);

    tesk_trace(TESK_TRACE_COURSE, "%s resulted with %d and link_status %u", names.course, result,
               link.state);
    if (result != DOLM_RICERR_OK) {
        trace_port_failure(names, port_no, result);
        return 1;
    }
    return 0;
}

using end_operation = int32_t(uintptr_t handle, uint32_t id);

static int32_t end_subscription(uint32_t port_no, end_operation *end, const operation_names &names)
{
    const int32_t result = end(dolm_ric_handle, dolm_ric_id(port_no));

    if (result != DOLM_RICERR_OK) {
        trace_port_failure(names, port_no, result);
        return 1;
    }
    tesk_trace(TESK_TRACE_COURSE, "%s: successfully unsubscribed from port %u", names.course,
               port_no);
    return 0;
}

int32_t unsubscribe_sfp_info(uint32_t port_no)
{
    static constexpr operation_names names = {
        .course = "unsubscribe_sfp_info()", .failure = "dolm_ric_ri_unsubsport", .gap = ""};

    return end_subscription(port_no, dolm_ric_ri_unsubsport, names);
}

int32_t unsubscribe_port_status(uint32_t port_no)
{
    static constexpr operation_names names = {
        .course = "unsubscribe_port_status()", .failure = "dolm_ric_ri_unsubslink", .gap = ""};

    return end_subscription(port_no, dolm_ric_ri_unsubslink, names);
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

/* A speed code of the library and the protocol's value for it. */
struct speed_row {
    uint32_t code;
    uint32_t tenth_gbps;
};

/* A code that isn't listed has the speed itself in its lower half, or no speed in the protocol: 0.
 */
template <size_t rows>
static uint32_t speed_of_code(const speed_row (&table)[rows], uint32_t code)
{
    for (const speed_row &row : table)
        if (row.code == code)
            return row.tenth_gbps;
    return (code & 0xffff0000) == DOLM_RIC_SPEED_CODE(0) ? code & 0xffff : 0;
}

static uint32_t sfp_eth_speed_to_speed(uint32_t eth_speed)
{
    static constexpr speed_row speeds[] = {{DOLM_SFP_ETHSPEED_1000MB, 10},
                                           {DOLM_SFP_ETHSPEED_10GB, 100}};

    return speed_of_code(speeds, eth_speed);
}

static uint32_t link_speed_to_tenth_gbps(uint32_t speed)
{
    static constexpr speed_row speeds[] = {{0x0001, 12}, {0x0002, 25},  {0x0008, 49},
                                           {0x0020, 98}, {0x0040, 101}, {0x1000, 100}};

    return speed_of_code(speeds, speed);
}

/* The texts of a module's memory with room for a terminator, which they may lack there. */
struct module_texts {
    char vendor_name[sizeof(dolm_sfp_info::sfp_vendor_name) + 1];
    char vendor_oui[sizeof(dolm_sfp_info::sfp_vendor_oui) + 1];
    char vendor_pn[sizeof(dolm_sfp_info::sfp_vendor_pn) + 1];
    char vendor_rev[sizeof(dolm_sfp_info::sfp_vendor_rev) + 1];
    char vendor_sn[sizeof(dolm_sfp_info::sfp_vendor_sn) + 1];
    char date_code[sizeof(dolm_sfp_info::sfp_date_code) + 1];
    char rdh[sizeof(dolm_sfp_info::sfp_morvaine_rdh) + 1];
};

/* The values of the constants are traced, too, so that the traces can be read without the library's
   documentation. */
static void trace_module_codes()
{
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
}

/* The group is tested once, before the texts are copied for the traces. */
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

    trace_module_codes();
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
    /* sfp_morvaine is tested for optical modules only. The text of any other module is copied
       whatever its sfp_morvaine. */
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
    /* A module that isn't ready cannot be read, and only a read resolves an unknown presence. */
    if (presence != sfp_present_and_ready && presence != sfp_unknown)
        return sfp_not_present;

    dolm_ric_module_info module = {};
    const int32_t result =
        dolm_ric_ri_getmoduleinfo(dolm_ric_handle, dolm_ric_id(port_no), &module);
    switch (result) {
    case DOLM_RICERR_OK:
        break;
    case DOLM_RICERR_NODEV:
        return unsupported_port;
    case DOLM_RICERR_NOTAVAIL:
        return sfp_not_present;
    default:
        tesk_trace(TESK_TRACE_NOTABLE, "WARNING: dolm_ric_ri_getmoduleinfo returned result %d!",
                   result);
        return sfp_unknown;
    }

    /* Anything other than an SFP module is reported as an electrical module without texts. */
    if (module.mode_type != DOLM_RIC_MODE_SFP) {
        info->type = TESK_SFP_ELECTRICAL;
        tesk_trace(TESK_TRACE_NOTABLE,
                   "dolm_ric_ri_getmoduleinfo returned result %d with mode_type %u!", result,
                   module.mode_type);
        return sfp_present_and_ready;
    }

    /* If memory for the copy is exhausted, the process ends before the module is traced. */
    auto *sfp = static_cast<dolm_sfp_info *>(alloc_or_abort(sizeof(dolm_sfp_info)));
    *sfp = module.sfp;
    fill_sfp_info(sfp, info);
    free(sfp);
    return sfp_present_and_ready;
}

/* The wide type holds the signed and the unsigned measurements, so the same comparisons apply to
   both. A value equal to a threshold counts as beyond it. If thresholds are equal, as the zeros of
   a module without thresholds, the order of the tests decides. */
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
    /* Here the whole word is compared with 2; the PM counters test its bit 0x01. */
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
    /* A stopped link is reported as not operational: the protocol's value for stopped is not used.
     */
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

/* False when the module can't be read. A module whose memory isn't available counts as electrical;
   its diagnostics may still be available. */
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
