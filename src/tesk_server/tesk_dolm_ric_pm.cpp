/* SPDX-License-Identifier: Apache-2.0 */
/* The read of a port's measured values, in the units of the protocol.

   The identity is read first, since a port without a readable module has no values; the result of
   that read is the reason in the rejection. Many modules lack diagnostics: the answer is then sent
   without their values. The three reads follow each other, so the values may be from different
   moments. */
#include "tesk_server/tesk_dolm_ric_internal.h"

/* Integer arithmetic only. The sum wraps at the width of its type, by intention: there is no error
   result. For a negative temperature the quotient is truncated toward zero. */
static int32_t convert_temperature(int32_t milli_degrees)
{
    return static_cast<int32_t>(static_cast<uint32_t>(milli_degrees) + 50u) / 100;
}

static uint32_t convert_voltage(uint32_t microvolts)
{
    return (microvolts + 50u) / 100u;
}

static uint32_t convert_tx_bias(uint32_t microamperes)
{
    return (microamperes + 5u) / 10u;
}

static uint32_t as_measured(uint32_t value)
{
    return value;
}

/* One line for each measurement: its thresholds and its value, converted, each with the unit. */
#define TRACE_MEASUREMENT(diag, name, convert, unit)                                               \
    tesk_trace(TESK_TRACE_COURSE,                                                                  \
               #name "_low_warn = %d[%s], " #name "_high_warn = %d[%s], " #name                    \
                     "_low_alarm = %d[%s], " #name "_high_alarm = %d[%s], " #name " = %d[%s]",     \
               static_cast<int32_t>(convert((diag)->name##_low_warn)), unit,                       \
               static_cast<int32_t>(convert((diag)->name##_high_warn)), unit,                      \
               static_cast<int32_t>(convert((diag)->name##_low_alarm)), unit,                      \
               static_cast<int32_t>(convert((diag)->name##_high_alarm)), unit,                     \
               static_cast<int32_t>(convert((diag)->name)), unit)

static void trace_measurements(const dolm_ric_module_diag *diag)
{
    /* Readers of traces expect this text unchanged, with "v" in that of DOLM_SFP_DIAGCAP_TXPOWER.
     */
    tesk_trace(TESK_TRACE_COURSE,
               "diag_cap: %u. Values for diag_cap: DOLM_SFP_DIAGCAP_TEMP = 0x01, "
               "DOLM_SFP_DIAGCAP_VOLTAGE = 0x02, DOLM_SFP_DIAGCAP_TXBIAS = 0x04, "
               "DOLM_SFP_DIAGCAP_TXPOWERv0x08, DOLM_SFP_DIAGCAP_RXPOWER = 0x10, "
               "DOLM_SFP_DIAGCAP_LASERTEMP = 0x20, DOLM_SFP_DIAGCAP_TECCURRENT = 0x40",
               diag->diag_cap);
    TRACE_MEASUREMENT(diag, temperature, convert_temperature, "* 0.1 C");
    TRACE_MEASUREMENT(diag, voltage, convert_voltage, "* 0.0001 V");
    TRACE_MEASUREMENT(diag, txbias, convert_tx_bias, "* 0.01 mA");
    TRACE_MEASUREMENT(diag, txpower, as_measured, "uW");
    TRACE_MEASUREMENT(diag, rxpower, as_measured, "uW");
}

static void fill_pm_sfp_diag(tesk_pm_counters *counters, const dolm_ric_module_diag *diag)
{
    if (diag->mode_type != DOLM_RIC_MODE_SFP) {
        tesk_trace(TESK_TRACE_NOTABLE, "moddiag: unknown SFP module on port %u(dolm_ric_id %u)",
                   counters->port_no, dolm_ric_id(counters->port_no));
        return;
    }
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_TXPOWER) {
        counters->has_pm_sfp_tx_power = 1;
        counters->pm_sfp_tx_power = diag->txpower;
    }
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_RXPOWER) {
        counters->has_pm_sfp_rx_power = 1;
        counters->pm_sfp_rx_power = diag->rxpower;
    }
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_TEMP) {
        counters->has_pm_sfp_temperature = 1;
        counters->pm_sfp_temperature = convert_temperature(diag->temperature);
    }
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_VOLTAGE) {
        counters->has_pm_sfp_voltage = 1;
        counters->pm_sfp_voltage = convert_voltage(diag->voltage);
    }
    if (diag->diag_cap & DOLM_SFP_DIAGCAP_TXBIAS) {
        counters->has_pm_sfp_tx_bias = 1;
        counters->pm_sfp_tx_bias = convert_tx_bias(diag->txbias);
    }
}

/* If this bit of the module status is set, the client gets the whole word as a loss of signal. */
static constexpr uint32_t loss_of_signal_bit = 0x01;

static int32_t read_loss_of_signal(uint32_t id, tesk_pm_counters *counters)
{
    dolm_ric_module_status module = {};
    const int32_t result = dolm_ric_ri_getmodstatus(dolm_ric_handle, id, &module);

    if (result != DOLM_RICERR_OK) {
        tesk_trace(TESK_TRACE_NOTABLE,
                   "dolm_ric_ri_getmodstatus: port %u (dolm_ric_id %u), %d (%s)", counters->port_no,
                   id, result, dolm_ric_result_text(result));
        return result;
    }
    if (module.status & loss_of_signal_bit) {
        counters->has_pm_loss_of_signal_count = 1;
        counters->pm_loss_of_signal_count = module.status;
    }
    return DOLM_RICERR_OK;
}

/* A module without diagnostics is not a failure: its values are absent. */
static int32_t read_diagnostics(uint32_t id, tesk_pm_counters *counters)
{
    dolm_ric_module_diag diag = {};
    const int32_t result = dolm_ric_ri_getmodulediag(dolm_ric_handle, id, &diag);

    if (result == DOLM_RICERR_OK) {
        trace_measurements(&diag);
        fill_pm_sfp_diag(counters, &diag);
        return DOLM_RICERR_OK;
    }
    tesk_trace(dolm_ric_result_group(result), "dolm_ric_ri_getmodulediag: %d (%s)", result,
               dolm_ric_result_text(result));
    const bool none = result == DOLM_RICERR_NOTAVAIL || result == DOLM_RICERR_UNSUPPORTED;
    return none ? int32_t{DOLM_RICERR_OK} : result;
}

int32_t read_pm_counters(tesk_pm_counters *counters)
{
    const uint32_t id = dolm_ric_id(counters->port_no);
    dolm_ric_module_info module = {};

    int32_t result = dolm_ric_ri_getmoduleinfo(dolm_ric_handle, id, &module);
    if (result != DOLM_RICERR_OK) {
        tesk_trace(dolm_ric_result_group(result), "dolm_ric_ri_getmoduleinfo: %d (%s)", result,
                   dolm_ric_result_text(result));
        return result;
    }
    result = read_loss_of_signal(id, counters);
    if (result != DOLM_RICERR_OK)
        return result;
    result = read_diagnostics(id, counters);
    if (result != DOLM_RICERR_OK)
        return result;

    /* Only the connector is used: mode_type is tested in the diagnostics. */
    trace_module_identity(&module.sfp, ", ");
    counters->pm_sfp_type = sfp_connector_to_type(module.sfp.sfp_connector);
    return DOLM_RICERR_OK;
}
