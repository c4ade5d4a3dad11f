/* SPDX-License-Identifier: Apache-2.0 */
/* The protocol has one error code for nearly all rejections, and one reason can have either code:
   only the text distinguishes them. The texts are part of the protocol, so this is the one place
   that compares them. */
#include "tesk_client/tesk_client_rejection.h"

#include "tesk_server/tesk_signals.h"

namespace
{

struct known_text {
    std::string_view text;
    tesk_client_rejection rejection;
};

} // namespace

static constexpr known_text known_texts[] = {
    {"invalid port", TESK_CLIENT_REJECTION_NO_PORT},
    {"no device (e.g. port ID is unknown)", TESK_CLIENT_REJECTION_NO_PORT},
    {"not available (e.g. SFP EEPROM is not available)", TESK_CLIENT_REJECTION_NO_MODULE},
    {"resource busy", TESK_CLIENT_REJECTION_BUSY},
    {"already subscribed", TESK_CLIENT_REJECTION_SUBSCRIBED},
    {"client is not subscribed", TESK_CLIENT_REJECTION_NOT_SUBSCRIBED},
};

tesk_client_rejection rejection_of(int32_t error_code, std::string_view text)
{
    if (error_code == TESK_ERROR_INVALID_PORT)
        return TESK_CLIENT_REJECTION_NO_PORT;
    for (const known_text &known : known_texts)
        if (known.text == text)
            return known.rejection;
    return TESK_CLIENT_REJECTION_OTHER;
}
