/* SPDX-License-Identifier: Apache-2.0 */
/* reader_client - the modules that tesk-module-reader reads. One thread. */
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
    /* A reading on a slow bus takes a few milliseconds, a driver's own time limit a second or two.
     */
    static constexpr std::chrono::seconds patience{10};

    /* `where` is the path of the reader's socket, or "fd:N" for a connected one that was inherited.
       Readings end at once when `stop_fd` becomes readable. Nothing is connected yet. */
    reader_client(std::string where, int stop_fd);
    ~reader_client();
    reader_client(const reader_client &) = delete;
    reader_client &operator=(const reader_client &) = delete;

    /* The checksum of the configuration that the reader must have; before start or on the thread of
       read(). A reader with another checksum is asked to end, so that the next one reads the file
       anew; until one has this, readings fail with ESTALE. A line on stderr says if that lasts. */
    void expect(uint64_t configuration);

    /* Connects if need be; after a failure not again for a second, and more and more seldom, at
       last each 32 s, where a reader is there and leaves without an answer: each try starts a
       process. ENOTCONN if there is no reader, EACCES if it may not be used, ETIMEDOUT if it
       doesn't answer.
     */
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
    int lost_ = 0; /* connections since the last answer */
    uint64_t expected_ = no_port_config;
    bool is_agreed_ = false; /* with the reader that is connected */
    int strangers_ = 0;      /* readers with another configuration since the last agreement */
    std::chrono::steady_clock::time_point quiet_until_ = {};
    std::chrono::steady_clock::time_point connect_from_ = {};
};

} // namespace linux_board
