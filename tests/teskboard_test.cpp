/* SPDX-License-Identifier: Apache-2.0 */
/* teskboard: its exit codes and its output, on a board in the test's own process. */
#include "testkit/board/board_fixture.h"
#include "testkit/processes/processes.h"

#include <regex>

namespace
{

struct expectation {
    std::string arguments;
    int exit_code;
    const char *output; /* a regular expression that matches a part of it */
};

} // namespace

static void expect(const std::vector<expectation> &all)
{
    for (const auto &[arguments, exit_code, expected] : all) {
        std::string output;
        EXPECT_EQ(exit_code, testkit::run(TESK_BIN_DIR "/teskboard " + arguments, output))
            << output;
        EXPECT_TRUE(std::regex_search(output, std::regex(expected))) << arguments << "\n" << output;
    }
}

using teskboard_test = board_fixture;

TEST_F(teskboard_test, every_command_works_on_a_board)
{
    ASSERT_EQ(0, start());
    expect({{"link 3 up --speed 10.1", 0, "^0 events\n$"},
            {"show 3 --json", 0, R"("speed":10.1,)"},
            {"set 3 speed=0x55; " TESK_BIN_DIR "/teskboard show 3 --json", 0, R"("speed":null,)"},
            {"set 3 speed=0x12345678; " TESK_BIN_DIR "/teskboard show", 0, " 0x12345678 lc "},
            {"link 3 up --json --again", 0, R"(^\{"ports":1,"events":0\}\n$)"},
            {"insert 13-14 --module lc --vendor 'A B\\x01' temperature=71.5C", 0, "^0 events"},
            {"set 13 vendor_pn=X voltage=3.4V module_status=2", 0, "events"},
            {"ready 14", 0, "events"},
            {"insert 9 --not-ready voltage=3V; " TESK_BIN_DIR "/teskboard show 9", 0, "ready +no"},
            {"show 13 --json", 0,
             R"("vendor_name":"A B\\\\x01",.*"vendor_pn":"X".*"temperature":71500,)"},
            {"ports; LC_ALL=C.UTF-8 " TESK_BIN_DIR "/teskboard show", 0,
             R"(PORT.*\n(.*\n){13} +13  module ready +down +- +lc +71.5 °C +3.4 V)"},
            {"ports; LC_ALL=C " TESK_BIN_DIR "/teskboard show", 0, " 71.5 C +3.4 V"},
            {"remove 13", 0, "events"},
            {"fail subslink busy --port 3 --count 2", 0, "^done\n$"},
            {"ports", 0, "ports +16\n(.*\n)*failure +subslink -8 2 3\n"},
            {"heal", 0, "^1 failure withdrawn\n$"},
            {"event link-status --id 0x3000a --value up", 0, "^1 event\n$"},
            {"event port-status --port 3", 0, "^1 event\n$"},
            {"wait 3 --unsubscribed port", 0, "^done\n$"},
            {"--version", 0, R"(^teskboard \d+\.\d+\.\d+\n$)"},
            {"--help", 0, "--socket(.*\n)*.*play "}});
    for (const uint32_t id : {0x3000au, id_of(3)}) {
        dolm_ric_event *event = nullptr;
        ASSERT_EQ(0, dolm_ric_waitevent(handle, &event));
        EXPECT_EQ(event->type == DOLM_RICEVT_RILINKSTATUS ? event->link_status.id
                                                          : event->port_status.id,
                  id);
        dolm_ric_freeevent(handle, &event);
    }
}

TEST_F(teskboard_test, each_failure_has_its_message_and_exit_code)
{
    ASSERT_EQ(0, start());
    expect({{"set 16 link=up", 1, "no port 16: this board has the ports 0 to 15"},
            {"set 3 temperature=5kV", 2, "it takes a number with C"},
            {"lnk 3 up", 2, "no command is called 'lnk'.*link"},
            {"insert 3 --module duck", 2, "lc-own"},
            {"link 3 up --speed 7", 2, "7 is not a speed: 1.2, 2.5, 4.9, 9.8, 10.1 or 10"},
            {"link 3 up --speed=-1", 2, "not a speed"},
            {"set --help", 0, "temperature +71.5C\n(.*\n)*Thresholds"},
            {"link 3", 2, "teskboard: STATE is required; \"teskboard link --help\""},
            {"wait --subscribed link", 2, "wait --subscribed needs PORTS"},
            {"show --sokcet x", 2, "did you mean '--socket'"},
            {"show > /dev/full", 5, ""},
            {"--help > /dev/full", 5, ""},
            {"show --socket " + folder + "/none", 3, "no board at .*start tesk-server first"},
            {"wait 3 --subscribed link --timeout 0.05", 4, "allow more with --timeout"}});
}

TEST_F(teskboard_test, a_scene_is_checked_before_its_first_step)
{
    ASSERT_EQ(0, start());
    write_file("good", "#\n# flap\n+0 link 3 up # now\n\n+0.01 set 3 vendor_name='A B'\n");
    write_file("bad", "link 3 down\n+1x link 3 up\n");
    write_file("high", "link 3 down\nlink 16 up\n");
    write_file("nested", "play good\n");
    const std::string play = "play " + folder;
    expect({{play + "/good", 0, R"(^[\d:.]{12} .*\+0\.\d+  link 3 up: 0.*\n.*\+0\.\d+ .*=A B: )"},
            {play + "/bad", 2, R"(bad:2: \+1x: a pause is)"},
            {play + "/high", 2, "high:2: there is no port 16"},
            {play + "/nested", 2, "nested:1: no command is called 'play'"},
            {"play /none", 2, "/none: No such file"},
            {"show 3", 0, "link +up"}});
}
