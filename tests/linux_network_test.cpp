/* SPDX-License-Identifier: Apache-2.0 */
/* The Linux board on real network interfaces, in a network namespace of each test's own. Tests are
   skipped if the system permits no namespace, and tests of taps without /dev/net/tun. */
#include "platform/dolm_ric/dolm_ric.h"
#include "platform/dolm_ric/linux/link_follower.h"
#include "tesk_server/tesk_signals.h"
#include "testkit/network/network.h"
#include "testkit/processes/processes.h"
#include "testkit/texts.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <condition_variable>
#include <csignal>
#include <filesystem>
#include <gtest/gtest.h>
#include <iostream>
#include <linux/ethtool_netlink.h>
#include <linux/genetlink.h>
#include <linux/rtnetlink.h>
#include <mutex>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

using linux_board::link_report;
using linux_board::link_values;

static constexpr uint32_t stopped = DOLM_RICRILINKSTATE_STOPPED;
static constexpr uint32_t down = DOLM_RICRILINKSTATE_NOOPERATION;
static constexpr uint32_t up = DOLM_RICRILINKSTATE_OPERATIONAL;

namespace
{

/* Records what a follower reports about one port; events are letters as in "sdu". */
struct watcher final : linux_board::follower_listener {
    void link_changed(uint32_t, const link_values &now) override
    {
        const std::lock_guard guard(lock);
        values = now;
        events += "sdu"[now.state];
        changed.notify_all();
    }
    void link_known(uint32_t, const link_values &now) override
    {
        const std::lock_guard guard(lock);
        values = now;
        changed.notify_all();
    }
    void link_fell(uint32_t, uint32_t count) override
    {
        const std::lock_guard guard(lock);
        falls += count;
    }
    void interface_changed(uint32_t, const link_report *now) override
    {
        const std::lock_guard guard(lock);
        name = now == nullptr ? "" : now->name;
        changed.notify_all();
    }
    void reports_taken() override
    {
        std::unique_lock guard(lock);
        is_stopped = is_held;
        changed.notify_all();
        changed.wait(guard, [&] { return !is_held; });
    }
    /* Between hold(true) and hold(false) the follower's thread, once stopped, reads no notices. */
    void hold(bool held)
    {
        const std::lock_guard guard(lock);
        is_held = held;
        is_stopped = false;
        changed.notify_all();
    }
    void fec_reported(uint32_t, uint32_t) override
    {
        const std::lock_guard guard(lock);
        fec_reports++;
        changed.notify_all();
    }
    template <typename condition>
    void await(condition &&fulfilled)
    {
        std::unique_lock guard(lock);
        ASSERT_TRUE(changed.wait_until(guard, std::chrono::system_clock::now() + testkit::deadline,
                                       fulfilled))
            << "events " << events.substr(0, 200) << ", interface " << name;
    }
    void await_state(uint32_t state)
    {
        await([&] { return values.state == state; });
    }
    std::string take_events()
    {
        const std::lock_guard guard(lock);
        return std::exchange(events, {});
    }

    std::mutex lock;
    std::condition_variable changed;
    link_values values = {down, 0, 0};
    std::string events, name;
    uint64_t falls = 0;
    bool is_held = false, is_stopped = false;
    uint32_t fec_reports = 0;
};

struct linux_network_test : testing::Test {
    void SetUp() override
    {
        if (!testkit::enter_own_network())
            GTEST_SKIP() << "no namespaces of its own for this user";
        net = std::make_unique<testkit::network>();
    }
    /* Creates a pair whose first interface is port 1. */
    void follow(const std::string &name, int buffer = 1 << 20)
    {
        follower = std::make_unique<linux_board::link_follower>(seen, buffer);
        follower->add(1, [name](const link_report &report) { return report.name == name; });
        follower->start();
    }
    void add_started_pair()
    {
        net->add_pair("a0", "a1");
        net->start("a0");
        net->start("a1");
    }
    /* Creates a tap that is followed and up; nullptr if the user may not create taps. */
    std::unique_ptr<testkit::tap> follow_tap()
    {
        std::unique_ptr<testkit::tap> tap;
        try {
            tap = std::make_unique<testkit::tap>("t0");
        } catch (const std::system_error &error) {
            std::cerr << error.what() << '\n';
            return nullptr;
        }
        net->start("t0");
        follow("t0");
        seen.await_state(up);
        return tap;
    }

