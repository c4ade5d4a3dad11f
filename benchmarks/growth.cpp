/* SPDX-License-Identifier: Apache-2.0 */
/* growth - many clients of the real server with many subscriptions, to measure how the cost of one
   operation grows: growth BOARD, then lines on stdin. Client 0 connected first.

     threads COUNT           starts the threads of COUNT clients, without mailboxes
     locate COUNT            their mailboxes locate the server, but do not connect yet
     clients COUNT           connects clients until there are COUNT
     exchange COUNT          each client: COUNT capabilities requests
     hold FIRST LAST COUNT   subscribes to these ports, both kinds, port P by client P modulo COUNT
     request TIMES           client 0: nanoseconds of each capabilities request
     cycle TIMES             client 0 on port 0, to which no client is subscribed before or after:
                             nanoseconds of subscribing to SFP info, subscribing to port status,
                             four link events, unsubscribing from SFP info and from port status;
                             eight numbers for each time
     lose CLIENT             ends that client and waits until the board has none of its
                             subscriptions */
#include "benchmarks/tesk_link.h"

#include <cstring>
#include <deque>
#include <functional>
#include <optional>
#include <pthread.h>
#include <sys/socket.h>

using namespace bench;

/* The unanswered requests that a client has at most while it subscribes. */
static constexpr uint32_t window = 32;
static constexpr uint32_t cycle_port = 0;
static constexpr uint32_t events_a_cycle = 4;
static constexpr size_t stack_size = 64 * 1024;
static constexpr size_t used_stack = 24 * 1024; /* more than a connection and its requests use */

namespace
{

/* A client on a thread of its own, as a mailbox belongs to a thread. */
class worker
{
  public:
    using work = std::function<void(tesk_link &)>;

    worker()
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, stack_size);
        const int error = pthread_create(&thread_, &attributes, run, this);
        pthread_attr_destroy(&attributes);
        if (error != 0)
            fail("pthread_create");
        finish();
    }

    ~worker()
    {
        start(nullptr);
        pthread_join(thread_, nullptr);
    }

    /* Runs the work on the client's thread, which locates the server before its first work.
       finish() must be called before the next start(). */
    void start(work what)
    {
        const std::lock_guard guard(lock_);
        to_do_ = std::move(what);
        busy_ = true;
        changed_.notify_one();
    }

    void finish()
    {
        std::unique_lock guard(lock_);
        changed_.wait(guard, [this] { return !busy_; });
        if (!failure_.empty())
            fail(failure_);
    }

    void carry_out(work what)
    {
        start(std::move(what));
        finish();
    }

  private:
    static void *run(void *self)
    {
        static_cast<worker *>(self)->serve();
        return nullptr;
    }

    /* So that the stack's pages do not count as memory of a connection. */
    [[gnu::noinline]] static void touch_stack()
    {
        char pages[used_stack];
        memset(pages, 0, sizeof(pages));
        asm volatile("" : : "r"(pages) : "memory");
    }

    void serve()
    {
        std::unique_lock guard(lock_);
        try {
            touch_stack();
            std::optional<tesk_link> link;
            for (;;) {
                busy_ = false;
                changed_.notify_one();
                changed_.wait(guard, [this] { return busy_; });
                if (!to_do_)
                    return;
                if (!link)
                    link.emplace();
                to_do_(*link);
            }
        } catch (const std::exception &error) {
            failure_ = error.what();
            busy_ = false;
            changed_.notify_one();
        }
    }

    pthread_t thread_;
    std::mutex lock_;
    std::condition_variable changed_;
    work to_do_;
    bool busy_ = true;
    std::string failure_;
};

struct procedure {
    uint32_t request;
    uint32_t last_answer;
};

} // namespace

static constexpr procedure subscribe_sfp = {TESK_SUBSCRIBE_SFP_INFO_REQ, TESK_SFP_INFO_IND};
static constexpr procedure subscribe_status = {TESK_SUBSCRIBE_PORT_STATUS_REQ,
                                               TESK_PORT_STATUS_IND};
static constexpr procedure unsubscribe_sfp = {TESK_UNSUBSCRIBE_SFP_INFO_REQ,
                                              TESK_UNSUBSCRIBE_SFP_INFO_CFM};
static constexpr procedure unsubscribe_status = {TESK_UNSUBSCRIBE_PORT_STATUS_REQ,
                                                 TESK_UNSUBSCRIBE_PORT_STATUS_CFM};

namespace
{

class bench_clients
{
  public:
    explicit bench_clients(const std::string &board_path) : board_socket_(connect_to(board_path))
    {
    }

    std::vector<int64_t> carry_out(const std::vector<std::string> &words)
    {
        const auto number = [&](size_t at) {
            return static_cast<uint32_t>(std::stoul(words.at(at)));
        };
        const std::string &what = words.at(0);
        if (what == "threads")
            add_threads(number(1));
        else if (what == "locate")
            locate(number(1));
        else if (what == "clients")
            grow(number(1));
        else if (what == "exchange")
            exchange(number(1));
        else if (what == "hold")
            hold(number(1), number(2), number(3));
        else if (what == "request")
            return time_requests(number(1));
        else if (what == "cycle")
            return time_cycles(number(1));
        else if (what == "lose")
            lose(number(1));
        else
            fail("unknown command: " + what);
        return {};
    }

