/* SPDX-License-Identifier: Apache-2.0 */
#include "testkit/network/network.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <linux/if_link.h>
#include <linux/if_tun.h>
#include <linux/rtnetlink.h>
#include <linux/veth.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <system_error>
#include <unistd.h>

namespace testkit
{

static void require(bool succeeded, const char *what, int error = errno)
{
    if (!succeeded)
        throw std::system_error(error, std::generic_category(), what);
}

bool enter_own_network()
{
    const uid_t user = getuid();
    const gid_t group = getgid();
    if (unshare(CLONE_NEWUSER | CLONE_NEWNET) != 0)
        return user == 0 &&
               unshare(CLONE_NEWNET) == 0; /* for root, if user namespaces are forbidden */
    std::ofstream("/proc/self/setgroups") << "deny";
    std::ofstream("/proc/self/uid_map") << "0 " << user << " 1";
    std::ofstream("/proc/self/gid_map") << "0 " << group << " 1";
    return getuid() == 0;
}

network::network() : socket_(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)), route_(NETLINK_ROUTE)
{
    require(socket_ >= 0, "socket");
}

network::~network()
{
    close(socket_);
}

static ifreq request_for(const std::string &name)
{
    ifreq request = {};
    name.copy(request.ifr_name, IFNAMSIZ - 1);
    return request;
}

void network::add_pair(const std::string &name, const std::string &peer)
{
    netlink::request question(RTM_NEWLINK, NLM_F_CREATE | NLM_F_EXCL | NLM_F_ACK, ifinfomsg{});
    question.put_text(IFLA_IFNAME, name);
    const size_t info = question.begin_nest(IFLA_LINKINFO);
    question.put_text(IFLA_INFO_KIND, "veth");
    const size_t data = question.begin_nest(IFLA_INFO_DATA);
    const size_t other = question.begin_nest(VETH_INFO_PEER);
    question.put_header(ifinfomsg{});
    question.put_text(IFLA_IFNAME, peer);
    question.end_nest(other);
    question.end_nest(data);
    question.end_nest(info);
    const int error = route_.ask(question, std::chrono::seconds(20), [](const auto &) {});
    require(error == 0, "veth", error);
}

void network::remove(const std::string &name)
{
    ifinfomsg which = {};
    which.ifi_index = index_of(name);
    netlink::request question(RTM_DELLINK, NLM_F_ACK, which);
    const int error = route_.ask(question, std::chrono::seconds(20), [](const auto &) {});
    require(error == 0, "RTM_DELLINK", error);
}

void network::start(const std::string &name, bool started)
{
    ifreq request = request_for(name);
    require(ioctl(socket_, SIOCGIFFLAGS, &request) == 0, "SIOCGIFFLAGS");
    request.ifr_flags =
        static_cast<short>(started ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    require(ioctl(socket_, SIOCSIFFLAGS, &request) == 0, "SIOCSIFFLAGS");
}

void network::rename(const std::string &name, const std::string &new_name)
{
    ifreq request = request_for(name);
    new_name.copy(request.ifr_newname, IFNAMSIZ - 1);
    require(ioctl(socket_, SIOCSIFNAME, &request) == 0, "SIOCSIFNAME");
}

void network::move(const std::string &name)
{
    constexpr const char *own = "/proc/self/ns/net";
    const util::descriptor here(open(own, O_RDONLY | O_CLOEXEC));
    require(here && unshare(CLONE_NEWNET) == 0, "another namespace");
    elsewhere_.reset(open(own, O_RDONLY | O_CLOEXEC));
    require(setns(here.get(), CLONE_NEWNET) == 0 && elsewhere_, "back from there");
    ifinfomsg which = {};
    which.ifi_index = index_of(name);
    netlink::request question(RTM_NEWLINK, NLM_F_ACK, which);
    question.put(IFLA_NET_NS_FD, elsewhere_.get());
    const int error = route_.ask(question, std::chrono::seconds(20), [](const auto &) {});
    require(error == 0, "IFLA_NET_NS_FD", error);
}

int32_t network::index_of(const std::string &name)
{
    return static_cast<int32_t>(if_nametoindex(name.c_str()));
}

tap::tap(const std::string &name) : fd_(open("/dev/net/tun", O_RDWR | O_CLOEXEC))
{
    require(fd_ >= 0, "/dev/net/tun");
    ifreq request = request_for(name);
    request.ifr_flags = IFF_TAP | IFF_NO_PI;
    require(ioctl(fd_, TUNSETIFF, &request) == 0, "TUNSETIFF");
}

tap::~tap()
{
    close(fd_);
}

void tap::set_carrier(bool carrier)
{
    int value = carrier;
    require(ioctl(fd_, TUNSETCARRIER, &value) == 0, "TUNSETCARRIER");
}

} // namespace testkit
