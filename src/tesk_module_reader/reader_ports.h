/* SPDX-License-Identifier: Apache-2.0 */
/* reader_ports - the module of each port number, and how it is read. The constructor opens
   everything that is needed; later no file is opened. The reader has one thread. */
#pragma once

#include "platform/linux_interfaces/interfaces.h"
#include "platform/linux_interfaces/netlink.h"
#include "platform/linux_interfaces/port_config.h"
#include "platform/linux_interfaces/reader_protocol.h"
#include "tesk_module_reader/known_interfaces.h"
#include "tesk_module_reader/module_memory_access.h"
#include "util/descriptor.h"

#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace module_reader
{

class reader_ports
{
  public:
    /* Without a configuration the ports are the interfaces whose module can be read, in the order
       of their places; without the right to read, those on a device. They keep the numbers that are
       stored in the directory `saved`; with `is_saving` new ones are added there. A port keeps the
       interface that an earlier reader had for it. `known` outlives the object. Throws a
       std::system_error. */
    reader_ports(const std::optional<linux_board::port_config> &config, known_interfaces &known,
                 const std::string &saved, bool is_saving);
    reader_ports(const reader_ports &) = delete;
    reader_ports &operator=(const reader_ports &) = delete;

    /* Makes one reading, or returns the checksum of the configuration, by the rules of the
       protocol. */
    reader_answer read(const reader_request &request);

    /* The text of a configuration with the present ports; empty if there are none. */
    std::string as_configuration();

  private:
    struct port {
        linux_board::configured_port config;
        int32_t index = 0; /* index of the interface that was first found */
        int32_t lost = 0;  /* index of the last interface, which may return from a namespace */
        util::descriptor bus = {};
        int bus_error = 0; /* errno if the bus couldn't be opened */
    };

    void find_default_ports(const std::string &saved, bool is_saving);
    bool add_new_ports(std::vector<linux_board::configured_port> &ports,
                       const std::vector<linux_board::link_report> &all);
    int read_module(int32_t index, const reader_request &request, std::span<uint8_t> out);
    bool is_taken(int32_t index) const;
    bool take_interface(port &wanted, const std::vector<linux_board::link_report> &all);
    bool find_interface(port &wanted);
    int read_interface(port &wanted, const reader_request &request, reader_answer &answer);

    known_interfaces &known_;
    const uint64_t checksum_;
    interface_modules modules_;
    netlink::connection route_;
    std::map<uint32_t, port> ports_;
};

} // namespace module_reader
