/* zel: settings and the mask that follows, lines of text and their file, formatted texts under
   signal handlers, and LTTng from the trace call to what babeltrace2 prints. The library reads its
   settings once, so each case runs in a child process, and what the child prints is looked at. */
#include "platform/zel/zel.h"

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using settings = std::vector<std::pair<const char *, std::string>>;

static std::string read_all(FILE *stream)
{
    std::string text;
    for (int c; (c = fgetc(stream)) != EOF;)
        text += static_cast<char>(c);
    return text;
}

static std::string read_file(const std::filesystem::path &path)
{
    std::ostringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

/* What `body` prints to stdout and stderr, and " failed" behind it if it did not get to its end. */
static std::string in_child(const settings &environment, const std::function<void()> &body)
{
    std::array<int, 2> ends{};
    EXPECT_EQ(pipe(ends.data()), 0);
    fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDOUT_FILENO);
        dup2(ends[1], STDERR_FILENO);
        for (const auto &[name, value] : environment)
            setenv(name, value.c_str(), 1);
        alarm(50);
        body();
        exit(0);
    }
    close(ends[1]);
    FILE *stream = fdopen(ends[0], "r");
    std::string text = read_all(stream);
    fclose(stream);
    int status = 0;
    waitpid(child, &status, 0);
    return text + (status == 0 ? "" : " failed");
}

struct scratch_directory {
    std::filesystem::path path;
    scratch_directory()
    {
        std::string name = std::filesystem::temp_directory_path() / "zel_test.XXXXXX";
        path = mkdtemp(name.data());
    }
    ~scratch_directory()
    {
        std::filesystem::remove_all(path);
    }
};

TEST(zel, the_mask_follows_the_settings_in_every_thread)
{
    /* What is printed: complaints, then the masks of the first thread, of a later one before and
       after it registers, and of one from before zel_init that registers. */
    const std::pair<settings, const char *> cases[] = {
        {{}, "0 0 0 0"},
        {{{"ZEL_GROUPS", "all"}}, "0 0 0 0"},
        {{{"ZEL_SINK", "stderr"}}, "12 12 12 12"},
        {{{"ZEL_SINK", "stdout"}, {"ZEL_GROUPS", "1,4,12"}}, "1012 1012 1012 1012"},
        {{{"ZEL_SINK", "stderr"}, {"ZEL_GROUPS", "all"}}, "ffffffff ffffffff ffffffff ffffffff"},
        {{{"ZEL_SINK", "stderr"}, {"ZEL_GROUPS", "1,32"}},
         "libzel: ZEL_GROUPS=1,32: .*\n12 12 12 12"},
        {{{"ZEL_SINK", "sto\nne"}}, "libzel: ZEL_SINK=sto\\\\nne: .*\n0 0 0 0"},
        {{{"ZEL_SINK", "file:/nowhere/x"}}, "libzel: ZEL_SINK=file:/nowhere/x: .*\n0 0 0 0"},
        {{{"ZEL_SINK", "file:/dev/null"}, {"ZEL_FILE_SIZE", "9k"}},
         "libzel: ZEL_FILE_SIZE=9k: .*\n12 12 12 12"},
        {{{"ZEL_SINK", "lttng"}}, "12 0 12 12"},
    };
    for (const auto &[environment, expected] : cases) {
        const std::string printed = in_child(environment, [] {
            std::array<uint32_t, 3> masks{};
            std::atomic_flag is_ready;
            std::thread early([&] {
                is_ready.wait(false);
                zel_register_thread_name("early");
                masks[2] = procInfo[3];
            });
            EXPECT_EQ(zel_init(), 0);
            is_ready.test_and_set();
            is_ready.notify_one();
            std::thread([&] {
                masks[0] = procInfo[3];
                zel_register_thread_name("late");
                masks[1] = procInfo[3];
            }).join();
            early.join();
            printf("%x %x %x %x", procInfo[3], masks[0], masks[1], masks[2]);
        });
        EXPECT_TRUE(std::regex_match(printed, std::regex(expected))) << printed;
    }
}

