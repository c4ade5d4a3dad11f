/* SPDX-License-Identifier: Apache-2.0 */
/* zel: settings and the resulting mask, lines of text and their file, floods and blocked outputs,
   formatted texts in signal handlers, and LTTng from the trace call to babeltrace2's output. The
   library reads its settings once, so each case runs in a child process. */
#include "platform/zel/zel.h"
#include "testkit/processes/processes.h"
#include "util/deadline.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <thread>
#include <unistd.h>

using settings = std::vector<std::pair<const char *, std::string>>;
static const testing::ExitedWithCode is_well(0);

class zel : public testing::Test
{
  protected:
    const std::filesystem::path directory = testing::TempDir() + "zel." + std::to_string(getpid());
    const std::string file = directory / "trace";
    const bool is_made = create_directory(directory);
    ~zel() override
    {
        remove_all(directory);
    }
};

static std::string read_file(const std::filesystem::path &file)
{
    return (std::ostringstream() << std::ifstream(file).rdbuf()).str();
}

static void format_and_trace(int)
{
    lttngZelTrace(4, "h", 1, formatStr("%s", std::string_view("handler").data()), procInfo);
}

static void start(const settings &environment)
{
    for (const auto &[name, value] : environment)
        setenv(name, value.c_str(), 1);
    for (const int number : {SIGUSR1, SIGUSR2, SIGALRM})
        signal(number, format_and_trace);
    zel_init();
}

/* Prints the masks of the first thread, of another thread before and after it registers, and
   whether LTTng is loaded with all signals blocked in all its threads. */
static void print_state(const settings &environment)
{
    start(environment);
    uint32_t masks[2] = {};
    std::thread([&] {
        masks[0] = procInfo[3];
        zel_register_thread_name("late");
        masks[1] = procInfo[3];
    }).join();
    size_t threads = 0, blocking = 0;
    for (const auto &task : std::filesystem::directory_iterator("/proc/self/task")) {
        const std::string status = read_file(task.path() / "status");
        const bool is_of_lttng = status.find("-ust\n") != status.npos;
        threads += is_of_lttng;
        blocking += is_of_lttng && status.find("SigBlk:\tfffffffe7ffbfeff") != status.npos;
    }
    const bool is_loaded = read_file("/proc/self/maps").find("lttng") != std::string::npos;
    fprintf(stderr, "%x %x %x %d", procInfo[3], masks[0], masks[1],
            is_loaded + (threads > 0 && threads == blocking));
    exit(0);
}

TEST_F(zel, the_settings_decide_the_mask_of_every_thread_and_whether_lttng_is_loaded)
{
    const std::pair<settings, const char *> cases[] = {
        {{{"ZEL_GROUPS", "all"}}, "^0 0 0 0$"},
        {{{"ZEL_SINK", "stdout"}, {"ZEL_GROUPS", "1,4,12"}}, "^1012 0 1012 0$"},
        {{{"ZEL_SINK", "stderr"}, {"ZEL_GROUPS", "1,32"}}, "^libzel: ZEL_GROUPS=1,32: .*\n12 0 12"},
        {{{"ZEL_SINK", "no\nne"}}, "^libzel: ZEL_SINK=no\\\\nne: .*\n0 0 0 0"},
        {{{"ZEL_SINK", "file:/nowhere/x"}},
         "^libzel: ZEL_SINK=file:/nowhere/x: No such file.*\n0 0 0 0"},
        {{{"ZEL_RATE", "-1"}, {"ZEL_SINK", "stdout"}}, "^libzel: ZEL_RATE=-1: .*\n12 0 12 0$"},
        {{{"ZEL_FILE_SIZE", "9k"}, {"ZEL_SINK", "file:/dev/null"}},
         "^libzel: ZEL_FILE_SIZE=9k: .*\n12"},
        {{{"ZEL_SINK", "lttng"}}, "^12 0 12 2$"}};
    for (const auto &[environment, expected] : cases)
        EXPECT_EXIT(print_state(environment), is_well, expected);
}

static void trace_all_kinds(const settings &environment)
{
    const uint32_t number = 0x1900001;
    start(environment);
    const char *text = "a\tb\\\x1b\x7f\xff\xc2\x85 \xc3\xa9\xe2\x82\xac\xe2\x82";
    lttngZelTrace(4, short_fname("a/b.cpp"), 7, text, procInfo);
    zel_register_thread_name("na\nme");
    lttngZelRecSigTrace("c.cpp", 8, reinterpret_cast<const mbx_signal *>(&number), "in\n",
                        procInfo);
    lttngZelSendSigTrace("c.cpp", 9, 0x1900002, 0x10003, "out", nullptr);
    lttngZelTrace(32, "c.cpp", 10, "no such group", procInfo);
    lttngZelRecSigTrace(nullptr, 11, nullptr, nullptr, nullptr);
    raise(SIGUSR1);
    lttngZelTrace(1, "c.cpp", 12, std::string(9000, '\x01').c_str(), procInfo);
    exit(0);
}

