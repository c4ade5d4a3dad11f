/* SPDX-License-Identifier: Apache-2.0 */
/* libdolm_ric: the operations, on a simulated board that is controlled by its own protocol. */
#include "testkit/board/board_fixture.h"
#include "testkit/processes/processes.h"

#include <array>
#include <cstring>
#include <fcntl.h>
#include <sstream>
#include <sys/file.h>
#include <sys/stat.h>
#include <thread>

class dolm_ric_test : public board_fixture
{
  protected:
    /* The next event as "type id value"; waits up to the timeout of the test. */
    std::string next_event()
    {
        dolm_ric_event *event = nullptr;
        if (const int32_t code = dolm_ric_waitevent(handle, &event))
            return "failed " + std::to_string(code);
        const uint32_t value = event->type == DOLM_RICEVT_RILINKSTATUS ? event->link_status.state
                                                                       : event->port_status.status;
        char text[64];
        snprintf(text, sizeof(text), "%u %x %u", event->type, event->port_status.id, value);
        EXPECT_EQ(0, dolm_ric_freeevent(handle, &event));
        EXPECT_EQ(DOLM_RICERR_INVALID, dolm_ric_freeevent(handle, &event));
        return text;
    }

    void subscribe(uint32_t port)
    {
        dolm_ric_port_status status;
        dolm_ric_link_status link;
        ASSERT_EQ(0, dolm_ric_ri_subsport(handle, id_of(port), &status));
        ASSERT_EQ(0, dolm_ric_ri_subslink(handle, id_of(port), &link));
        EXPECT_EQ(id_of(port), status.id);
        EXPECT_EQ(id_of(port), link.id);
    }
};

TEST_F(dolm_ric_test, events_reach_subscribers_only_and_keep_their_order)
{
    ASSERT_EQ(0, start());
    EXPECT_EQ("ok\nports=16\nevents=0", ask("set 0-15 link=up ready=no"));
    subscribe(3);
    subscribe(3);
    EXPECT_EQ("ok\nports=16\nevents=1", ask("set 0-15 link=down"));
    EXPECT_EQ("ok\nports=1\nevents=0", ask("set 3 link=down temperature=70C"));
    EXPECT_EQ("ok\nports=2\nevents=1", ask("set 3,3,2-3 again link=down"));
    EXPECT_EQ("ok\nports=1\nevents=2", ask("set 3 speed=10.1 power_fault=yes"));
    EXPECT_EQ("ok\nports=0\nevents=1", ask("event 7 0x3000a 5"));
    EXPECT_EQ("3 20003 1", next_event());
    EXPECT_EQ("3 20003 1", next_event());
    EXPECT_EQ("1 20003 13", next_event());
    EXPECT_EQ("3 20003 1", next_event());
    EXPECT_EQ("7 3000a 5", next_event());

    ask("set 3 link=up ready=yes");
    for (int held = 0; held < 2; held++)
        EXPECT_EQ(0, dolm_ric_ri_unsubslink(handle, id_of(3)));
    EXPECT_EQ(DOLM_RICERR_INVALID, dolm_ric_ri_unsubslink(handle, id_of(3)));
    EXPECT_EQ("1 20003 15", next_event()) << "the link event was queued before the unsubscription";
    EXPECT_EQ("ok\nports=1\nevents=1", ask("remove 3"));
    EXPECT_EQ("1 20003 1", next_event());
}

