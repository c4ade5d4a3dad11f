/* SPDX-License-Identifier: Apache-2.0 */
/* The mixed load of ./soak: for a number of seconds, cycles of busy clients, a flood, clients that
   are killed at any moment and flapping ports, each followed by an idle phase. Memory and
   descriptors are measured in the idle phase, answer times in both; the second quarter of the time,
   when every kind of load has occurred, is compared with the last quarter. */
#include "tesk_server/tesk_signals.h"
#include "testkit/processes/processes.h"

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <sys/wait.h>
#include <unistd.h>

using clock_type = std::chrono::steady_clock;

static constexpr int busy_clients = 12, short_lives = 40, flaps = 60, answers = 400;

/* The limits of constant figures: no more descriptors, at most this growth of memory, and answers
   that are slower only as far as other work on the machine explains. */
static constexpr double more_resident = 1.02, more_resident_kib = 128;
static constexpr double slower = 1.5, slower_us = 100;

struct figures {
    double resident_kib, descriptors, idle_us, loaded_us;
};

static double median(std::vector<double> values)
{
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
}

class soak
{
  public:
    soak()
    {
        testkit::board("set 0-15 link=up inserted=yes ready=yes readable=yes connector=lc");
    }

    figures run_cycle()
    {
        figures found = {};
        {
            std::vector<std::unique_ptr<testkit::test_client>> load(busy_clients + 1);
            for (auto &one : load)
                one =
                    std::make_unique<testkit::test_client>(&one == &load.back() ? "flood" : "load");
            kill_clients();
            flap();
            found.loaded_us = answer_us();
        }
        await_idle();
        found.idle_us = answer_us();
        found.resident_kib = static_cast<double>(testkit::status_of(server_.pid, "VmRSS"));
        found.descriptors = static_cast<double>(testkit::descriptors_of(server_.pid));
        return found;
    }

    int stop()
    {
        return server_.stop();
    }

  private:
    void kill_clients()
    {
        for (int life = 0; life < short_lives; life++) {
            const pid_t client = testkit::start({TESK_BIN_DIR "/test_client", "load"});
            usleep(static_cast<useconds_t>(random_() % 10000));
            kill(client, SIGKILL);
            waitpid(client, nullptr, 0);
        }
    }

    void flap()
    {
        for (int time = 0; time < flaps; time++) {
            const bool down = time % 2 == 0;
            testkit::board(down ? "set 0-15 inserted=no ready=no"
                                : "set 0-15 inserted=yes ready=yes");
            testkit::board(down ? "set 0-15 link=down" : "set 0-15 link=up");
        }
    }

    double answer_us()
    {
        std::vector<double> took;
        for (int index = 0; index < answers; index++) {
            const auto asked = clock_type::now();
            witness_.ask(TESK_GET_CAPABILITIES_REQ, {1, id_});
            took.push_back(
                std::chrono::duration<double, std::micro>(clock_type::now() - asked).count());
        }
        return median(took);
    }

    /* Waits until the server has removed all clients except the witness: first until the board's
       subscriptions have ended, then until the number of descriptors no longer falls. */
    void await_idle()
    {
        testkit::board("wait unsubscribed 0-15 port");
        testkit::board("wait unsubscribed 0-15 link");
        for (size_t before = SIZE_MAX, now = 0; before != now;) {
            before = now;
            usleep(100000);
            now = testkit::descriptors_of(server_.pid);
        }
    }

    testkit::directory directory_;
    testkit::server server_{{"ZEL_SINK=file:" + directory_.path + "/traces", "ZEL_GROUPS=1,4,12"}};
    testkit::test_client witness_;
    const uint32_t id_ = witness_.connect(1);
    std::mt19937 random_{1};
};

static double typical(const std::vector<figures> &all, size_t from, size_t to,
                      double figures::*which)
{
    std::vector<double> values;
    for (size_t index = from; index < to; index++)
        values.push_back(all[index].*which);
    return median(values);
}

struct row {
    const char *name;
    double figures::*which;
    double factor, more;
};
static constexpr row rows[] = {
    {"resident memory, KiB", &figures::resident_kib, more_resident, more_resident_kib},
    {"descriptors", &figures::descriptors, 1, 0},
    {"answer when idle, us", &figures::idle_us, slower, slower_us},
    {"answer under load, us", &figures::loaded_us, slower, 10 * slower_us},
};

/* Prints the table and returns whether all figures are constant within their limits. */
static bool report(const std::vector<figures> &all)
{
    const size_t quarter = all.size() / 4;
    bool flat = true;
    printf("%-26s%12s%12s%16s\n", "", "start", "end", "at most");
    for (const row &r : rows) {
        const double start = typical(all, quarter, 2 * quarter, r.which);
        const double end = typical(all, all.size() - quarter, all.size(), r.which);
        const double most = start * r.factor + r.more;
        printf("%-26s%12.0f%12.0f%16.0f%s\n", r.name, start, end, most,
               end <= most ? "" : "   NOT FLAT");
        flat = flat && end <= most;
    }
    return flat;
}

int main(int, char **argv)
{
    const double seconds = strtod(argv[1], nullptr);
    const auto until = clock_type::now() + std::chrono::duration<double>(seconds);
    soak server;
    std::vector<figures> all;
    while (clock_type::now() < until || all.size() < 8) {
        all.push_back(server.run_cycle());
        fprintf(stderr, "\rcycle %zu: %.0f KiB, %.0f descriptors ", all.size(),
                all.back().resident_kib, all.back().descriptors);
    }
    fprintf(stderr, "\n");
    const bool flat = report(all);
    const int status = server.stop();
    printf("%zu cycles, the server ended with status %d: %s\n", all.size(), status,
           flat && status == 0 ? "flat" : "not flat");
    return flat && status == 0 ? 0 : 1;
}