  private:
    void add_threads(uint32_t count)
    {
        while (clients_.size() < count)
            clients_.push_back(std::make_unique<worker>());
    }

    /* Any work locates the server. */
    void locate(uint32_t count)
    {
        add_threads(count);
        for (uint32_t index = connected_; index < count; index++)
            clients_[index]->carry_out([](tesk_link &) {});
    }

    void grow(uint32_t count)
    {
        add_threads(count);
        while (connected_ < count)
            clients_[connected_++]->carry_out([](tesk_link &link) { link.connect(); });
    }

    void exchange(uint32_t times)
    {
        for (const auto &each : clients_)
            each->carry_out([times](tesk_link &link) {
                for (uint32_t done = 0; done < times; done++) {
                    link.send(TESK_GET_CAPABILITIES_REQ);
                    link.await(TESK_GET_CAPABILITIES_CFM);
                }
            });
    }

    /* The clients are started in turn, and each works through its own ports. */
    void hold(uint32_t first, uint32_t last, uint32_t count)
    {
        grow(count);
        for (uint32_t index = 0; index < count; index++)
            clients_[index]->start([=](tesk_link &link) {
                std::deque<uint32_t> ports;
                for (uint32_t port = first + (index + count - first % count) % count; port <= last;
                     port += count)
                    ports.push_back(port);
                for (const procedure &each : {subscribe_sfp, subscribe_status})
                    work_through(link, ports, each);
            });
        for (uint32_t index = 0; index < count; index++)
            clients_[index]->finish();
    }

    static void work_through(tesk_link &link, const std::deque<uint32_t> &ports,
                             const procedure &each)
    {
        for (size_t sent = 0, answered = 0; answered < ports.size(); answered++) {
            for (; sent < ports.size() && sent < answered + window; sent++)
                link.send(each.request, ports[sent]);
            link.await(each.last_answer);
        }
    }

    std::vector<int64_t> time_requests(uint32_t times)
    {
        std::vector<int64_t> taken(times);
        clients_.at(0)->carry_out([&](tesk_link &link) {
            for (int64_t &time : taken)
                time = time_one([&] {
                    link.send(TESK_GET_CAPABILITIES_REQ);
                    link.await(TESK_GET_CAPABILITIES_CFM);
                });
        });
        return taken;
    }

    template <typename function>
    static int64_t time_one(function &&run)
    {
        const int64_t start = now_ns();
        run();
        return now_ns() - start;
    }

    std::vector<int64_t> time_cycles(uint32_t times)
    {
        std::vector<int64_t> taken;
        clients_.at(0)->carry_out([&](tesk_link &link) {
            const auto timed = [&](const procedure &each) {
                taken.push_back(time_one([&] {
                    link.send(each.request, cycle_port);
                    link.await(each.last_answer);
                }));
            };
            while (times-- > 0) {
                timed(subscribe_sfp);
                timed(subscribe_status);
                for (uint32_t event = 0; event < events_a_cycle; event++)
                    taken.push_back(time_event(link, event % 2 == 0 ? "down" : "up"));
                timed(unsubscribe_sfp);
                timed(unsubscribe_status);
            }
        });
        return taken;
    }

    int64_t time_event(tesk_link &link, const std::string &state)
    {
        const std::string request = "set " + std::to_string(cycle_port) + " link=" + state;
        const int64_t time = time_one([&] {
            need(static_cast<int>(send(board_socket_, request.data(), request.size(), 0)), "board");
            link.await(TESK_PORT_STATUS_IND);
        });
        await_board();
        return time;
    }

    std::string await_board()
    {
        std::string answer(4096, '\0');
        const ssize_t size = recv(board_socket_, answer.data(), answer.size(), 0);
        answer.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
        if (!answer.starts_with("ok"))
            fail("the board: " + answer);
        return answer;
    }

    bool board_has_subscriptions()
    {
        send(board_socket_, "board", 5, 0);
        const std::string answer = await_board();
        return answer.find("\nsubscribed_port=0\n") == std::string::npos ||
               answer.find("\nsubscribed_link=0\n") == std::string::npos;
    }

    /* The server handles a client's end without interruption, so a request is answered before or
       after it. The client must be the only one with subscriptions. */
    void lose(uint32_t index)
    {
        std::swap(clients_.at(index), clients_.back());
        clients_.pop_back();
        connected_--;
        while (board_has_subscriptions())
            time_requests(1);
    }

    int board_socket_;
    std::vector<std::unique_ptr<worker>> clients_;
    uint32_t connected_ = 0; /* of the clients; the first ones */
};

} // namespace

static int run(std::span<char *> words)
{
    if (words.size() != 2)
        fail("growth BOARD");
    bench_clients clients(words[1]);
    answer_lines([&](const std::vector<std::string> &line) { return clients.carry_out(line); });
    return 0;
}

int main(int count, char **words)
{
    return report_failures(run, count, words);
}
