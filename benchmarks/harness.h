/* SPDX-License-Identifier: Apache-2.0 */
/* harness - the parts that all measured systems share: the description of a system, the roles and
   command lines of its program, the substitute for the board, and the record of receipts.

   Each measured system is one source file that describes itself as a `measured_system` and hands it
   to run_system(). The program then has these roles:

     serve ADDRESS BOARD       serves until it is killed; BOARD is the path of the substitute board
     client ADDRESS WAITING    one client, which carries out the lines of stdin:
                                 calls KIND COUNT            one after the other
                                 flight KIND COUNT WINDOW    WINDOW of them unanswered at a time
                                 connect COUNT               new connections
                               KIND is 0 for capabilities and 1 for PM counters. The answer is one
                               line: a list of nanoseconds, of each call or connection, or in all
     subscribe ADDRESS WAITING RECEIPTS P N
                               P processes with N subscribers each, every subscriber a thread with a
                               connection of its own; prints "ready" once all are subscribed

   WAITING is "read" or "epoll", see `waiting`. A program that cannot go on prints the reason on
   stderr and ends with 1. */
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
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

/* How a client waits for its next signal: in one blocking read or receive call, or in epoll_wait
   on the library's descriptor, followed by a read or receive that returns at once. A library that
   waits on threads of its own has one way only and ignores this. */
enum class waiting { in_read, in_epoll };

/* The monotonic clock, which all processes of the machine share. */
int64_t now_ns();

/* Throws with errno's text if the result is negative. */
int need(int result, const char *what);
[[noreturn]] void fail(const std::string &what);

/* A SOCK_SEQPACKET socket, listening at the path or connected to it. */
int listen_at(const std::string &path);
int connect_to(const std::string &path);

/* An epoll instance over the one descriptor. */
int watch(int fd);
void watch_also(int epoll, int fd);
/* Returns when a descriptor of the epoll instance is ready. */
void await_ready(int epoll);

/* One client that sends requests. The destructor ends its connection. Most systems implement send
   and receive only. */
class client
{
  public:
    virtual ~client() = default;
    virtual void send(request_kind kind) = 0;
    /* Waits for the next answer. */
    virtual void receive() = 0;
    /* One request and its answer. */
    virtual void call(request_kind kind);
    /* Returns once the server has answered on this connection; by default after a first call. */
    virtual void confirm();
};

/* The number of subscribers that are ready or have received an event, and the time of the last
   receipt; in memory that all processes share. */
class receipts
{
  public:
    explicit receipts(const std::string &path);
    /* Called by a subscriber: its subscription is confirmed; it has received an event. */
    void note_ready();
    void note_receipt();
    /* Called by the process that starts subscribers or raises events: waits until that many have
       been noted since the last begin(). await_receipts returns the time of the last receipt. */
    void begin();
    int64_t await_receipts(uint32_t count);
    void await_ready(uint32_t count);

  private:
    struct shared_part {
        std::atomic<uint32_t> ready;
        std::atomic<uint32_t> received;
        std::atomic<int64_t> last;
    };
    shared_part *shared_;
};

/* The substitute for the board and its library, for servers that do not use the real one. As there,
   one thread receives events from outside; a second one waits for them as in a call of the library,
   queues them and wakes the server's own thread through an eventfd. */
class board
{
  public:
    explicit board(const std::string &path);
    /* Called by the server once it serves: listens on the board's socket, which also shows other
       processes that the server is ready. Returns a descriptor, readable while events are queued.
     */
    int start();
    /* Empties the queue and returns the number of its events. */
    uint32_t take();
    /* For a server whose library has threads of its own: starts, and calls `notify` once for each
       event. */
    [[noreturn]] void serve(const std::function<void()> &notify);

  private:
    void receive_events(int listener);
    void queue_events();

    const std::string path_;
    const int wakeup_;
    std::mutex lock_;
    std::condition_variable raised_;
    uint32_t pending_ = 0; /* received, not yet queued */
    uint32_t queued_ = 0;
};

struct measured_system {
    std::unique_ptr<client> (*connect)(const std::string &address, waiting how);
    /* Runs on a thread of its own: subscribes, notes that, and notes each event. Never returns. */
    void (*subscribe)(const std::string &address, waiting how, receipts &record);
    /* Never returns. Null for a system whose server is a program of its own. */
    void (*serve)(const std::string &address, board &events);
};

int run_system(const measured_system &system, int count, char **words);

/* Calls `answer` with the words of each line of stdin and prints its result as a list in one line.
 */
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

/* Runs a main function; an exception is printed and becomes exit status 1. */
int report_failures(int (*run)(std::span<char *> words), int count, char **words);

} // namespace bench