TEST(zel, a_line_shows_where_when_and_every_byte)
{
    const uint32_t signal = 0x1900001;
    const time_t before = time(nullptr);
    const settings environment{{"ZEL_SINK", "stderr"}, {"ZEL_GROUPS", "all"}, {"TZ", "XXX-05:30"}};
    const std::string lines = in_child(environment, [&] {
        zel_init();
        lttngZelTrace(4, short_fname("a/b.cpp"), 7,
                      "a\tb\\\x1b\x7f\xff\xc2\x85 \xc3\xa9\xe2\x82\xac\xe2\x82", procInfo);
        zel_register_thread_name("na\nme");
        lttngZelRecSigTrace("c.cpp", 8, reinterpret_cast<const mbx_signal *>(&signal), "in\n",
                            procInfo);
        lttngZelSendSigTrace("c.cpp", 9, 0x1900002, 0x10003, "out", nullptr);
        lttngZelTrace(32, "c.cpp", 10, "no such group", procInfo);
        lttngZelRecSigTrace(nullptr, 11, nullptr, nullptr, nullptr);
        lttngZelTrace(1, "c.cpp", 12, std::string(9000, '\x01').c_str(), procInfo);
    });
    const std::regex time_stamp("(^|\n)\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d\\.\\d{6} ");
    const std::string rest = std::regex_replace(lines, time_stamp, "$1");
    const std::string short_lines =
        "zel_test 4 b.cpp:7: a\\tb\\\\\\x1b\\x7f\\xff\\xc2\\x85 \xc3\xa9\xe2\x82\xac\\xe2\\x82\n"
        "na\\nme 17 c.cpp:8: received 0x01900001: in\\n\n"
        "na\\nme 18 c.cpp:9: sent 0x01900002 to 0x00010003: out\n"
        "na\\nme 17 :11: received 0x00000000: \n"
        "na\\nme 1 c.cpp:12: \\x01";
    EXPECT_EQ(rest.substr(0, short_lines.size()), short_lines);
    const std::string cut_line = lines.substr(lines.rfind('\n', lines.size() - 2) + 1);
    EXPECT_TRUE(cut_line.ends_with("\\x01...\n")) << cut_line;
    EXPECT_LE(cut_line.size(), 4096u);
    EXPECT_GT(cut_line.size(), 4080u);

    tm stamp{};
    strptime(lines.c_str(), "%Y-%m-%d %H:%M:%S", &stamp);
    EXPECT_NEAR(static_cast<double>(timegm(&stamp) - before), 5.5 * 3600, 60);
}

TEST(zel, a_full_file_rolls_over_once_and_loses_its_oldest_lines_only)
{
    const scratch_directory scratch;
    const auto file = scratch.path / "trace";
    in_child({{"ZEL_SINK", "file:" + file.filename().string()}, {"ZEL_FILE_SIZE", "4096"}}, [&] {
        std::filesystem::current_path(scratch.path);
        zel_init();
        std::filesystem::current_path("/");
        for (int i = 0; i < 500; ++i)
            lttngZelTrace(1, "f", 1, formatStr("line %d", i), procInfo);
    });
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(scratch.path), {}), 2);
    EXPECT_LE(std::filesystem::file_size(file), 4096u);
    EXPECT_GT(std::filesystem::file_size(file.string() + ".1"), 4000u);
    EXPECT_LE(std::filesystem::file_size(file.string() + ".1"), 4096u);
    std::istringstream lines(read_file(file.string() + ".1") + read_file(file));
    int last = -1;
    for (std::string line; std::getline(lines, line);) {
        const int number = std::stoi(line.substr(line.rfind(' ')));
        EXPECT_TRUE(last < 0 || number == last + 1) << line;
        last = number;
    }
    EXPECT_EQ(last, 499);
}

static void format_and_trace(int)
{
    lttngZelTrace(4, "h", 1, formatStr("%s", std::string_view("handler").data()), procInfo);
}

static void handle_signals()
{
    struct sigaction action {
    };
    action.sa_handler = format_and_trace;
    sigaction(SIGUSR1, &action, nullptr);
    sigaction(SIGUSR2, &action, nullptr);
}

TEST(zel, a_formatted_text_holds_2_kib_and_outlives_the_handlers_on_top_of_it)
{
    const std::string long_text(2047, 'x');
    const auto printed = in_child({{"ZEL_SINK", "file:/dev/null"}}, [&] {
        zel_init();
        handle_signals();
        for (int i = 0; i < 20; ++i)
            formatStr("never traced"); /* leaves the thread without a free text */
        errno = 77;
        const char *text = formatStr("%s", (long_text + "cut").c_str());
        for (int i = 0; i < 1000; ++i)
            raise(i % 2 ? SIGUSR1 : SIGUSR2);
        printf("%d %d %d", text == long_text, formatStr(nullptr) != nullptr, errno);
    });
    EXPECT_EQ(printed, "1 1 77");
}