TEST_F(dolm_ric_test, values_arrive_in_the_units_of_the_records)
{
    ASSERT_EQ(0, start());
    ASSERT_EQ("ok\nports=1\nevents=0",
              ask("insert 13 lc temperature=-5.5C temperature_high_alarm=71500 voltage=3.3V "
                  "txbias=6.005mA txpower=0.5mW rxpower=-10dBm diag_cap=0x7f "
                  "vendor_name=\\x00\\xffA\\x20\\\\0123456789ab connector=0xfe eth_speed=1000mb"));
    dolm_ric_module_diag diag;
    dolm_ric_module_info info;
    ASSERT_EQ(0, dolm_ric_ri_getmodulediag(handle, id_of(13), &diag));
    ASSERT_EQ(0, dolm_ric_ri_getmoduleinfo(handle, id_of(13), &info));
    EXPECT_EQ(-5500, diag.temperature);
    EXPECT_EQ(71500, diag.temperature_high_alarm);
    EXPECT_EQ((std::array{3300000u, 6005u, 500u, 100u, 0x7fu}),
              (std::array{diag.voltage, diag.txbias, diag.txpower, diag.rxpower, diag.diag_cap}));
    EXPECT_EQ(0, memcmp(info.sfp.sfp_vendor_name, "\0\377A \\0123456789ab", 17));
    EXPECT_EQ(0xfe, info.sfp.sfp_connector);
    EXPECT_EQ(1u, info.sfp.sfp_eth_speed);
    EXPECT_NE(std::string::npos, ask("show 13").find("\nvendor_name=\\x00\\xffA \\\\0123"));
    ASSERT_EQ(0, dolm_ric_ri_getmodulediag(handle, id_of(4), &diag));
    EXPECT_EQ(41500, diag.temperature) << "another module of the kind is untouched";
    ask("set 4 rx-power.1=-16dBm tx-power.0=0mW tx-off.0=yes");
    ASSERT_EQ(0, dolm_ric_ri_getmodulediag(handle, id_of(4), &diag));
    EXPECT_EQ((std::array{25u, 580u}), (std::array{diag.rxpower, diag.txpower}))
        << "the worst lane";
}

TEST_F(dolm_ric_test, injected_faults_hit_the_calls_that_they_name)
{
    ASSERT_EQ(0, start());
    dolm_ric_link_status link;
    ask("fail getlinkstatus internal 1");
    for (const uint32_t unknown : {id_of(16), id_of(65535), 0x00030003u, 3u})
        EXPECT_EQ(DOLM_RICERR_NODEV, dolm_ric_ri_getlinkstatus(handle, unknown, &link));
    EXPECT_EQ(DOLM_RICERR_INTERNAL, dolm_ric_ri_getlinkstatus(handle, id_of(3), &link));
    EXPECT_EQ(0, dolm_ric_ri_getlinkstatus(handle, id_of(3), &link));
    ask("fail dolm_ric_ri_getlinkstatus busy always 3-4");
    ask("fail getlinkstatus -77 2 4");
    const int32_t of_port_4[] = {-77, -77, DOLM_RICERR_BUSY, DOLM_RICERR_BUSY};
    for (const int32_t code : of_port_4)
        EXPECT_EQ(code, dolm_ric_ri_getlinkstatus(handle, id_of(4), &link));
    EXPECT_EQ(0, dolm_ric_ri_getlinkstatus(handle, id_of(5), &link));
    EXPECT_EQ("ok\nfailures=1", ask("heal getlinkstatus"));
    EXPECT_EQ(0, dolm_ric_ri_getlinkstatus(handle, id_of(4), &link));

    std::thread blocked([this] {
        EXPECT_EQ("failed -11", next_event());
        EXPECT_EQ("0 0 0", next_event());
    });
    EXPECT_EQ("ok", ask("wait idle"));
    EXPECT_EQ("ok", ask("fail waitevent internal 1"));
    EXPECT_EQ("ok", ask("wait calls waitevent 2"));
    ask("fail shutdown busy");
    EXPECT_EQ(DOLM_RICERR_BUSY, dolm_ric_shutdown(handle, 0));
    blocked.join();
}

TEST_F(dolm_ric_test, a_command_with_an_error_changes_nothing)
{
    ASSERT_EQ(0, start());
    const std::string before = ask("show 3");
    const std::pair<const char *, const char *> refused[] = {
        {"set 3 link=up temperature=5kV", "temperature can't be '5kV'"},
        {"set 3 link=up colour=red", "no value is called 'colour'"},
        {"set 3-16 link=up", "no port 16"},
        {"set 3 link=up nom_bitrate=256", "out of range"},
        {"set 3 vendor_rev=123456", "holds 5 bytes at most"},
        {"fail lookup -1", "no operation is called 'lookup'"},
        {"\x01", "no request is called '\\x01': take set, insert, remove"},
        {"remove 1 2", "remove takes 1 word, not 2"},
        {"set 1", "set takes 2 or more words, not 1"}};
    for (const auto &[request, reason] : refused) {
        const std::string answer = ask(request);
        EXPECT_EQ(0u, answer.find("error ")) << request;
        EXPECT_NE(std::string::npos, answer.find(reason)) << answer;
    }
    EXPECT_EQ(before, ask("show 3"));
}

