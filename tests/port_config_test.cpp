/* SPDX-License-Identifier: Apache-2.0 */
/* The file that assigns interfaces to ports, and the map that the board library writes. */
#include "platform/dolm_ric/port_map.h"
#include "platform/linux_interfaces/port_config.h"
#include "testkit/processes/processes.h"
#include "testkit/texts.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace linux_board;
using testkit::read_file;

struct port_files : testing::Test {
    std::string write(const std::string &text, mode_t mode = 0644) const
    {
        std::ofstream(folder / "ports") << text;
        chmod((folder / "ports").c_str(), mode);
        return folder / "ports";
    }
    const testkit::directory place;
    const std::filesystem::path folder = place.path;
};

static std::string summary(const configured_port &port)
{
    return std::to_string(port.number) + " " + port.interface + "|" + port.parent + "|" +
           port.port_name + options_of(port);
}

TEST(port_config, understands_each_spelling_and_sorts)
{
    const port_config config = parse_port_config(
        "\xEF\xBB\xBF# all of them\n7 swp7\t# the last\r\n\n"
        "  0\tenp1s0f0np0   module=/var/lib/a.bin\n"
        "1 0000:03:00.0/p1s2 i2c=12\n"
        "65534 sw/1/p2 poll=off\n4 a lanes=32\n5 b checksum=ignore lanes=2-3 i2c=4\n"
        "3 0000:03:00.0/",
        "ports");
    std::string summaries;
    for (const configured_port &port : config.ports)
        summaries += summary(port) + "\n";
    EXPECT_EQ(config.messages, std::vector<std::string>());
    EXPECT_EQ(summaries, "0 enp1s0f0np0|| module=/var/lib/a.bin\n"
                         "1 |0000:03:00.0|p1s2 i2c=12\n3 |0000:03:00.0|\n4 a|| lanes=32-32\n"
                         "5 b|| i2c=4 lanes=2-3 checksum=ignore\n7 swp7||\n"
                         "65534 |sw/1|p2 poll=off\n");
}

TEST(port_config, a_wrong_line_costs_itself_only)
{
    const std::pair<const char *, std::vector<std::string>> reasons[] = {
        {"a line is:", {"1", "1 a poll=off poll=off", "1 a i2c=1 checksum=ignore checksum=ignore"}},
        {"lanes= takes",
         {"1 a lanes=0", "1 a lanes=3-2", "1 a lanes=33", "1 a lanes=1-", "1 a lanes="}},
        {"number from 0 to 65534", {"-1 a", "65535 a", "4294967297 a", "0x1 a"}},
        {"\"poll=on\" is not one of", {"1 a poll=on"}},
        {"absolute path", {"1 a module=relative", "1 a module="}},
        {"number of a bus", {"1 a i2c=/dev/i2c-1", "1 a i2c=", "1 a i2c=65536"}},
        {"lacks the parent", {"1 /p1"}},
        {"too long", {"1 " + std::string(128, 'e'), std::string(5000, ' ') + "1 d"}},
        {"not \"a??[31m\"", {"1 a\x01\x1b[31m"}},
        {"NUL", {std::string("1 a module=/a\0b", 15)}},
        {"port 5 is there already", {"5 b"}},
        {"\"a\" is another port already", {"6 a"}},
        {"the bus 3 belongs to another port", {"6 c i2c=3"}}};
    for (const auto &[reason, lines] : reasons)
        for (const std::string &line : lines) {
            const auto config = parse_port_config("5 a i2c=3\n" + line + "\n9 z\n", "/etc/ports");
            ASSERT_EQ(config.messages.size(), 1u) << line;
            EXPECT_TRUE(config.messages[0].starts_with("/etc/ports:2: ")) << config.messages[0];
            testkit::expect_parts(config.messages[0], {reason});
            ASSERT_EQ(config.ports.size(), 2u) << line;
        }
    std::string wrong;
    for (int line = 0; line < 100000; line++)
        wrong += "?\n";
    const port_config bounded = parse_port_config(wrong, "p");
    ASSERT_EQ(bounded.messages.size(), max_port_config_messages);
    EXPECT_EQ(bounded.messages.back(), "p: 99981 more wrong lines");
    /* The name in a wrong line stays free for other lines. */
    EXPECT_EQ(parse_port_config("1 a i2c=x\n1 a i2c=4\n", "p").ports.size(), 1u);
}

