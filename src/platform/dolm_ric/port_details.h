/* SPDX-License-Identifier: Apache-2.0 */
/* port_details - publishes the details of the ports: the file of dolm_ric_details.h. Both board
   libraries have one.

   It is written with pwrite, not through a mapping: a file that was cut short, or a full file
   system, then gives an errno in place of a SIGBUS that would end the server. No thread that serves
   clients publishes. A board whose file can't be written works on; one line on stderr says why. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "util/descriptor.h"

#include <cstdint>
#include <cstdlib>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>

namespace board
{

/* The value of DOLM_RIC_DETAILS; else "details" in the folder of `port_map`. */
std::string details_path(const std::string &port_map);

/* Now, as in the record. */
int64_t details_time();

class port_details
{
  public:
    port_details() = default;
    port_details(const port_details &) = delete;
    port_details &operator=(const port_details &) = delete;
    ~port_details()
    {
        stop();
    }

    /* From now on the records are in a new file at `path`, those that were made before, too. */
    void start(const std::string &path);
    /* Marks the file as ended and removes it. */
    void stop() noexcept;

    /* Runs `edit` on the port's record, a new one for a new port, and publishes it. Any thread;
       `edit` must not call this object. A record for which there is no memory is left out. */
    template <typename edit_type>
    void update(uint32_t port, edit_type &&edit)
    {
        const std::lock_guard guard(lock_);
        if (dolm_ric_details_record *record = find_or_make(port)) {
            edit(*record);
            publish(*record);
        }
    }

  private:
    struct free_memory {
        void operator()(void *memory) const
        {
            free(memory);
        }
    };
    using record_pointer = std::unique_ptr<dolm_ric_details_record, free_memory>;

    dolm_ric_details_record *find_or_make(uint32_t port);
    void publish(dolm_ric_details_record &record);
    bool write_record(dolm_ric_details_record &record);
    bool write_count(uint32_t port);
    bool is_in_place() const;
    bool make_file();
    void write_all();
    void check_file();
    void report_failure();

    std::mutex lock_;
    std::map<uint32_t, record_pointer> records_;
    std::set<uint32_t> unwritten_; /* whose last publication failed */
    std::string path_;             /* empty before start() and after stop() */
    util::descriptor file_;
    dolm_ric_details_header header_ = {};
    int64_t checked_at_ = 0;
    bool has_failed_ = false;
};

} // namespace board
