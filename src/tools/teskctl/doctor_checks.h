/* SPDX-License-Identifier: Apache-2.0 */
/* doctor_checks - the parts of "teskctl doctor", each of which looks at one stretch of the way from
   a module to the user or to Prometheus. They change nothing and need neither systemd nor
   privileges. A remedy is given only for a cause that was found, and is safe to follow: it ends no
   process that it doesn't know, and adds nobody to another group than the server's. One thread. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tools/teskctl/settings.h"

#include <map>
#include <string>
#include <vector>

namespace doctor
{

enum class verdict : uint8_t { ok, note, wrong };

struct finding {
    std::string topic;
    verdict state;
    std::string text;
    std::string remedy; /* a command or an instruction; empty unless wrong */
};
using findings = std::vector<finding>;

/* The properties of the units as "systemctl show" has them, by unit and key. */
using unit_table = std::map<std::string, std::map<std::string, std::string>>;

inline constexpr char server_unit[] = "tesk-server.service";
inline constexpr char reader_socket_unit[] = "tesk-module-reader.socket";
inline constexpr char reader_unit[] = "tesk-module-reader.service";
inline constexpr char exporter_unit[] = "tesk-exporter.service";

/* True if the server's unit is installed and its mailbox is in the directory that teskctl uses. */
bool has_unit(const unit_table &units);

/* Empty where systemd doesn't run. */
unit_table read_units();
/* Empty for a unit or a key that isn't there. */
std::string property(const unit_table &units, const std::string &unit, const std::string &key);

/* The output of a command of the shell, of standard output unless it says otherwise; empty if it
   can't be run or takes longer than 5 s. */
std::string output_of(const std::string &command);
std::vector<std::string> lines_of(const std::string &text);

finding check_directory(const unit_table &units);
finding check_socket(const unit_table &units);
/* On success `session` must be closed by the caller; null otherwise. */
finding check_server(const settings &common, const unit_table &units,
                     tesk_client_session **session);
/* The fault of a unit that should run; verdict::ok if it runs. */
finding check_unit(const unit_table &units, const std::string &unit, const char *topic);
/* The server's unit, and the reader's where it is installed. `is_up`: the server answers. */
findings check_units(const unit_table &units, bool is_up);
/* The configuration of ports and interfaces, by the reader's own check of it. */
findings check_configuration(const unit_table &units);
/* The port map, and the ports that the server has; `session` may be null. */
findings check_ports(tesk_client_session *session);
/* The exporter's unit, its address, and what Prometheus at `prometheus` (ADDRESS:PORT) has read. */
findings check_exporter(const unit_table &units, const std::string &prometheus);

} // namespace doctor
