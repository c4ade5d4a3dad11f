/* SPDX-License-Identifier: Apache-2.0 */
/* driver_logs - which drivers of the kernel log each reading of a module that fails. */
#pragma once

#include <string>

namespace linux_board
{

/* Whether the driver of that device on the PCI bus logs each reading of a module that fails;
   `devices` is the folder of all devices. False for other devices, and where the driver isn't
   known. Any thread. */
bool logs_failed_readings(const std::string &parent,
                          const std::string &devices = "/sys/bus/pci/devices");

} // namespace linux_board
