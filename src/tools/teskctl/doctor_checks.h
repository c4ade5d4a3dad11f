/* SPDX-License-Identifier: Apache-2.0 */
/* doctor_checks - the parts of "teskctl doctor"; each checks one section of the path from a module
   to the user or to Prometheus. They change nothing and need neither systemd nor privileges. A
   remedy is given only for a cause that was found, and is safe: it ends no unknown process, and
   adds users to no group but the server's. One thread. */
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
    std::string remedy; /* a command or an instruction; empty unless the verdict is wrong */
};
using findings = std::vector<finding>;

/* The properties of the units from "systemctl show", by unit and key. */
using unit_table = std::map<std::string, std::map<std::string, std::string>>;

inline constexpr char server_unit[] = "tesk-server.service";
inline constexpr char reader_socket_unit[] = "tesk-module-reader.socket";
inline constexpr char reader_unit[] = "tesk-module-reader.service";
inline constexpr char exporter_unit[] = "tesk-exporter.service";

/* True if the server's unit is installed and its mailbox is in the directory that teskctl uses. */
bool has_unit(const unit_table &units);

/* Empty if systemd doesn't run. */
unit_table read_units();
/* Empty if there is no such unit or key. */
std::string property(const unit_table &units, const std::string &unit, const std::string &key);

/* The output that a shell command writes to standard output; empty if it can't be run or takes
   longer than 5 s. */
std::string output_of(const std::string &command);
std::vector<std::string> lines_of(const std::string &text);

finding check_directory(const unit_table &units);
finding check_socket(const unit_table &units);
/* On success the caller must close `session`; otherwise it is null. */
finding check_server(const settings &common, const unit_table &units,
                     tesk_client_session **session);
/* The fault of a unit that should be running; verdict::ok if it is running. */
finding check_unit(const unit_table &units, const std::string &unit, const char *topic);
/* Checks the server's unit, and the reader's if it is installed. `is_up`: the server answers. */
findings check_units(const unit_table &units, bool is_up);
/* Checks the configuration of the ports, by running the reader's own check. */
findings check_configuration(const unit_table &units);
/* Checks the port map, and the ports that the server has; `session` may be null. */
findings check_ports(tesk_client_session *session);
/* Checks the exporter's unit, its address, and what Prometheus at `prometheus` (ADDRESS:PORT) has
   read. */
findings check_exporter(const unit_table &units, const std::string &prometheus);

} // namespace doctor
