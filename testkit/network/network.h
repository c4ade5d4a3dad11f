/* SPDX-License-Identifier: Apache-2.0 */
/* Network interfaces for tests, in a network namespace of the process's own. A function throws a
   std::system_error if it fails. */
#pragma once

#include "platform/linux_interfaces/netlink.h"
#include "util/descriptor.h"

#include <cstdint>
#include <string>

namespace testkit
{

/* Moves the process, which must have one thread, into a user and a network namespace of its own,
   where it has all rights over the network. False if the system doesn't permit that. */
bool enter_own_network();

class network
{
  public:
    network();
    ~network();
    network(const network &) = delete;
    network &operator=(const network &) = delete;

    /* Adds a pair of interfaces; each has a carrier while the other one is up. Both are down at
       first. */
    void add_pair(const std::string &name, const std::string &peer);
    void remove(const std::string &name);
    void start(const std::string &name, bool started = true);
    /* Older kernels rename an interface only while it is down. */
    void rename(const std::string &name, const std::string &new_name);
    /* Moves an interface to another namespace, which exists as long as this object. */
    void move(const std::string &name);
    int32_t index_of(const std::string &name);

  private:
    int socket_;
    netlink::connection route_;
    util::descriptor elsewhere_;
};

/* An interface whose carrier the test sets. Throws EACCES or ENOENT if /dev/net/tun can't be used.
   The destructor removes the interface. */
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