/* Handlers that trace on top of threads that trace, into a file that rolls over all the while. */
TEST(zel, a_storm_of_signals_leaves_every_line_and_text_whole)
{
    const scratch_directory scratch;
    const auto file = scratch.path / "trace";
    const settings environment{{"ZEL_SINK", "file:" + file.string()}, {"ZEL_FILE_SIZE", "8192"}};
    const auto printed = in_child(environment, [] {
        zel_init();
        handle_signals();
        std::atomic<int> broken{0}, running{2};
        const auto work = [&] {
            const std::string pattern(1500, 'w');
            for (int i = 0; i < 3000; ++i) {
                const char *text = formatStr("%d %s", i, pattern.c_str());
                broken += text != std::to_string(i) + " " + pattern;
                lttngZelTrace(4, "w", 1, i % 10 ? "short" : text, procInfo);
            }
            --running;
            while (running > 0)
                sched_yield();
        };
        std::array<std::thread, 2> threads{std::thread(work), std::thread(work)};
        while (running > 0)
            for (std::thread &thread : threads)
                pthread_kill(thread.native_handle(), SIGUSR1);
        for (std::thread &thread : threads)
            thread.join();
        printf("%d", broken.load());
    });
    EXPECT_EQ(printed, "0");
    std::istringstream lines(read_file(file.string() + ".1") + read_file(file));
    const std::regex whole("[-0-9]+ [:.0-9]+ zel_test 4 (h:1: handler|w:1: (short|\\d+ w{1500}))");
    for (std::string line; std::getline(lines, line);)
        EXPECT_TRUE(std::regex_match(line, whole)) << line;
}

TEST(zel, lttng_is_loaded_only_where_it_is_asked_for_and_its_threads_block_all_signals)
{
    const std::pair<const char *, const char *> cases[] = {{"stderr", "0 1"}, {"lttng", "1 1"}};
    for (const auto &[sink, expected] : cases) {
        EXPECT_EQ(in_child({{"ZEL_SINK", sink}},
                           [] {
                               zel_init();
                               int unblocked = 0, threads = 0;
                               for (const auto &task :
                                    std::filesystem::directory_iterator("/proc/self/task")) {
                                   const std::string status = read_file(task.path() / "status");
                                   unblocked +=
                                       status.find("SigBlk:\tfffffffe7ffbfeff") == status.npos;
                                   ++threads;
                               }
                               const bool is_loaded =
                                   read_file("/proc/self/maps").find("lttng") != std::string::npos;
                               printf("%d %d", is_loaded && threads > 1, unblocked);
                           }),
                  expected);
    }
}

/* What the next case traces, in a process of its own. */
static int traced_program()
{
    zel_init();
    zel_register_thread_name("traced");
    handle_signals();
    const uint32_t signal = 0x1900001;
    lttngZelTrace(1, "a.cpp", 5, formatStr("error %d", 7), procInfo);
    lttngZelRecSigTrace("b.cpp", 6, reinterpret_cast<const mbx_signal *>(&signal), "in", procInfo);
    lttngZelSendSigTrace("c.cpp", 7, 0x1900002, 0x10003, "out", procInfo);
    raise(SIGUSR1);
    return 0;
}

TEST(zel, babeltrace2_reads_what_was_traced_with_lttng)
{
    if (system("command -v lttng lttng-sessiond babeltrace2 >/dev/null") != 0)
        GTEST_SKIP() << "needs lttng-tools and babeltrace2";
    const scratch_directory scratch;
    /* Root's session daemon has a fixed place, so root gets one of its own by a mount. */
    std::string command = "timeout 50 env ZEL_GROUPS=1,4,17,18 LTTNG_HOME=" + scratch.path.string();
    if (geteuid() == 0) {
        if (system("unshare --mount true") != 0)
            GTEST_SKIP() << "needs the right to mount";
        command +=
            " unshare --mount sh -c 'mkdir -p /run/lttng && mount -t tmpfs none /run/lttng &&"
            " exec \"$@\"' sh";
    }
    command += " " TRACE_SESSION " /proc/" + std::to_string(getpid()) + "/exe traced_program 2>&1";
    FILE *stream = popen(command.c_str(), "r");
    const std::string printed = read_all(stream);
    EXPECT_EQ(pclose(stream), 0);
    for (const char *event :
         {"zel:trace: .* group = 1, thread = \"traced\", file = \"a.cpp\", line = 5, text = "
          "\"error 7\"",
          "zel:received_signal: .* group = 17, .* line = 6, number = 0x1900001, text = \"in\"",
          "zel:sent_signal: .* number = 0x1900002, receiver = 0x10003, text = \"out\"",
          "zel:trace: .* group = 4, .* text = \"handler\""})
        EXPECT_TRUE(std::regex_search(printed, std::regex(event))) << event << "\nin\n" << printed;
}

int main(int argc, char **argv)
{
    if (argc == 2 && std::string(argv[1]) == "traced_program")
        return traced_program();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