TEST_F(dolm_ric_test, shutdown_delivers_the_last_event_and_ends_all_else)
{
    ASSERT_EQ(0, start());
    const uintptr_t old = handle;
    EXPECT_EQ(DOLM_RICERR_BUSY, dolm_ric_init(&handle, 0));
    EXPECT_EQ(old, handle);
    std::thread event_thread([this] { EXPECT_EQ("0 0 0", next_event()); });
    EXPECT_EQ(0, dolm_ric_shutdown(handle, 0));
    event_thread.join();
    dolm_ric_port_status status;
    EXPECT_EQ("failed -10", next_event());
    EXPECT_EQ(DOLM_RICERR_SHUTDOWN, dolm_ric_ri_getportstatus(handle, id_of(0), &status));
    EXPECT_EQ(DOLM_RICERR_SHUTDOWN, dolm_ric_shutdown(handle, 0));
    EXPECT_FALSE(std::filesystem::exists(socket_path));
    ASSERT_EQ(0, start());
    EXPECT_EQ(DOLM_RICERR_INVALID, dolm_ric_ri_getportstatus(old, id_of(0), &status));
    EXPECT_EQ(0, dolm_ric_ri_getportstatus(handle, id_of(0), &status));
}

TEST_F(dolm_ric_test, only_a_dead_boards_socket_is_taken_over)
{
    using std::filesystem::perms, std::filesystem::exists, std::filesystem::status;
    const std::string lock_path = socket_path + ".lock";
    ASSERT_EQ(0, start());
    EXPECT_EQ(perms{0600}, status(lock_path).permissions()) << "the group can't hold it";
    ASSERT_EQ(0, dolm_ric_shutdown(handle, 0));
    EXPECT_FALSE(exists(lock_path) || exists(socket_path));
    util::listen_at(socket_path, SOCK_SEQPACKET, 0660, getegid(), 1); /* as of a dead board */
    const int lock = open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0660);
    ASSERT_EQ(0, flock(lock, LOCK_EX)) << "as a living board would hold it";
    ASSERT_EQ(0, start()) << "works without control";
    EXPECT_EQ(-1, peer_of_board());
    ASSERT_EQ(0, dolm_ric_shutdown(handle, 0));
    EXPECT_TRUE(exists(lock_path)) << "it is another board's";
    close(lock);
    ASSERT_EQ(0, start());
    EXPECT_EQ(0u, ask("board").find("ok"));
    EXPECT_EQ(perms{0600}, status(lock_path).permissions()) << "of an older version, too";
    EXPECT_EQ(perms{0660}, status(socket_path).permissions());
}

TEST_F(dolm_ric_test, the_port_map_is_there_while_the_board_is)
{
    const std::filesystem::path map = std::filesystem::path(socket_path).parent_path() / "ports";
    const auto text = [&map] { return (std::ostringstream() << std::ifstream(map).rdbuf()).str(); };
    ASSERT_EQ(0, start("ports 2\n"));
    EXPECT_EQ("# tesk-ports 1\n0\tport0\n1\tport1\n", text());
    EXPECT_EQ(std::filesystem::perms{0640}, std::filesystem::status(map).permissions());
    ASSERT_EQ(0, dolm_ric_shutdown(handle, 0));
    EXPECT_EQ("", text());
    const util::descriptor other(open((socket_path + ".lock").c_str(), O_RDWR | O_CREAT, 0600));
    ASSERT_EQ(0, flock(other.get(), LOCK_EX));
    ASSERT_EQ(0, start());
    EXPECT_EQ("", text()) << "the socket, and so the map, is another board's";
}

