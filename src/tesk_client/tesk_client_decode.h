/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_decode - converts received signals to the public records. Signals are untrusted: each
   function checks the length first and returns nothing if the signal is too short. No state. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tesk_server/tesk_signals.h"

#include <cstring>
#include <mbx.h>
#include <optional>
#include <string>
#include <vector>

/* The record at the start of a signal, unconverted; the signal may be longer. */
template <typename record_type>
std::optional<record_type> copy_of(const mbx_signal *signal)
{
    if (mbx_size(signal) < sizeof(record_type))
        return std::nullopt;
    record_type record;
    std::memcpy(&record, signal, sizeof(record));
    return record;
}

/* A copy of the record, in host byte order; nothing if the signal is too short. */
template <typename record_type>
std::optional<record_type> host_copy_of(const mbx_signal *signal)
{
    std::optional<record_type> record = copy_of<record_type>(signal);
    if (record)
        tesk_swap_byte_order(*record);
    return record;
}

/* The payload of a confirmation; lives until the callback returns. */
struct answer_payload {
    std::optional<tesk_client_pm> pm;
    std::vector<tesk_client_capability> capabilities;
    std::vector<tesk_client_history_record> history;
};

std::optional<tesk_client_sfp_info> decode_sfp_info(const mbx_signal *signal);
std::optional<tesk_client_port_status> decode_port_status(const mbx_signal *signal);

/* The payload of a confirmation, which may be empty; nothing if the signal is too short. */
std::optional<answer_payload> decode_confirmation(const mbx_signal *signal);

/* The text of a rejection, at most as long as its field. */
std::string decode_error_text(const char (&field)[TESK_ERROR_DESCRIPTION_SIZE]);