    std::unique_ptr<testkit::network> net;
    watcher seen;
    std::unique_ptr<linux_board::link_follower> follower;
};

} // namespace

/* Requests for FEC wait until this watcher has seen a rise, as with a slow driver. */
static std::atomic<watcher *> first_told{nullptr};

extern "C" ssize_t send(int fd, const void *data, size_t size, int flags)
{
    nlmsghdr head = {};
    genlmsghdr command = {};
    if (watcher *const told = first_told;
        told != nullptr && size >= NLMSG_HDRLEN + sizeof(command)) {
        memcpy(&head, data, sizeof(head));
        memcpy(&command, static_cast<const char *>(data) + NLMSG_HDRLEN, sizeof(command));
        if (head.nlmsg_type != RTM_GETLINK && command.cmd == ETHTOOL_MSG_FEC_GET)
            told->await_state(up);
    }
    return syscall(SYS_sendto, fd, data, size, flags, nullptr, 0);
}

TEST_F(linux_network_test, a_rise_is_told_before_its_fec_is_asked_for)
{
    net->add_pair("a0", "a1");
    net->start("a0");
    first_told = &seen;
    follow("a0");
    net->start("a1");
    seen.await([&] { return seen.fec_reports > 0; });
    first_told = nullptr;
    EXPECT_NE(0u, seen.values.speed);
    EXPECT_EQ("u", seen.take_events());
}

TEST_F(linux_network_test, every_flap_of_a_tap_is_counted_though_the_kernel_merges_them)
{
    const auto tap = follow_tap();
    if (!tap)
        GTEST_SKIP() << "no taps for this user";
    const uint64_t flaps = testkit::sanitized ? 20000 : 200000;
    seen.take_events();
    const auto begin = std::chrono::steady_clock::now();
    for (uint64_t flap = 0; flap < flaps; flap++) {
        tap->set_carrier(false);
        tap->set_carrier(true);
        if (flap % 100 == 0)
            follower->refresh(1); /* each refresh finds new falls */
    }
    tap->set_carrier(false);
    /* The state is also down in the middle of a batch. */
    seen.await([&] {
        return seen.falls == flaps + 1 && seen.values.state == down && seen.events.size() >= 9;
    });
    const auto took = std::chrono::steady_clock::now() - begin;
    EXPECT_LE(seen.take_events().size(), 20u + 2u * (took / linux_board::link_table::settle_time));
}

TEST_F(linux_network_test, no_flap_is_lost_when_the_socket_overruns)
{
    add_started_pair();
    follow("a0", 1); /* the smallest possible buffer */
    seen.await_state(up);
    constexpr uint64_t flaps = 100;
    const auto flap_while_held = [&] {
        seen.hold(true);
        for (uint64_t flap = 0; flap < flaps; flap++) {
            net->start("a1", false);
            net->start("a1");
            if (flap == 0)
                seen.await([&] { return seen.is_stopped; });
        }
    };
    flap_while_held();
    seen.hold(false);
    seen.await([&] { return seen.falls == flaps && seen.values.state == up; });
    EXPECT_GT(follower->losses(), 0u);
    /* The kernel may delay the report of the last rise, but not that of a removal. */
    flap_while_held();
    net->remove("a0");
    seen.hold(false);
    seen.await([&] { return seen.name.empty(); });
}

TEST_F(linux_network_test, a_port_follows_what_is_done_to_its_interface)
{
    net->add_pair("a0", "a1");
    net->start("a1");
    follow("a0");
    seen.await_state(stopped);
    net->start("a0");
    seen.await_state(up);
    net->start("a1", false);
    seen.await_state(down);
    net->start("a0", false);
    seen.await_state(stopped);
    net->rename("a0", "b0");
    seen.await([&] { return seen.name == "b0"; });
    net->add_pair("a0", "c1");
    net->start("c1");
    net->start("a0"); /* another interface, which isn't a port */
    net->start("b0");
    seen.await_state(down);
    net->start("a1");
    seen.await_state(up);
    net->remove("b0"); /* now the other interface can take the name */
    seen.await([&] { return seen.name.empty(); });
    net->start("a0", false);
    net->start("a0");
    seen.await([&] { return seen.name == "a0" && seen.values.state == up; });
}

