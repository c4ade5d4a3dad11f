/* SPDX-License-Identifier: Apache-2.0 */
/* code_names - the short names of the codes in the identity of modules: codes of SFF-8024, and bits
   of SFF-8472 and SFF-8636. A code that isn't listed is shown as its number, such as 0x7e. Pure
   functions. */
#pragma once

#include <cstdint>
#include <span>
#include <string>

namespace linux_board
{

std::string form_factor_name(uint8_t code);
std::string connector_name(uint8_t code);
/* The layouts SFF-8472 and SFF-8636 number the encodings differently. */
std::string sfp_encoding_name(uint8_t code);
std::string qsfp_encoding_name(uint8_t code);
std::string technology_name(uint8_t code);
std::string extended_compliance_name(uint8_t code);
std::string host_interface_name(uint8_t code);
/* Names a media code; the table depends on the kind of media, byte 85 of CMIS. */
std::string media_interface_name(uint8_t kind, uint8_t code);

/* A bit in a byte of the identity that stands for a standard. */
struct compliance_bit {
    uint8_t offset;
    uint8_t bit;
    const char *name;
};
std::span<const compliance_bit> sfp_compliance_bits();
std::span<const compliance_bit> qsfp_compliance_bits();

} // namespace linux_board
