/* SPDX-License-Identifier: Apache-2.0 */
/* The file that says which port is which interface, and the map that the board library writes. */
#include "platform/dolm_ric/linux/port_config.h"
#include "platform/dolm_ric/port_map.h"

#include <algorithm>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

using namespace linux_board;

/* A folder of its own for each test, and a file in it. */
struct port_files : testing::Test {
    ~port_files() override
    {
        std::filesystem::remove_all(folder);
    }
    std::string write(const std::string &text, mode_t mode = 0644) const
    {
        std::ofstream(folder / "ports") << text;
        chmod((folder / "ports").c_str(), mode);
        return folder / "ports";
    }
    static std::string read(const std::filesystem::path &from)
    {
        std::ifstream file(from);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    char name[32] = "/tmp/port_files.XXXXXX";
    std::filesystem::path folder = mkdtemp(name);
};

static std::string summary(const configured_port &port)
{
    static constexpr const char *sources[] = {"", "module=", "i2c=", "off"};
    return std::to_string(port.number) + " " + port.interface + "|" + port.parent + "|" +
           port.port_name + " " + sources[static_cast<int>(port.source)] + port.file +
           (port.source == module_source::i2c_bus ? std::to_string(port.i2c_bus) : "");
}

TEST(port_config, understands_each_spelling_and_sorts)
{
    const port_config config = parse_port_config("\xEF\xBB\xBF# all of them\n"
                                                 "7 swp7\t# the last\r\n"
                                                 "\n"
                                                 "  0\tenp1s0f0np0   module=/var/lib/a.bin\n"
                                                 "1 0000:03:00.0/p1s2 i2c=12\n"
                                                 "65534 sw/1/p2 poll=off\n"
                                                 "3 0000:03:00.0/",
                                                 "ports");
    const char *expected[] = {"0 enp1s0f0np0|| module=/var/lib/a.bin",
                              "1 |0000:03:00.0|p1s2 i2c=12", "3 |0000:03:00.0| ", "7 swp7|| ",
                              "65534 |sw/1|p2 off"};
    ASSERT_EQ(config.messages, std::vector<std::string>());
    ASSERT_EQ(config.ports.size(), std::size(expected));
    for (size_t n = 0; n < std::size(expected); n++)
        EXPECT_EQ(summary(config.ports[n]), expected[n]);
}

TEST(port_config, a_wrong_line_costs_itself_only)
{
    const std::string longest(128, 'e');
    const std::pair<std::string, const char *> lines[] = {
        {"1", "a line is:"},
        {"1 a poll=off poll=off", "a line is:"},
        {"-1 a", "number from 0 to 65534"},
        {"65535 a", "number from 0 to 65534"},
        {"4294967297 a", "number from 0 to 65534"},
        {"0x1 a", "number from 0 to 65534"},
        {"1 a poll=on", "\"poll=on\" is not one of"},
        {"1 a module=relative", "absolute path"},
        {"1 a module=", "absolute path"},
        {"1 a i2c=/dev/i2c-1", "number of a bus"},
        {"1 a i2c=", "number of a bus"},
        {"1 a i2c=65536", "number of a bus"},
        {"1 /p1", "lacks the parent"},
        {"1 " + longest, "too long"},
        {"1 a\x01\x1b[31m", "not \"a??[31m\""},
        {std::string("1 a module=/a\0b", 15), "NUL"},
        {"5 b", "port 5 is there already"},
        {"6 a", "\"a\" is another port already"},
        {"6 c i2c=3", "the bus 3 belongs to another port"},
        {std::string(5000, ' ') + "1 d", "too long"},
    };
    for (const auto &[line, reason] : lines) {
        const auto config = parse_port_config("5 a i2c=3\n" + line + "\n9 z\n", "/etc/tesk/ports");
        ASSERT_EQ(config.messages.size(), 1u) << line;
        EXPECT_TRUE(config.messages[0].starts_with("/etc/tesk/ports:2: ")) << config.messages[0];
        EXPECT_NE(config.messages[0].find(reason), std::string::npos) << config.messages[0];
        ASSERT_EQ(config.ports.size(), 2u) << line;
    }
    std::string wrong;
    for (int line = 0; line < 100000; line++)
        wrong += "?\n";
    const port_config bounded = parse_port_config(wrong, "p");
    ASSERT_EQ(bounded.messages.size(), max_port_config_messages);
    EXPECT_EQ(bounded.messages.back(), "p: 99981 more wrong lines");
    /* What a wrong line would have taken is free for others. */
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
    EXPECT_EQ(read(path), "# tesk-ports 1\n0\teth0\n9\ta?b?c?\n10\tswp10\n");
    EXPECT_EQ(std::filesystem::status(path).permissions(), std::filesystem::perms{0640});

    /* A link that stands where the temporary file goes is replaced, not followed. */
    std::filesystem::create_symlink(write("untouched"), path + ".new");
    std::ifstream reader(path);
    ASSERT_TRUE(board::write_port_map(path, {{1, "a"}}));
    EXPECT_EQ(read(path), "# tesk-ports 1\n1\ta\n");
    EXPECT_EQ(read(folder / "ports"), "untouched");
    const std::string old{std::istreambuf_iterator<char>(reader), {}};
    EXPECT_TRUE(old.ends_with("10\tswp10\n")) << "a reader of the old map sees it to its end";
}

TEST_F(port_files, a_map_that_can_not_be_written_leaves_the_old_one)
{
    const std::string path = folder / "map";
    ASSERT_TRUE(board::write_port_map(path, {{1, "a"}}));
    rlimit unlimited = {};
    getrlimit(RLIMIT_FSIZE, &unlimited);
    const rlimit full = {16, unlimited.rlim_max}; /* bytes, as on a full disk */
    signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &full);
    const bool was_written = board::write_port_map(path, {{2, "b"}});
    setrlimit(RLIMIT_FSIZE, &unlimited);
    EXPECT_FALSE(was_written);
    EXPECT_EQ(read(path), "# tesk-ports 1\n1\ta\n");
    testing::internal::CaptureStderr();
    EXPECT_FALSE(board::write_port_map(folder / "none" / "map", {}));
    std::filesystem::create_directory(folder / "taken");
    EXPECT_FALSE(board::write_port_map(folder / "taken", {}));
    EXPECT_EQ(std::ranges::count(testing::internal::GetCapturedStderr(), '\n'), 2);
    for (const char *left : {"map.new", "taken.new"})
        EXPECT_FALSE(std::filesystem::exists(folder / left)) << left;
}