TEST_F(linux_network_test, a_read_asks_the_kernel_afresh)
{
    const auto tap = follow_tap();
    if (!tap)
        GTEST_SKIP() << "no taps for this user";
    /* The kernel has just sent a message, and may delay the next one for up to a second. */
    tap->set_carrier(false);
    seen.await_state(down);
    tap->set_carrier(true);
    seen.await_state(up);
    const auto begin = std::chrono::steady_clock::now();
    tap->set_carrier(false);
    follower->refresh(1);
    seen.await_state(down);
    const auto taken = std::chrono::steady_clock::now() - begin;
    EXPECT_TRUE(testkit::sanitized || taken < std::chrono::milliseconds(500));
}

namespace
{

/* The executable as it ships, on the library of the Linux board. */
struct linux_server_test : linux_network_test {
    ~linux_server_test() override
    {
        if (server < 0)
            return;
        kill(server, SIGTERM);
        EXPECT_EQ(0, testkit::wait_for_end(server));
    }
    void start_server(const std::string &config)
    {
        std::ofstream(place.path + "/ports") << config;
        server = testkit::start({TESK_BIN_DIR "/tesk-server"},
                                {"LD_LIBRARY_PATH=" TESK_LIB_DIR "/linux",
                                 "DOLM_RIC_PORTS=" + place.path + "/ports",
                                 "DOLM_RIC_PORT_MAP=" + map, "DOLM_RIC_READER=/nobody"},
                                -1, journal);
        do {
            client = std::make_unique<testkit::test_client>();
        } while (client->located != 0); /* the mailbox doesn't exist yet */
        reference = client->connect(77);
    }
    void subscribe(uint32_t port)
    {
        ASSERT_EQ(TESK_SUBSCRIBE_PORT_STATUS_CFM,
                  client->ask(TESK_SUBSCRIBE_PORT_STATUS_REQ, {1, reference, port, 0}).number());
    }
    /* The next indication of a link, as CONN_STATUS@SPEED. */
    std::string next()
    {
        const testkit::message told = client->receive();
        return std::to_string(told.word(16)) + "@" + std::to_string(told.word(24));
    }
    const testkit::directory place;
    const std::string map = place.path + "/map", journal = place.path + "/journal";
    std::unique_ptr<testkit::test_client> client;
    uint32_t reference = 0;
    pid_t server = -1;
};

} // namespace

TEST_F(linux_server_test, a_replaced_configuration_adds_ports_and_moves_none)
{
    for (const char *pair : {"a", "b"}) {
        const std::string name = pair;
        net->add_pair(name + "0", name + "1");
        net->start(name + "0");
        net->start(name + "1");
    }
    start_server("0 a0\n");
    subscribe(0);
    EXPECT_EQ("2@100", next());
    size_t from = 0;
    const std::tuple<const char *, const char *, const char *> rows[] = {
        {"0 a0\nwrong\n1 b0\n", ": 2 ports by ", "0\ta0\n1\tb0\n"},
        {"1 a0\n0 b0\n2 b1\n", "port 1 was b0 and doesn't become a0", "2\tb1\n"},
        {"1 a0\n2 b0\n", "gives each number another interface", ""},
        {"# empty\n", " lists no port", ""},
        {"3 a0\n1 b0\n", ": 2 ports by ", "1\tb0\n3\ta0\n"}};
    testkit::await_line(journal, ": 1 port by ", from);
    for (const auto &[config, line, expected] : rows) {
        std::ofstream(place.path + "/new") << config;
        std::filesystem::rename(place.path + "/new", place.path + "/ports");
        testkit::await_line(journal, line, from);
        const auto end = std::chrono::steady_clock::now() + testkit::deadline;
        while (testkit::read_file(map) != std::string("# tesk-ports 1\n") + expected)
            ASSERT_LT(std::chrono::steady_clock::now(), end) << expected;
    }
    EXPECT_EQ("1@0", next()) << "port 0 has been taken out";
    subscribe(3);
    EXPECT_EQ("2@100", next());
}

/* Pairs of interfaces, both ends of which are ports: an action, and the causes that the two records
   may have. The kernel may need long between setting an interface down and its departure; "not
   known" is never wrong. */
