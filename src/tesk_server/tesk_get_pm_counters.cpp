/* SPDX-License-Identifier: Apache-2.0 */
/* One snapshot for each request. Nothing of it is stored, and the client's record is not changed,
   its procedure_ref included.

   All values are read before the answer is built, so a failed read leads to a rejection with the
   library's reason and never to an incomplete CFM. A value that the module doesn't have is not a
   failure: the CFM has a flag for each. */
#include "tesk_server/tesk_get_pm_counters.h"

#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_port_request.h"
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
    /* Readers of traces expect this text unchanged, with no blank before has_pm_sfp_tx_power. */
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
    tesk_swap_byte_order(*cfm);
    mbx_send(&signal, mbox, MBX_OWN_MAILBOX);
}

static constexpr tesk_port_procedure get_pm_counters_procedure = {
    .received = "TESK_GET_PM_COUNTERS_REQ:sender:",
    /* Only this procedure traces an unknown sender in the group of received signals. */
    .unknown_group = TESK_TRACE_RECEIVED,
    .unknown = "Unknown sender, ignoring TESK_GET_PM_COUNTERS_REQ",
    .rej = TESK_PORT_ANSWER(TESK_GET_PM_COUNTERS_REJ),
};

void tesk_handle_get_pm_counters_req(mbx_signal *signal)
{
    /* The hardware has no source for frame losses and bit errors: their words stay zero. */
    tesk_pm_counters counters = {};
    tesk_port_request request;

    if (!tesk_port_request_read(&get_pm_counters_procedure, signal, &request))
        return;
    if (!tesk_port_request_in_range(&request))
        return;
    counters.port_no = request.port_no;
    const int32_t result = read_pm_counters(&counters);
    if (result != 0) {
        tesk_port_request_reject(&request, TESK_ERROR_REJECTED, dolm_ric_result_text(result));
        return;
    }
    tesk_send_get_pm_counters_cfm(request.sender, request.procedure_ref, request.client->conn_ref,
                                  &counters);
}
