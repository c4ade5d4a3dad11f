/* SPDX-License-Identifier: Apache-2.0 */
/* One snapshot for one request. Nothing of it is stored, and the request changes nothing about the
   client, not even its procedure_ref: there is no indication that could bear it.

   All is read before anything is answered, so a read that fails half-way gives a rejection with the
   library's own reason, and never a CFM with half of the values. Values that the module doesn't
   have are no failure: the CFM says which of them it holds. */
#include "tesk_server/tesk_get_pm_counters.h"

#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_port_request.h"
#include "tesk_server/tesk_text.h"
#include "tesk_server/tesk_trace.h"

static void tesk_send_get_pm_counters_cfm(uint32_t mbox, uint32_t procedure_ref,
                                          uint32_t connection_ref, const tesk_pm_counters *counters)
{
    mbx_signal *signal = mbx_alloc(sizeof(tesk_get_pm_counters_cfm), TESK_GET_PM_COUNTERS_CFM);
    auto *cfm = reinterpret_cast<tesk_get_pm_counters_cfm *>(signal);
    const tesk_pm_counters *pm = &cfm->counters;

    cfm->procedure_ref = procedure_ref;
    cfm->connection_ref = connection_ref;
    cfm->counters = *counters;
    /* The text is known to readers of traces as it stands, the missing blank before
       has_pm_sfp_tx_power included. */
    tesk_trace_sent(
        TESK_GET_PM_COUNTERS_CFM, mbox,
        "Sent signal TESK_GET_PM_COUNTERS_CFM: procedure_ref: %u, connection_ref: %u, mbox: 0x%x, "
        "port_no: %u, pm_sfp_type: %u, has_pm_loss_of_frame_count: %u, pm_loss_of_frame_count: "
        "%u, has_pm_loss_of_signal_count: %u, pm_loss_of_signal_count: %u, "
        "has_pm_bit_error_count: %u, ber_level10_8: %u, ber_level10_7: %u, ber_level10_6: %u, "
        "ber_level10_5: %u, ber_level10_4: %u, ber_level10_3: %uhas_pm_sfp_tx_power: %u, "
        "pm_sfp_tx_power: %u, has_pm_sfp_rx_power: %u, pm_sfp_rx_power: %u, "
        "has_pm_sfp_temperature: %u, pm_sfp_temperature: %u, has_pm_sfp_voltage: %u, "
        "pm_sfp_voltage: %u, has_pm_sfp_tx_bias: %u, pm_sfp_tx_bias: %u",
        cfm->procedure_ref, cfm->connection_ref, mbox, pm->port_no, pm->pm_sfp_type,
        pm->has_pm_loss_of_frame_count, pm->pm_loss_of_frame_count, pm->has_pm_loss_of_signal_count,
        pm->pm_loss_of_signal_count, pm->has_pm_bit_error_count, pm->ber_level10_8,
        pm->ber_level10_7, pm->ber_level10_6, pm->ber_level10_5, pm->ber_level10_4,
        pm->ber_level10_3, pm->has_pm_sfp_tx_power, pm->pm_sfp_tx_power, pm->has_pm_sfp_rx_power,
        pm->pm_sfp_rx_power, pm->has_pm_sfp_temperature,
        static_cast<uint32_t>(pm->pm_sfp_temperature), pm->has_pm_sfp_voltage, pm->pm_sfp_voltage,
        pm->has_pm_sfp_tx_bias, pm->pm_sfp_tx_bias);
    tesk_turn(*cfm);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

static void tesk_send_get_pm_counters_rej(uint32_t mbox, uint32_t procedure_ref,
                                          uint32_t connection_ref, int32_t error_code,
                                          const char *error_description, uint32_t port_no)
{
    tesk_send_port_rej(TESK_GET_PM_COUNTERS_REJ, "TESK_GET_PM_COUNTERS_REJ", mbox, procedure_ref,
                       connection_ref, error_code, error_description, port_no);
}

static void tesk_pm_set_error(int32_t result, int32_t *error_code,
                              char (&text)[TESK_ERROR_DESCRIPTION_SIZE])
{
    *error_code = TESK_ERROR_REJECTED;
    tesk_copy_text(text, dolm_ric_result_text(result));
}

static constexpr tesk_port_procedure procedure = {
    .received = "Received TESK_GET_PM_COUNTERS_REQ:sender:0x%x, procedure_ref: %u, "
                "connection_ref: %u, port: %u",
    /* Alone among the procedures: a stranger's request shows in the traces of received signals. */
    .unknown_group = TESK_TRACE_RECEIVED,
    .unknown = "Unknown sender, ignoring TESK_GET_PM_COUNTERS_REQ",
    .send_rej = tesk_send_get_pm_counters_rej,
};

void tesk_handle_get_pm_counters_req(mbx_signal *signal)
{
    /* Frame losses and bit errors have no source in the hardware: their words stay zero. */
    tesk_pm_counters counters = {};
    tesk_port_request request;

    if (!tesk_port_request_read(&procedure, signal, &request))
        return;
    if (!tesk_port_request_in_range(&request))
        return;
    counters.port_no = request.port_no;
    const int32_t result = read_pm_counters(&counters);
    if (result != 0) {
        int32_t error_code;
        char error_description[TESK_ERROR_DESCRIPTION_SIZE];
        tesk_pm_set_error(result, &error_code, error_description);
        tesk_port_request_reject(&request, error_code, error_description);
        return;
    }
    tesk_send_get_pm_counters_cfm(request.sender, request.procedure_ref, request.client->conn_ref,
                                  &counters);
}
