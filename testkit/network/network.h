/* SPDX-License-Identifier: Apache-2.0 */
/* Network interfaces for tests, in a network namespace of the process's own. A function that fails
   throws a std::system_error. */
#pragma once

#include "platform/linux_interfaces/netlink.h"
#include "util/descriptor.h"

#include <cstdint>
#include <string>

namespace testkit
{

/* Puts the process, which has one thread, into a user and a network namespace of its own, where it
   has all rights over the network. False if the system doesn't permit that. */
bool enter_own_network();

class network
{
  public:
    network();
    ~network();
    network(const network &) = delete;
    network &operator=(const network &) = delete;

    /* A pair of interfaces; one has a carrier while the other is started. Both are stopped. */
    void add_pair(const std::string &name, const std::string &peer);
    void remove(const std::string &name);
    void start(const std::string &name, bool started = true);
    /* Older kernels rename stopped interfaces only. */
    void rename(const std::string &name, const std::string &new_name);
    /* To another namespace, which is there as long as this object. */
    void move(const std::string &name);
    int32_t index_of(const std::string &name);

  private:
    int socket_;
    netlink::connection route_;
    util::descriptor elsewhere_;
};

/* An interface whose carrier is set by hand. Throws EACCES or ENOENT where /dev/net/tun can't be
   used. It is gone with the object. */
class tap
{
  public:
    explicit tap(const std::string &name);
    ~tap();
    tap(const tap &) = delete;
    tap &operator=(const tap &) = delete;

    void set_carrier(bool carrier);

  private:
    int fd_;
};

} // namespace testkit
