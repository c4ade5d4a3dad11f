/* SPDX-License-Identifier: Apache-2.0 */
/* module_speed - speeds of links and modules and their codes. All speeds are in 0.1 Gb/s, 0 if
   unknown. The numbers of the tables are codes of the SNIA's list, SFF-8024. No state: any
   thread. */
#pragma once

#include <cstdint>

namespace linux_board
{

/* The codes of dolm_ric_link_status.speed and of dolm_sfp_info.sfp_eth_speed. */
uint32_t link_speed_code(uint32_t tenth_gbps);
uint32_t module_speed_code(uint32_t tenth_gbps);

/* The kernel gives Mb/s, with 0xffffffff for an unknown speed. */
uint32_t tenth_gbps_of(uint32_t megabits);

/* The speed of one lane, by its nominal signalling rate. PAM4 carries two bits in each symbol. */
uint32_t speed_of_rate(uint32_t megabaud, bool is_pam4);

enum class medium : uint8_t { unknown, light, copper };

/* The meaning of an extended compliance code: the speed of an SFP module and of a QSFP module with
   this code, and the medium. Unknown codes have no speed and no medium. */
struct compliance_meaning {
    uint16_t sfp_speed;
    uint16_t qsfp_speed;
    medium carrier;
};
compliance_meaning meaning_of_compliance(uint8_t extended_code);

/* The speed of a CMIS application, by the code of its host interface. */
uint32_t speed_of_host_interface(uint8_t code);

} // namespace linux_board
