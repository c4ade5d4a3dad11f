/* SPDX-License-Identifier: Apache-2.0 */
/* port_details - publishes the details of the ports: the file of dolm_ric_details.h. Both board
   libraries have one.

   A thread of its own writes the file, so that no caller waits for a file system. It is written
   with pwrite, not through a mapping: a file that was cut short, or a full file system, then gives
   an errno in place of a SIGBUS that would end the server. If the file can't be written, or belongs
   to another running board, the board works without it: one line on stderr says why, and writing is
   tried again each second. */
#pragma once

#include "platform/dolm_ric/dolm_ric_details.h"
#include "util/descriptor.h"

#include <condition_variable>
#include <cstdint>
#include <cstdlib>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace board
{

/* The value of DOLM_RIC_DETAILS; else "details" in the folder of `port_map`. */
std::string details_path(const std::string &port_map);

/* The present time, in the unit of the record. */
int64_t details_time();

class port_details
{
  public:
    port_details();
    port_details(const port_details &) = delete;
    port_details &operator=(const port_details &) = delete;
    ~port_details()
    {
        stop();
    }

    /* Sets a function that is called with each record after its update, in order, on the thread
       that updates. Call this before any update. */
    void watch(std::function<void(const dolm_ric_details_record &)> changed)
    {
        watch_ = std::move(changed);
    }

    /* Publishes all records, earlier ones too, in a new file at `path`. */
    void start(const std::string &path);
    /* Marks the file as ended and removes it. */
    void stop() noexcept;

    /* Runs `edit` on the port's record, a new one for a new port; the thread publishes it. Any
       thread; `edit` must not call this object. Beyond `most_records` a new port replaces one that
       was taken out of the configuration; if there is none, or no memory, the new port has no
       details. */
    template <typename edit_type>
    void update(uint32_t port, edit_type &&edit)
    {
        const std::lock_guard guard(lock_);
        if (slot *its = find_or_make(port)) {
            edit(*its->record);
            mark(port, *its);
            if (watch_)
                watch_(*its->record);
        }
    }

    /* Waits until all earlier updates are published, or have failed. */
    void flush();

    /* A record takes up to 24 KiB of memory, and as much in the file. */
    static constexpr size_t most_records = 1024;

  private:
    struct free_memory {
        void operator()(void *memory) const
        {
            free(memory);
        }
    };
    struct slot {
        std::unique_ptr<dolm_ric_details_record, free_memory> record;
        bool is_due = false; /* the port is in due_ or taken_ */
    };

    slot *find_or_make(uint32_t port);
    bool make_room(uint32_t port);
    void mark(uint32_t port, slot &its);
    void start_thread();
    /* Called by the thread, like the functions below. */
    void run();
    bool write_taken();
    bool write_port(uint32_t port);
    bool take(uint32_t port, bool was_due);
    bool write_record();
    bool erase_record(uint32_t port);
    bool write_count(uint32_t port);
    bool write_all();
    bool is_in_place() const;
    bool is_cut() const;
    bool is_whole() const;
    bool has_other_owner() const;
    bool make_file();
    bool check_file();
    void note_result(bool is_written);

    std::function<void(const dolm_ric_details_record &)> watch_;

    std::mutex lock_; /* guards these */
    std::condition_variable changed_, settled_;
    std::map<uint32_t, slot> slots_;
    std::vector<uint32_t> due_; /* ports to publish */
    bool is_writing_ = false;
    bool has_failed_ = false;
    bool is_stopping_ = false;
    bool has_left_out_ = false;

    std::thread thread_;
    std::vector<uint32_t> taken_; /* ports taken from due_; both vectors have room for all ports */
    std::string path_;
    util::descriptor file_;
    off_t size_ = 0; /* size of the file when last written */
    dolm_ric_details_header header_ = {};
    dolm_ric_details_record copy_ = {}; /* the record that is being written */
    int64_t checked_at_ = 0;
};

} // namespace board
