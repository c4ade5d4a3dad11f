/* SPDX-License-Identifier: Apache-2.0 */
/* tesk_client_decode - from received signals to the public records. A signal is bytes from outside:
   each function checks that it is as long as what it reads, and gives nothing where it isn't. No
   state. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tesk_server/tesk_signals.h"

#include <cstring>
#include <mbx.h>
#include <optional>
#include <string>
#include <vector>

/* The record at the start of a signal as it stands there, whatever follows behind it. */
template <typename record_type>
std::optional<record_type> copy_of(const mbx_signal *signal)
{
    if (mbx_size(signal) < sizeof(record_type))
        return std::nullopt;
    record_type record;
    std::memcpy(&record, signal, sizeof(record));
    return record;
}

/* The same in host order. */
template <typename record_type>
std::optional<record_type> host_copy_of(const mbx_signal *signal)
{
    std::optional<record_type> record = copy_of<record_type>(signal);
    if (record)
        tesk_swap_byte_order(*record);
    return record;
}

/* What a confirmation carries, for as long as the callback needs it. */
struct answer_payload {
    std::optional<tesk_client_pm> pm;
    std::vector<tesk_client_capability> capabilities;
    std::vector<tesk_client_history_record> history;
};

std::optional<tesk_client_sfp_info> decode_sfp_info(const mbx_signal *signal);
std::optional<tesk_client_port_status> decode_port_status(const mbx_signal *signal);

/* The payload of a confirmation, empty where it has none; nothing if the signal is too short. */
std::optional<answer_payload> decode_confirmation(const mbx_signal *signal);

/* The text of a rejection, ended at the field's width. */
std::string decode_error_text(const char (&field)[TESK_ERROR_DESCRIPTION_SIZE]);
