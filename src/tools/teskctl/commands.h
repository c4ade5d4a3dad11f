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
/* Both subscribe and take the first indication; the subscriptions end with the connection. */
exit_code run_sfp(const settings &common, const ports_text &ports);
exit_code run_status(const settings &common, const ports_text &ports);

struct ports_options {
    ports_text ports = {"all"};
    bool has_status = false;   /* subscribes to the port status, too */
    bool numbers_only = false; /* both for the completion */
    bool names_only = false;
};
exit_code run_ports(const settings &common, const ports_options &options);

struct module_options {
    ports_text ports;
    bool is_watching = false; /* shows a port again when its record has changed */
    double seconds = 0;       /* while watching; 0: no limit */
};
/* Needs the details that the board publishes, and no server's answer. */
exit_code run_module(const settings &common, const module_options &options);

/* `kind` is "status", "sfp", "actions", or "" for all of them by time. */
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
    uint64_t count = 0;    /* of indications; 0: no limit */
    bool has_falls = true; /* shows the causes of falls, 2 s after them */
};
/* A process signal is the usual end, so that it gives exit_code::done. */
exit_code run_watch(const settings &common, const watch_options &options);

struct top_options {
    ports_text ports;
    double interval = 2; /* seconds between two reads of the measured values */
    double seconds = 0;  /* 0: no limit */
};
exit_code run_top(const settings &common, const top_options &options);

/* The commands below ask tesk-exporter for its history. exit_code::no_server where it doesn't
   answer, exit_code::rejected where it keeps none. */
struct exporter_options {
    std::string address = "127.0.0.1:9816"; /* or unix:PATH, or with http:// before it */
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
    std::string facts;     /* a file, or "-"; empty: what the board recorded */
    std::string facts_out; /* a file for the facts; empty: none */
    std::string other_end; /* of the same fall; empty: none */
    uint64_t last = 0;     /* falls, the newest; 0: all */
};
/* Needs no server. exit_code::rejected for a file that has no facts, exit_code::no_server where
   nothing is recorded. */
exit_code run_why(const settings &common, const why_options &options);

/* `prometheus` is the ADDRESS:PORT of one that reads the exporter.
   exit_code::no_server if the server can't be reached, exit_code::rejected if anything else is
   wrong. */
exit_code run_doctor(const settings &common, const std::string &prometheus);