TEST_F(zel, a_line_shows_where_when_and_every_byte)
{
    const settings all{{"ZEL_SINK", "file:" + file}, {"ZEL_GROUPS", "all"}, {"TZ", "XXX-05:30"}};
    const time_t before = time(nullptr);
    EXPECT_EXIT(trace_all_kinds(all), is_well, "");
    const std::string lines = read_file(file);
    const std::regex time_stamp("(^|\n)\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} ");
    const std::string rest = std::regex_replace(lines, time_stamp, "$1");
    EXPECT_EQ(
        rest.substr(0, rest.find("\\x01")),
        "zel_test 4 b.cpp:7: a\\tb\\\\\\x1b\\x7f\\xff\\xc2\\x85 \xc3\xa9\xe2\x82\xac\\xe2\\x82\n"
        "na\\nme 17 c.cpp:8: received 0x01900001: in\\n\n"
        "na\\nme 18 c.cpp:9: sent 0x01900002 to 0x00010003: out\n"
        "na\\nme 17 :11: received 0x00000000: \n"
        "na\\nme 4 h:1: handler\n"
        "na\\nme 1 c.cpp:12: ");
    EXPECT_TRUE(lines.ends_with("\\x01...\n"));
    EXPECT_NEAR(static_cast<double>(lines.size() - lines.rfind('\n', lines.size() - 2)), 4088, 8);
    tm stamp{};
    strptime(lines.c_str(), "%Y-%m-%d %H:%M:%S", &stamp);
    EXPECT_NEAR(static_cast<double>(timegm(&stamp) - before), 5.5 * 3600, 60);
}

TEST_F(zel, a_full_file_rolls_over_and_only_the_oldest_lines_are_lost)
{
    const auto trace_500_lines = [&] {
        std::filesystem::current_path(directory);
        start({{"ZEL_SINK", "file:trace"}, {"ZEL_FILE_SIZE", "4096"}});
        std::filesystem::current_path("/");
        for (int i = 0; i < 500; ++i)
            lttngZelTrace(1, "f", 1, formatStr("line %03d", i), procInfo);
        exit(0);
    };
    EXPECT_EXIT(trace_500_lines(), is_well, "");
    const std::string older = read_file(file + ".1"), newer = read_file(file);
    const size_t line_size = newer.find('\n') + 1, lines_in_full_file = 4096 / line_size;
    EXPECT_EQ(older.size(), lines_in_full_file * line_size);
    EXPECT_EQ(newer.size(), 500 % lines_in_full_file * line_size);
    EXPECT_TRUE(newer.ends_with(" line 499\n"));
}

/* Reads everything that is available. */
static std::string drain(int reader)
{
    std::string text(1 << 20, '\0');
    size_t size = 0;
    for (ssize_t got; (got = read(reader, &text[size], text.size() - size)) > 0;)
        size += static_cast<size_t>(got);
    text.resize(size);
    return text;
}

/* The sum of the numbers that follow `before` in the text. */
static uint64_t sum_after(const std::string &text, const std::string &before)
{
    uint64_t sum = 0;
    for (size_t at = 0; (at = text.find(before, at)) != text.npos;)
        sum += strtoull(&text[at += before.size()], nullptr, 10);
    return sum;
}

static size_t count_of(const std::string &text, const std::string &part)
{
    size_t count = 0;
    for (size_t at = 0; (at = text.find(part, at)) != text.npos; at += part.size())
        ++count;
    return count;
}

/* Without a limit, so that the output becomes full; handlers trace meanwhile. Exits with 0 if each
   line was written or counted as lost. */
static void fill_output(const settings &environment, int reader)
{
    constexpr int lines = 3000, handled = 200;
    start(environment);
    lttngZelTrace(4, "f", 1, "first", procInfo);
    for (int i = 0; i < lines; ++i) {
        lttngZelTrace(4, "f", 2, formatStr("flood %d of many lines in a pipe", i), procInfo);
        if (i % (lines / handled) == 0)
            raise(SIGUSR1);
    }
    lttngZelTrace(1, "f", 3, "error", procInfo);
    std::string got = drain(reader);
    const bool has_stalled = count_of(got, ": flood") < lines;
    lttngZelTrace(4, "f", 4, "last", procInfo);
    got += drain(reader);
    const uint64_t counted =
        count_of(got, ": flood") + count_of(got, ": handler") + sum_after(got, "output:0: ");
    fprintf(stderr, "stalled %d, counted %d too few%s%s%s", has_stalled,
            lines + handled - static_cast<int>(counted),
            got.find(": first\n") < 99 ? "" : ", no begin",
            got.ends_with(": last\n") ? "" : ", no end",
            got.find(": error\n") != got.npos ? "" : ", no error");
    exit(0);
}

