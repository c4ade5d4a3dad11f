/* SPDX-License-Identifier: Apache-2.0 */
/* driver_logs - finds out which kernel drivers log each failed reading of a module. No state. */
#pragma once

#include <string>

namespace linux_board
{

/* Whether the driver of that device on the PCI bus logs each failed reading of a module; `devices`
   is the folder of all devices. False for other devices, and if the driver isn't known. Any
   thread. */
bool logs_failed_readings(const std::string &parent,
                          const std::string &devices = "/sys/bus/pci/devices");

} // namespace linux_board
