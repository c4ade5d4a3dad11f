/* SPDX-License-Identifier: Apache-2.0 */
/* reader_client - reads modules through tesk-module-reader. One thread. */
#pragma once

#include "platform/dolm_ric/linux/module_access.h"
#include "platform/linux_interfaces/port_config.h"
#include "util/descriptor.h"

#include <chrono>
#include <cstdint>
#include <span>
#include <string>

namespace linux_board
{

class reader_client final : public module_access
{
  public:
    /* A reading on a slow bus takes a few milliseconds; a driver's own timeout is a second or
       two. */
    static constexpr std::chrono::seconds patience{10};

    /* `where` is the path of the reader's socket, or "fd:N" for an inherited, connected socket.
       Readings end at once when `stop_fd` becomes readable. The constructor doesn't connect. */
    reader_client(std::string where, int stop_fd);
    ~reader_client();
    reader_client(const reader_client &) = delete;
    reader_client &operator=(const reader_client &) = delete;

    /* Sets the checksum of the configuration that the reader must have; call it before start or on
       the thread of read(). A reader with another checksum is asked to end, so that the next one
       reads the file again; until the checksums agree, readings fail with ESTALE. If that lasts, a
       line on stderr says so. */
    void expect(uint64_t configuration);

    /* Connects if necessary. After a failure the next try is made a second later; if readers accept
       and end without an answer, the pause grows to 32 s, since each try starts a process. ENOTCONN
       if there is no reader, EACCES if it may not be used, ETIMEDOUT if it doesn't answer. */
    void read(std::span<piece> pieces) override;

  private:
    int connect_reader();
    int connect_now();
    int talk(std::span<const reader_request> requests, std::span<reader_answer> answers);
    int ask_itself(reader_question question, uint64_t &checksum);
    int agree();
    int exchange(std::span<piece> pieces);
    void disconnect();

    std::string where_;
    int stop_fd_;
    util::descriptor connection_;
    int connect_error_ = 0;
    int lost_ = 0; /* connections lost since the last answer */
    uint64_t expected_ = no_port_config;
    bool is_agreed_ = false; /* the connected reader has the right configuration */
    int strangers_ = 0;      /* readers with another configuration since one had the right one */
    std::chrono::steady_clock::time_point quiet_until_ = {};
    std::chrono::steady_clock::time_point connect_from_ = {};
};

} // namespace linux_board