TEST_F(dolm_ric_test, the_control_socket_belongs_to_the_group_of_its_directory)
{
    std::vector<gid_t> groups(static_cast<size_t>(getgroups(0, nullptr)) + 1, 4242);
    if (geteuid() != 0)
        groups.resize(
            static_cast<size_t>(getgroups(static_cast<int>(groups.size()), groups.data())));
    std::erase(groups, getegid());
    if (groups.empty())
        GTEST_SKIP() << "this user has one group only";
    const std::filesystem::path directory = std::filesystem::path(socket_path).parent_path();
    std::filesystem::create_directory(directory);
    ASSERT_EQ(0, chown(directory.c_str(), static_cast<uid_t>(-1), groups.back()));
    const mode_t before = umask(0777);
    EXPECT_EQ(0, start());
    umask(before);
    struct stat found = {};
    ASSERT_EQ(0, lstat(socket_path.c_str(), &found));
    EXPECT_EQ(groups.back(), found.st_gid);
    EXPECT_EQ(0660u, found.st_mode & 0777);
}

TEST_F(dolm_ric_test, a_board_file_describes_the_board_or_the_start_fails_with_a_reason)
{
    EXPECT_EQ(0, start("# all alike\nports 65535\ninsert 0-65534 lc link=up speed=10\n"
                       "set 65534 temperature=80C\n"));
    for (uint32_t port = 0; port < 65535; port++)
        subscribe(port);
    dolm_ric_module_diag diag;
    ASSERT_EQ(0, dolm_ric_ri_getmodulediag(handle, id_of(65534), &diag));
    EXPECT_EQ(80000, diag.temperature);
    EXPECT_EQ("ok\nports=65535\nevents=65535", ask("set 0-65534 link=down"));
    std::vector<util::descriptor> idle(100); /* more connections than the board permits */
    for (util::descriptor &peer : idle)
        peer.reset(peer_of_board());
    const int late = idle.back().get();
    ASSERT_EQ(13, send(late, "set 0 link=up", 13, 0));
    for (size_t left = 65535; left > 1023; left--) {
        ASSERT_EQ(-1, recv(late, folder.data(), 0, MSG_DONTWAIT)) << "the queue is full";
        EXPECT_EQ("3 2", next_event().substr(0, 3));
    }
    EXPECT_EQ("ok\nports=1\nevents=1", receive(late));
    ASSERT_EQ(0, dolm_ric_shutdown(handle, 0));
    const std::tuple<const char *, int32_t, const char *> failing[] = {
        {"ports 4\nfail init -11\n", -11, "libdolm_ric: the board file lets dolm_ric_init fail\n"},
        {"ports 4\nset 4 link=up\n", -1,
         ":2: there is no port 4: this board has the ports 0 to 3\n"},
        {"ports 0\n", -1, ":1: a board needs a port: COUNT must be 1 or more\n"},
        {"set 3 link=up\n", -1,
         ":1: the first line must be \"ports COUNT\", such as \"ports 16\"\n"},
        {"ports 4\nwait idle\n", -1,
         ":2: a board file can't wait, not even for its events to be taken\n"},
        {"#\n", -1, ": there is no line \"ports COUNT\"\n"}};
    for (const auto &[text, code, reason] : failing) {
        testing::internal::CaptureStderr();
        EXPECT_EQ(code, start(text)) << text;
        EXPECT_TRUE(testing::internal::GetCapturedStderr().ends_with(reason)) << reason;
    }
}

TEST(dolm_ric_in_the_server, waits_that_fail_are_retried_ever_more_slowly_until_one_succeeds)
{
    const testkit::directory place;
    testkit::server server;
    auto await_calls = [calls = uint64_t{0}](uint64_t more) mutable {
        calls =
            (calls == 0 ? std::stoull(testkit::board("board")["calls.waitevent"]) : calls) + more;
        testkit::board("wait calls waitevent " + std::to_string(calls));
    };
    testkit::board("fail waitevent internal always");
    await_calls(16); /* ten failures with pauses of 5 ms, then of 10, 20, 40 and 80 ms */
    const auto begin = std::chrono::steady_clock::now();
    await_calls(6);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(500));
    testkit::board("heal");
    testkit::board("wait idle");
    testkit::board("fail waitevent internal always");
    EXPECT_EQ(0, server.stop());
}
