/* SPDX-License-Identifier: Apache-2.0 */
/* report - writes what is heard, one line each and at once: words with the time before them, or
   objects with --json. */
#pragma once

#include "tesk_client/tesk_client.h"
#include "tools/common/exit_code.h"
#include "tools/common/json_records.h"
#include "tools/teskctl/settings.h"

class reporter
{
  public:
    explicit reporter(const settings &common) : common_(common)
    {
    }
    void heard(const tesk_client_sfp_info &info) const;
    void heard(const tesk_client_port_status &status) const;
    void heard(const tesk_client_pm &pm) const;
    void heard(const tesk_client_event &event) const;

    /* A request that failed: a line on standard error, and with --json an object before it. */
    void failed(const tesk_client_answer &answer) const;
    /* With --json the object for an error that ends the command. */
    void error_object(exit_code code, const std::string &text) const;

    /* A line as it is, and an object with the time as its first key. */
    void line(const std::string &text) const;
    void object(const json_object &object) const;

  private:
    void port_line(uint32_t port_no, const char *what, const std::string &text) const;

    const settings &common_;
};
