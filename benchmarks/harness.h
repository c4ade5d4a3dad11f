/* SPDX-License-Identifier: Apache-2.0 */
/* harness - what all measured systems share: how a system is described, the programs' roles and
   command lines, the stand-in for the board, and the record of who was told of an event when.

   Each measured system is one source file that describes itself as a `measured_system` and hands it
   to run_system(). The program then has these roles:

     serve ADDRESS BOARD               serves until it is killed; BOARD is the path of the stand-in
     client ADDRESS                    one client, told by lines on stdin what to do:
                                         calls KIND COUNT            one after the other
                                         flight KIND COUNT WINDOW    WINDOW of them on their way
                                       KIND is 0 for capabilities and 1 for PM counters; it answers
                                       with one line: a list of nanoseconds, of each call or in all
     subscribe ADDRESS RECEIPTS P N    P processes with N subscribers each, every subscriber a
   thread with a connection of its own; says "ready" once all of them are subscribed

   A program that can't go on says why on stderr and ends with 1. */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <span>
#include <string>
#include <vector>

namespace bench
{

/* The signals that the systems exchange, by their sizes in bytes. */
enum class request_kind : uint32_t { capabilities = 0, pm_counters = 1, subscribe = 2 };
constexpr size_t request_size(request_kind kind)
{
    return kind == request_kind::capabilities ? 12 : 16;
}
constexpr size_t answer_size(request_kind kind)
{
    return kind == request_kind::capabilities ? 40 : kind == request_kind::pm_counters ? 104 : 16;
}
constexpr size_t event_size = 96;
constexpr size_t largest_size = 128;

/* The monotonic clock, which all processes of the machine share. */
int64_t now_ns();

/* Throws with errno's text unless the result is one of success. */
int need(int result, const char *what);
[[noreturn]] void fail(const std::string &what);

/* A SOCK_SEQPACKET socket, listening at the path or connected to it. */
int listen_at(const std::string &path);
int connect_to(const std::string &path);

/* An epoll instance over the one descriptor. */
int watch(int fd);
void watch_also(int epoll, int fd);

/* One client that sends requests. Ordinary systems implement send and receive alone. */
class client
{
  public:
    virtual ~client() = default;
    virtual void send(request_kind kind) = 0;
    /* Waits for one answer to what was sent. */
    virtual void receive() = 0;
    /* A request and its answer. */
    virtual void call(request_kind kind);
};

/* Who was told of an event when: in memory that the subscribers of all processes share. */
class receipts
{
  public:
    explicit receipts(const std::string &path);
    /* By a subscriber: it is subscribed; it was told of an event. */
    void note_ready();
    void note_told();
    /* By whoever starts subscribers or raises events: waits until that many have been noted since
       the last begin(). The first gives the moment of the last receipt. */
    void begin();
    int64_t await_told(uint32_t count);
    void await_ready(uint32_t count);

  private:
    struct shared_part {
        std::atomic<uint32_t> ready;
        std::atomic<uint32_t> told;
        std::atomic<int64_t> last;
    };
    shared_part *shared;
};

/* The stand-in for the board and its library, for servers that don't have the real one: as there,
   one thread hears of an event from outside, a second one waits for it as in a call of the library,
   puts it into a queue and wakes the server's own thread through an eventfd. */
class board
{
  public:
    explicit board(const std::string &path);
    /* Called by the server once it serves: from here on events come, and the board's socket tells
       others that all is ready. Returns a descriptor that is readable while an event waits. */
    int start();
    /* Takes all events out of the queue, and says how many there were. */
    uint32_t take();

  private:
    void hear(int listener);
    void wait_for_events();

    const std::string path;
    const int wakeup;
    std::mutex lock;
    std::condition_variable raised;
    uint32_t waiting = 0; /* in the library */
    uint32_t queued = 0;
};

struct measured_system {
    std::unique_ptr<client> (*connect)(const std::string &address);
    /* On a thread of its own: subscribes, notes that, and notes each event; returns never. */
    void (*subscribe)(const std::string &address, receipts &told);
    /* Returns never. Null for a system that brings its own server. */
    void (*serve)(const std::string &address, board &events);
};

int run_system(const measured_system &system, int count, char **words);

/* Carries out the lines of stdin with `answer`, whose result is printed as a list in one line. */
std::vector<std::string> split_words(const std::string &line);
template <typename function>
void answer_lines(function &&answer);
bool read_line(std::string &line);
void print_list(std::span<const int64_t> numbers);

template <typename function>
void answer_lines(function &&answer)
{
    std::string line;
    while (read_line(line)) {
        const std::vector<int64_t> numbers = answer(split_words(line));
        print_list(numbers);
    }
}

/* Runs a main function and reports what it throws. */
int report_failures(int (*run)(std::span<char *> words), int count, char **words);

} // namespace bench