TEST_F(port_files, are_read_as_a_whole_or_not_at_all)
{
    const auto read_path = [](const std::string &path) {
        const int descriptor = open_port_config(path);
        const port_config config = read_port_config(descriptor, "p");
        close(descriptor);
        return config;
    };
    std::string many;
    for (int port = 0; port < 10000; port++)
        many += std::to_string(port) + " eth" + std::to_string(port) + "\n";
    EXPECT_EQ(read_path(write(many)).ports.size(), 10000u);
    EXPECT_EQ(read_path(write("")).messages, std::vector<std::string>());
    const std::string full = "1 a\n" + std::string(max_port_config_size - 4, '\n');
    EXPECT_EQ(read_path(write(full)).ports.size(), 1u);
    EXPECT_EQ(read_path(write(full + "\n")).messages[0], "p: larger than 4 MiB");
    EXPECT_EQ(read_path(folder).messages[0], "p: not a regular file");
    ASSERT_EQ(mkfifo((folder / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(read_path(folder / "fifo").messages[0], "p: not a regular file");
    EXPECT_EQ(read_path(folder / "none").messages[0], "p: Bad file descriptor");
}

TEST_F(port_files, are_trusted_by_owner_and_mode)
{
    const auto reason = [](const std::string &path, uid_t owner) -> std::string {
        const int descriptor = open_port_config(path);
        const char *text = reason_not_trusted(descriptor, owner);
        close(descriptor);
        return text != nullptr ? text : "";
    };
    const std::pair<mode_t, bool> modes[] = {{0644, true},  {0600, true},  {0755, true},
                                             {0664, false}, {0646, false}, {0602, false}};
    for (const auto &[mode, is_trusted] : modes)
        EXPECT_EQ(reason(write("", mode), geteuid()).empty(), is_trusted) << mode;
    EXPECT_NE(reason(write(""), geteuid() + 1), "");
    EXPECT_EQ(reason(folder, geteuid()), "is not a regular file");
    EXPECT_EQ(reason(folder / "none", geteuid()), "cannot be examined");
}

TEST_F(port_files, the_map_is_replaced_as_a_whole)
{
    const std::string path = folder / "map";
    ASSERT_TRUE(board::write_port_map(path, {{10, "swp10"}, {9, "a\tb\nc\x7f"}, {0, "eth0"}}));
    EXPECT_EQ(read_file(path), "# tesk-ports 1\n0\teth0\n9\ta?b?c?\n10\tswp10\n");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0640});

    /* If there is a link at the path of the temporary file, it is replaced, not followed. */
    std::filesystem::create_symlink(write("untouched"), path + ".new");
    std::ifstream reader(path);
    ASSERT_TRUE(board::write_port_map(path, {{1, "a"}}));
    EXPECT_EQ(read_file(path), "# tesk-ports 1\n1\ta\n");
    EXPECT_EQ(read_file(folder / "ports"), "untouched");
    const std::string old{std::istreambuf_iterator<char>(reader), {}};
    EXPECT_TRUE(old.ends_with("10\tswp10\n")) << "a reader of the old map sees it to its end";
}

TEST_F(port_files, a_map_that_can_not_be_written_leaves_the_old_one)
{
    const std::string path = folder / "map";
    ASSERT_TRUE(board::write_port_map(path, {{1, "a"}}));
    rlimit unlimited = {};
    getrlimit(RLIMIT_FSIZE, &unlimited);
    const rlimit full = {16, unlimited.rlim_max}; /* a limit in bytes, as on a full disk */
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &full);
    const bool was_written = board::write_port_map(path, {{2, "b"}});
    setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_FALSE(was_written);
    EXPECT_EQ(read_file(path), "# tesk-ports 1\n1\ta\n");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(board::write_port_map(folder / "none" / "map", {}));
    std::filesystem::create_directory(folder / "taken");
    EXPECT_FALSE(board::write_port_map(folder / "taken", {}));
    EXPECT_EQ(std::ranges::count(testing::internal::GetCapturedStderr(), '\n'), 2);
    for (const char *left : {"map.new", "taken.new"})
        EXPECT_FALSE(std::filesystem::exists(folder / left)) << left;
}