TEST_F(linux_server_test, what_is_done_to_a_pair_is_the_cause_at_the_end_where_it_is_done)
{
    using deed = void (*)(testkit::network &, const std::string &here, const std::string &there);
    struct row {
        deed act;
        std::array<std::string, 2> causes;
    };
    const row set_down = {[](auto &at, auto &here, auto &) { at.start(here, false); },
                          {"set down", ""}};
    std::vector<row> rows = {
        set_down,
        {[](auto &at, auto &, auto &there) { at.start(there, false); }, {"", "set down"}},
        {[](auto &at, auto &here, auto &) { at.remove(here); },
         {"interface gone, set down", "interface gone, set down"}},
        {[](auto &at, auto &here, auto &) { at.move(here); }, {"interface moved, set down", ""}}};
    rows.resize(36, set_down); /* 64 ports at once */
    const auto name = [](size_t port) { return "v" + std::to_string(port); };
    std::string config, told;
    for (size_t port = 0; port < 2 * rows.size(); port++) {
        if (port % 2 == 0)
            net->add_pair(name(port), name(port + 1));
        net->start(name(port));
        config += std::to_string(port) + " " + name(port) + "\n";
    }
    start_server(config);
    for (uint32_t port = 0; port < 2 * rows.size(); port++) {
        subscribe(port);
        while (next() != "2@100")
            continue;
    }
    for (size_t i = 0; i < rows.size(); i++)
        rows[i].act(*net, name(2 * i), name(2 * i + 1));
    const std::string why = "DOLM_RIC_PORT_MAP=" + map + " " TESK_BIN_DIR "/teskctl why ";
    for (size_t port = 0; port < 2 * rows.size(); port++) {
        const auto end = std::chrono::steady_clock::now() + testkit::deadline;
        do {
            ASSERT_LT(std::chrono::steady_clock::now(), end) << port << ": " << told;
            testkit::run(why + std::to_string(port), told);
        } while (told.find(name(port) + " ") != 0);
        const size_t begin = told.find(": ") + 2;
        const std::string cause = told.substr(begin, told.find(',') - begin);
        EXPECT_NE((rows[port / 2].causes[port % 2] + ", not known").find(cause), std::string::npos)
            << told;
    }
    testkit::run(why + "1 --other-end " + place.path + "/falls/0", told);
    EXPECT_NE(told.find(": set down, likely, remote, administration"), std::string::npos) << told;
}

/* Each end of the pair is port 0 of a server of its own. */
TEST_F(linux_server_test, two_servers_are_two_ends_of_one_fall)
{
    net->add_pair("a0", "a1");
    net->start("a0");
    net->start("a1");
    start_server("0 a0\n");
    const std::string far = place.path + "/far";
    std::filesystem::create_directories(far + "/mbx");
    std::ofstream(far + "/ports") << "0 a1\n";
    const std::vector<std::string> settings = {
        "LD_LIBRARY_PATH=" TESK_LIB_DIR "/linux", "MBX_DIR=" + far + "/mbx",
        "DOLM_RIC_PORTS=" + far + "/ports", "DOLM_RIC_PORT_MAP=" + far + "/map",
        "DOLM_RIC_READER=/nobody"};
    const pid_t other =
        testkit::start({TESK_BIN_DIR "/tesk-server"}, settings, -1, far + "/journal");
    const std::string ours = "DOLM_RIC_PORT_MAP=" + map + " " TESK_BIN_DIR "/teskctl ",
                      theirs = "MBX_DIR=" + far + "/mbx DOLM_RIC_PORT_MAP=" + far +
                               "/map " TESK_BIN_DIR "/teskctl ";
    const auto await = [](const std::string &command, const std::string &text) {
        const auto end = std::chrono::steady_clock::now() + testkit::deadline;
        std::string told;
        do {
            testkit::run(command, told);
        } while (told.find(text) == std::string::npos && std::chrono::steady_clock::now() < end);
        return told;
    };
    await(ours + "--json status 0", R"("link":"operational")");
    await(theirs + "--json status 0", R"("link":"operational")");
    net->start("a0", false);
    EXPECT_NE(await(ours + "why 0", ": set down").find(": set down, likely"), std::string::npos);
    await(theirs + "why 0", ": not known");
    const std::string told =
        await(theirs + "why 0 --other-end " + place.path + "/falls/0", ", remote");
    EXPECT_NE(told.find(": set down, likely, remote, administration"), std::string::npos) << told;
    EXPECT_NE(told.find("At the other end: The interface was set down."), std::string::npos)
        << told;
    kill(other, SIGTERM);
    EXPECT_EQ(0, testkit::wait_for_end(other));
}
