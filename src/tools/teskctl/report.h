/* SPDX-License-Identifier: Apache-2.0 */
/* report - the output of a running command, line by line: words for people, objects with --json.
   One thread. */
#pragma once

#include "program/exit_code.h"
#include "program/json_records.h"
#include "tesk_client/tesk_client.h"
#include "tools/teskctl/fall_watch.h"
#include "tools/teskctl/settings.h"

#include <map>
#include <set>
#include <string>

class reporter
{
  public:
    explicit reporter(const settings &common) : common_(common)
    {
    }

    /* Show received records and events; texts for people begin with the time. */
    void show(const tesk_client_sfp_info &info);
    void show(const tesk_client_port_status &status);
    void show(const tesk_client_pm &pm);
    void show(const tesk_client_event &event);
    void show(const watched_fall &fall);

    /* A failed request: with --json writes an object at once. write_failures() writes the lines for
       people, one for all ports with the same failure. */
    void failed(const tesk_client_answer &answer);
    void write_failures();
    /* The exit code of the worst failure. */
    exit_code code() const
    {
        return code_;
    }

    /* With --json, writes the object for an error that ends the command. */
    void error_object(exit_code code, const std::string &text) const;

    /* Writes the text as a line, or the object with the time as its first key. */
    void line(const std::string &text) const;
    void object(const json_object &object) const;

  private:
    void timed_line(const std::string &text);
    void port_line(uint32_t port_no, const char *what, const std::string &text);

    const settings &common_;
    exit_code code_ = exit_code::done;
    std::map<std::string, std::set<uint32_t>> failures_; /* failed ports by text of the failure */
    std::string day_;                                    /* of the last line */
};
