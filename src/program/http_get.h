/* SPDX-License-Identifier: Apache-2.0 */
/* http_get - one request by HTTP to a program of this machine or network. No state. */
#pragma once

#include <chrono>
#include <string>
#include <utility>

/* The address on which tesk-exporter listens without --listen. */
inline constexpr char exporter_address[] = "127.0.0.1:9816";

struct http_answer {
    int status = 0; /* 0: no answer; the text says why */
    std::string text;
};

/* Splits ADDRESS:PORT; the address has no brackets if it is IPv6, and the port is empty if it is
   missing. */
std::pair<std::string, std::string> split_address(const std::string &address);
/* `address` is ADDRESS:PORT, with a numeric address or localhost, or unix:PATH. An answer that
   isn't complete within `patience` counts as missing. */
http_answer http_get(const std::string &address, const std::string &path,
                     std::chrono::seconds patience = std::chrono::seconds(2));
