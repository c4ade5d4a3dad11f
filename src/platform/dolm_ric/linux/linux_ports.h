/* SPDX-License-Identifier: Apache-2.0 */
/* linux_ports - the network interfaces of this machine as ports.

   Reads are answered from a copy, which two threads update: one follows the links, one polls the
   modules. The copy is guarded by the core's lock. */
#pragma once

#include "platform/dolm_ric/fall_recorder.h"
#include "platform/dolm_ric/linux/config_watch.h"
#include "platform/dolm_ric/linux/decode/module_contents.h"
#include "platform/dolm_ric/linux/decode/module_decode.h"
#include "platform/dolm_ric/linux/fall_looks.h"
#include "platform/dolm_ric/linux/link_follower.h"
#include "platform/dolm_ric/linux/module_follower.h"
#include "platform/dolm_ric/linux/module_poller.h"
#include "platform/dolm_ric/port_details.h"
#include "platform/dolm_ric/port_source.h"
#include "platform/linux_interfaces/port_config.h"

#include <chrono>
#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace linux_board
{

class linux_ports final : public board::port_source, follower_listener, module_listener
{
  public:
    /* Older measured values aren't returned. Polling renews them every 4 s; they get older only if
       the reader or the module doesn't answer. */
    static constexpr std::chrono::seconds longest_age{15};

    /* `reader` is the `where` of reader_client. Throws a std::system_error. */
    linux_ports(board::port_events &events, std::string reader);

    /* Sets the ports of a configuration; called before start(), and on the thread that follows the
       links when the file was replaced. A number keeps the interface that it has or had: if its
       line names another interface, or there is no line, the port has neither link nor module. */
    void set(const port_config &config);
    /* Sets the ports of a machine without a configuration; called before start(). The ports are the
       interfaces that the reader has, or without a reader all interfaces on a device. An interface
       that appears later is not made a port, since a restarted reader could give it another number;
       a line on stderr says so. Throws a std::system_error. */
    void add_default_ports();

    void start() override;
    void stop() noexcept override;
    void refresh(uint32_t port) override;
    bool has_port(uint32_t port) const override;
    int32_t read(uint32_t port, dolm_ric_port_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_link_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_info &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_status &out) const override;
    int32_t read(uint32_t port, dolm_ric_module_diag &out) const override;

  private:
    using time_point = std::chrono::steady_clock::time_point;

    struct port_copy {
        configured_port config = {};
        bool is_out = false;     /* taken out of the configuration */
        int32_t interface = 0;   /* index of the interface, or 0 */
        std::string name;        /* of the interface; the configured name while the port has none */
        std::string port_name;   /* the kernel's name of the part of the cage */
        std::string device = {}; /* device, on its bus, of the present or last interface */
        link_values link;
        module_presence presence = module_presence::absent;
        module_contents contents = {};
        std::vector<const char *> reported_doubts = {}; /* used by the thread that reads modules */
        time_point read_at = {};
        int last_error = 0; /* errno of the module's last reading */

        port_view view() const;
    };

    void set_port(const configured_port &port);
    void take_out(uint32_t number);
    void set_module(port_copy &port);
    void describe_without_module(const port_copy &port);
    std::map<uint32_t, link_report> default_ports(std::vector<link_report> all);
    std::map<uint32_t, link_report> ports_at_reader(const std::vector<link_report> &all,
                                                    int &error);
    void look_at_config();
    void look_at_fall(uint32_t number, const board::fall_recorder::up_time &its,
                      causes::facts &seen);
    void look_again(uint32_t number, int64_t since, causes::facts &seen);
    std::vector<int32_t> interfaces_up();
    void report_ports();

    void link_reported(uint32_t number, const link_report &now, uint32_t falls, uint32_t rises,
                       report_origin from) override;
    void interface_leaves(uint32_t number, board::departure how) override;
    void speed_reported(uint32_t number, const link_speed &now) override;
    void fec_reported(uint32_t number, uint32_t fec) override;
    void link_changed(uint32_t number, const link_values &now) override;
    void link_known(uint32_t number, const link_values &now) override;
    void interface_changed(uint32_t number, const link_report *now) override;
    void interface_left_out(const link_report &report) override;
    void reports_taken() override;
    void module_leased(uint32_t number, time_point until) override;
    void module_cost(uint32_t number, const reading_cost &cost) override;
    void reading_doubted(uint32_t number, const module_memory &memory,
                         const module_contents &contents) override;
    void reading_dropped(uint32_t number) override;
    void module_sampled(uint32_t number, const module_memory &memory,
                        const module_contents &contents) override;
    void module_read(uint32_t number, const module_contents &contents, time_point at) override;
    void module_doubted(uint32_t number, const std::vector<const char *> &reasons) override;
    void module_presence_changed(uint32_t number, module_presence now) override;
    void module_access_changed(int error) override;

    board::port_events &events_;
    const std::string reader_;
    fall_looks fall_looks_; /* used by the recorder's thread */
    board::fall_recorder falls_;
    board::port_details details_; /* its own lock may be taken while the core's lock is held */
    std::map<uint32_t, port_copy> ports_;
    bool is_map_old_ = true; /* like the next members, used by the thread that follows links */
    bool has_default_ports_ = false;
    std::set<int32_t> seen_at_start_;
    config_watch watch_;
    std::set<std::string> left_out_; /* names of interfaces that were reported as left out */
    mutable module_follower modules_;
    link_follower links_; /* last, so destroyed first: it uses the other members */
};

} // namespace linux_board