TEST_F(zel, an_output_whose_reader_stalls_holds_up_nobody_and_each_line_is_counted)
{
    int anonymous[2], pair[2];
    ASSERT_EQ(0, pipe2(anonymous, O_CLOEXEC));
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair));
    ASSERT_EQ(0, mkfifo(file.c_str(), 0600));
    const settings to_stdout{{"ZEL_SINK", "stdout"}, {"ZEL_RATE", "0"}};
    const char *all = "^stalled 1, counted 0 too few$";
    const auto on_stdout = [&](int writer, int reader, uid_t user) {
        dup2(writer, STDOUT_FILENO);
        close(writer);
        fcntl(reader, F_SETFL, O_NONBLOCK);
        if (user != 0 && setresuid(user, user, user) != 0)
            exit(1);
        fill_output(to_stdout, reader);
    };
    EXPECT_EXIT(on_stdout(anonymous[1], anonymous[0], 0), is_well, all);
    EXPECT_EXIT(on_stdout(pair[1], pair[0], 0), is_well, all);
    if (geteuid() == 0) {
        EXPECT_EXIT(on_stdout(anonymous[1], anonymous[0], 65534), is_well, all)
            << "a pipe that can't be opened anew";
    }
    const auto on_fifo = [&] {
        start({{"ZEL_SINK", "file:" + file}, {"ZEL_RATE", "0"}});
        fill_output({}, open(file.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    };
    EXPECT_EXIT(on_fifo(), is_well, all);
}

static void flood_with_limit()
{
    start({{"ZEL_SINK", "stdout"}, {"ZEL_GROUPS", "1,4,12"}});
    for (int i = 0; i < 5000; ++i)
        lttngZelTrace(4, "flood", 1, formatStr("line %d", i), procInfo);
    for (int i = 0; i < 500; ++i)
        lttngZelTrace(12, "same", 2, "again", procInfo);
    for (uint32_t line = 0; line < 2000; ++line)
        lttngZelTrace(4, "many", line, formatStr("line %u", line), procInfo);
    lttngZelTrace(4, "quiet", 3, "may be left out", procInfo);
    lttngZelTrace(1, "error", 4, "is seen", procInfo);
}

/* Waits until lines of another place have reported the rest of the flood, which may last longer
   than a second. */
static void flood_and_wait(int reader)
{
    fcntl(reader, F_SETFL, O_NONBLOCK);
    fcntl(reader, F_SETPIPE_SZ, 1 << 20);
    flood_with_limit();
    const util::deadline end{testkit::deadline};
    std::string text = drain(reader);
    const auto counted = [&] {
        return count_of(text, " flood:1: line ") +
               sum_after(text, "libzel 4 flood:1: repeated 0 times, ");
    };
    for (int i = 0; counted() < 5000 && !end.has_passed(); ++i) {
        lttngZelTrace(1, "later", 5, formatStr("%d", i), procInfo);
        text += drain(reader);
    }
    fprintf(stderr, "%zu", counted());
    _exit(0);
}

TEST_F(zel, a_flood_is_bounded_folded_and_counted_and_errors_have_a_share_of_their_own)
{
    int ends[2];
    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    const auto to_pipe = [&] {
        struct stat status = {};
        fstat(ends[1], &status);
        const std::string journal =
            std::to_string(status.st_dev) + ":" + std::to_string(status.st_ino);
        setenv("JOURNAL_STREAM", journal.c_str(), 1);
        fcntl(ends[1], F_SETPIPE_SZ, 1 << 20);
        dup2(ends[1], STDOUT_FILENO);
        flood_with_limit();
        exit(0);
    };
    EXPECT_EXIT((dup2(ends[1], STDOUT_FILENO), flood_and_wait(ends[0])), is_well, "^5000$");

    ASSERT_EQ(0, pipe2(ends, O_CLOEXEC));
    EXPECT_EXIT(to_pipe(), is_well, "");
    close(ends[1]);
    const std::string text = drain(ends[0]);
    EXPECT_LE(count_of(text, " flood:1: line "), 303u) << "a tenth a second, in at most 3 seconds";
    EXPECT_EQ(5000u, count_of(text, "<5>zel_test 4 flood:1: line ") +
                         sum_after(text, "<5>libzel 4 flood:1: repeated 0 times, "));
    EXPECT_EQ(1u, count_of(text, "<7>zel_test 12 same:2: again\n"));
    EXPECT_EQ(1u, count_of(text, "<7>libzel 12 same:2: repeated 499 times, 0 more"));
    EXPECT_EQ(1u, count_of(text, "<3>zel_test 1 error:4: is seen\n"));
    EXPECT_LE(count_of(text, "zel_test 4 "), 3000u) << "all places but errors, in 3 seconds";
    EXPECT_FALSE(std::regex_search(text, std::regex("(^|\n)[^<]"))) << "each has its priority";
}

/* Handlers trace while they interrupt threads that trace, into a file that rolls over meanwhile. No
   text is free, as some are never traced; a text has 2 KiB. */
TEST_F(zel, a_storm_of_signals_leaves_every_line_and_text_whole)
{
    const std::string long_text(3000, 'w');
    const auto work = [&] {
        for (int i = 0; i < 3000; ++i) {
            formatStr("never traced");
            errno = i;
            const char *text = formatStr("%d %s", i, long_text.c_str());
            for (int k = 0; k < (i == 7 ? 1000 : 1); ++k)
                raise(SIGUSR1);
            if (text != (std::to_string(i) + " " + long_text).substr(0, 2047) || errno != i)
                _exit(1);
            lttngZelTrace(4, "w", 1, i % 10 ? "short" : text, procInfo);
        }
    };
    const auto trace_in_storm = [&] {
        start({{"ZEL_SINK", "file:" + file}, {"ZEL_FILE_SIZE", "1600000"}});
        std::thread other([&] {
            zel_register_thread_name("zel_test");
            work();
        });
        const itimerval often{{0, 500}, {0, 500}}, never{};
        setitimer(ITIMER_REAL, &often, nullptr);
        work();
        setitimer(ITIMER_REAL, &never, nullptr);
        other.join();
        exit(formatStr(nullptr) == nullptr);
    };
    EXPECT_EXIT(trace_in_storm(), is_well, "");
    std::istringstream lines(read_file(file + ".1") + read_file(file));
    int count = 0;
    for (std::string line; std::getline(lines, line);) {
        const bool is_short = line.substr(26) == " zel_test 4 w:1: short";
        const bool is_long =
            line.size() == 26 + 17 + 2047 && line.ends_with(long_text.substr(0, 2042));
        EXPECT_TRUE(is_short || is_long || line.substr(26) == " zel_test 4 h:1: handler") << line;
        count += is_short || is_long;
    }
    EXPECT_EQ(count, 6000);
}

TEST_F(zel, babeltrace2_reads_what_was_traced_with_lttng)
{
    if (system("command -v lttng lttng-sessiond babeltrace2 >/dev/null") != 0 ||
        (geteuid() == 0 && system("unshare --mount true") != 0))
        GTEST_SKIP() << "needs lttng-tools and babeltrace2, and as root the right to mount";
    /* Root's session daemon uses a fixed path, so a mount gives root its own. */
    const std::string mount = "unshare --mount sh -c 'mkdir -p /run/lttng &&"
                              " mount -t tmpfs none /run/lttng && exec \"$@\"' sh ";
    /* The recorder runs a command, and then records running programs until Enter. */
    const std::string command =
        "cd " + directory.string() + " && P=/proc/" + std::to_string(getpid()) + "/exe F=" + file +
        " LTTNG_HOME=$PWD timeout 50 " + (geteuid() == 0 ? mount : "") +
        "sh -ec '" TRACE_SESSION " $P trace_all_kinds >$F; mkfifo key; " TRACE_SESSION
        " --output kept <key >again 2>told & exec 3>key; until grep -qs Enter told; do sleep 0.1;"
        " done; ZEL_SINK=lttng $P trace_all_kinds; echo >&3; wait $!; test -d kept/ust;"
        " test $(grep -c zel: again) = $(grep -c zel: $F)'";
    EXPECT_EQ(system(command.c_str()), 0);
    const std::string printed = read_file(file);
    for (const char *part :
         {"zel:trace: ", "{ group = 4, thread = \"exe\", file = \"b.cpp\", line = 7, text = \"a\\t",
          "zel:received_signal: ",
          "file = \"c.cpp\", line = 8, number = 0x1900001, text = \"in\\n\" }",
          "zel:sent_signal: ", "line = 9, number = 0x1900002, receiver = 0x10003, text = \"out\" }",
          "{ group = 4, thread = \"na\\nme\", file = \"h\", line = 1, text = \"handler\" }"})
        EXPECT_NE(printed.find(part), printed.npos) << part << "\nin\n" << printed.substr(0, 2000);
}

int main(int argc, char **argv)
{
    if (argc == 2 && std::string(argv[1]) == "trace_all_kinds")
        trace_all_kinds({{"ZEL_GROUPS", "all"}});
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
