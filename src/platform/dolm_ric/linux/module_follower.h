/* SPDX-License-Identifier: Apache-2.0 */
/* module_follower - the thread that runs the poller of the modules. Between two readings it carries
   out the orders of other threads. */
#pragma once

#include "platform/dolm_ric/linux/module_files.h"
#include "platform/dolm_ric/linux/module_poller.h"
#include "platform/dolm_ric/linux/reader_client.h"
#include "platform/dolm_ric/linux/worker.h"
#include "platform/linux_interfaces/module_leases.h"
#include "platform/linux_interfaces/netlink.h"

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <map>
#include <mutex>
#include <optional>
#include <set>
#include <string>

namespace linux_board
{

class module_follower final : module_access
{
  public:
    /* `reader` is the `where` of reader_client. The listener is called on the follower's thread.
       Throws a std::system_error. */
    module_follower(module_listener &listener, std::string reader);
    ~module_follower() override;

    /* Adds a port whose module is to be polled, by the reader or, if `file` isn't empty, from that
       file. If the port exists already, its module is read in the new way from now on. */
    void add(uint32_t port, const std::string &file);
    /* Sets the checksum of the configuration that the reader must have, see
       reader_client::expect(). It applies to all later readings; call it before the other
       changes. */
    void expect(uint64_t configuration);
    void set_interface(uint32_t port, int32_t index);
    void link_changed(uint32_t port);
    void diagnostics_wanted(uint32_t port);
    /* These call the functions of module_poller with the same names. */
    void look_now(uint32_t port);
    void trust_sums(uint32_t port, bool trusted);
    void expect_logging(uint32_t port, bool logs_failures);

    /* Starts the thread and waits until each module has been looked at, for at most `patience`.
       Throws a std::system_error. */
    void start(std::chrono::milliseconds patience);

    /* Ends the thread, also during a long reading. */
    void stop();

    /* The index of the interface that the reader has under this number, or 0; call it before
       start(). `error` becomes the errno of the reading, ENOENT for a number behind the last
       one. */
    int32_t interface_at_reader(uint32_t port, int &error);

  private:
    /* The orders of other threads that are not yet carried out: at most one of a kind for each
       port, even if it was given repeatedly. */
    struct order_book {
        std::optional<uint64_t> configuration = {};
        std::map<uint32_t, std::string> added; /* ports with their module's file, if it has one */
        std::map<uint32_t, int32_t> interfaces;
        std::set<uint32_t> links_changed;
        std::set<uint32_t> diagnostics_wanted;
        std::set<uint32_t> looks_wanted;
        std::map<uint32_t, bool> trusting;
        std::map<uint32_t, bool> logging;
    };

    /* How the memory of a port's module is read. */
    enum class way : uint8_t { not_now, in_file, by_reader };

    void read(std::span<piece> pieces) override;
    way way_of(uint32_t port) const;
    void set_lease(uint32_t port, int32_t index);
    void look_at_leases();
    void run();
    void carry_out_orders();
    void await_work();
    bool take_hints();

    module_listener &listener_;
    worker thread_;
    module_files files_;
    module_leases leases_;
    std::map<uint32_t, int32_t> interfaces_;               /* ports by index of their interface */
    std::map<uint32_t, module_poller::time_point> leased_; /* ports, with the end of the lease */
    reader_client reader_;
    module_poller poller_;
    std::optional<netlink::connection> hints_;

    std::mutex lock_;
    std::condition_variable looked_;
    bool has_looked_ = false;
    order_book orders_;
};

} // namespace linux_board
