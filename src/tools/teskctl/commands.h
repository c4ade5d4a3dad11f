/* SPDX-License-Identifier: Apache-2.0 */
/* commands - one function for each command. Each returns the exit code, or throws a tool_error if
   the command fails as a whole. Ports that fail are reported and determine the exit code. One
   thread. */
#pragma once

#include "program/exit_code.h"
#include "tools/teskctl/port_selection.h"
#include "tools/teskctl/settings.h"

#include <cstdint>
#include <string>

exit_code run_capabilities(const settings &common);
exit_code run_pm(const settings &common, const ports_text &ports);
/* Both commands subscribe and take the first indication; the subscriptions end with the
   connection. */
exit_code run_sfp(const settings &common, const ports_text &ports);
exit_code run_status(const settings &common, const ports_text &ports);

struct ports_options {
    ports_text ports = {"all"};
    bool has_status = false;   /* also subscribes to the port status */
    bool numbers_only = false; /* this and the next member are for shell completion */
    bool names_only = false;
};
exit_code run_ports(const settings &common, const ports_options &options);

struct module_options {
    ports_text ports;
    bool is_watching = false; /* shows a port again whenever its record has changed */
    double seconds = 0;       /* duration of watching; 0: no limit */
};
/* Needs the details that the board publishes, and no answer of the server. */
exit_code run_module(const settings &common, const module_options &options);

/* `kind` is "status", "sfp", "actions", or "" for all of them, sorted by time. */
exit_code run_history(const settings &common, const std::string &kind);

struct ping_options {
    uint64_t count = 0;  /* 0: no limit */
    double interval = 1; /* seconds */
};
/* exit_code::no_answer if no request was answered. */
exit_code run_ping(const settings &common, const ping_options &options);

struct watch_options {
    ports_text sfp;
    ports_text status;
    double seconds = 0;    /* 0: no limit */
    uint64_t count = 0;    /* number of indications to show; 0: no limit */
    bool has_falls = true; /* also shows the cause of a fall, 2 s later */
};
/* Usually a process signal ends it: the result is exit_code::done then. */
exit_code run_watch(const settings &common, const watch_options &options);

struct top_options {
    ports_text ports;
    double interval = 2; /* seconds between two reads of the measured values */
    double seconds = 0;  /* 0: no limit */
};
exit_code run_top(const settings &common, const top_options &options);

/* The commands below request the history of tesk-exporter. exit_code::no_server if it doesn't
   answer, exit_code::rejected if it keeps no history. */
struct exporter_options {
    std::string address = "127.0.0.1:9816"; /* or unix:PATH; may begin with http:// */
};
exit_code run_modules(const settings &common, const exporter_options &options);
exit_code run_forecast(const settings &common, const exporter_options &options);

struct trend_options {
    exporter_options exporter;
    std::string port; /* number or name */
    double days = 14;
    bool csv = false;
};
exit_code run_trend(const settings &common, const trend_options &options);

struct why_options {
    ports_text ports;      /* empty: all */
    std::string facts;     /* a file, or "-"; empty: the falls that the board recorded */
    std::string facts_out; /* the file to write the facts to; empty: none */
    std::string other_end; /* the file with the facts of the other end; empty: none */
    uint64_t last = 0;     /* show only the newest falls; 0: all */
};
/* Needs no server. exit_code::rejected if the file has no facts, exit_code::no_server if nothing is
   recorded. */
exit_code run_why(const settings &common, const why_options &options);

/* `prometheus` is the ADDRESS:PORT of a Prometheus that reads the exporter. exit_code::no_server if
   the server can't be reached, exit_code::rejected if anything else is wrong. */
exit_code run_doctor(const settings &common, const std::string &prometheus);
