/* SPDX-License-Identifier: Apache-2.0 */
/* redis - Redis through hiredis: a request is a GET of what would be answered, many are pipelined,
   an event is a PUBLISH by a process of its own. ADDRESS is the path of redis-server's socket. */
#include "benchmarks/harness.h"

#include <hiredis/hiredis.h>
#include <sys/epoll.h>

using namespace bench;

static redisContext *connect_redis(const std::string &path)
{
    redisContext *context = redisConnectUnix(path.c_str());
    if (context == nullptr || context->err != 0)
        fail(path + ": " + (context != nullptr ? context->errstr : "no memory"));
    return context;
}

static void free_good(void *reply)
{
    if (reply == nullptr || static_cast<redisReply *>(reply)->type == REDIS_REPLY_ERROR)
        fail("redis-server refuses a command");
    freeReplyObject(reply);
}

namespace
{

class redis_client : public client
{
  public:
    explicit redis_client(const std::string &address) : context(connect_redis(address))
    {
    }

    void call(request_kind kind) override
    {
        free_good(redisCommand(context, "GET %d", static_cast<int>(kind)));
    }

    void send(request_kind kind) override
    {
        redisAppendCommand(context, "GET %d", static_cast<int>(kind));
    }

    void receive() override
    {
        void *reply = nullptr;
        redisGetReply(context, &reply);
        free_good(reply);
    }

    void subscribe()
    {
        free_good(redisCommand(context, "SUBSCRIBE events"));
    }

  private:
    redisContext *context;
};

} // namespace

static std::unique_ptr<client> connect(const std::string &address)
{
    return std::make_unique<redis_client>(address);
}

static void subscribe(const std::string &address, receipts &told)
{
    redis_client connection(address);
    connection.subscribe();
    told.note_ready();
    for (;;) {
        connection.receive();
        told.note_told();
    }
}

static void serve(const std::string &address, board &events)
{
    static constexpr char payload[largest_size] = {};
    redisContext *context = connect_redis(address);
    for (const request_kind kind : {request_kind::capabilities, request_kind::pm_counters})
        free_good(
            redisCommand(context, "SET %d %b", static_cast<int>(kind), payload, answer_size(kind)));
    const int epoll = watch(events.start());
    for (;;) {
        epoll_event event;
        if (epoll_wait(epoll, &event, 1, -1) != 1)
            continue;
        for (uint32_t count = events.take(); count > 0; count--)
            free_good(redisCommand(context, "PUBLISH events %b", payload, event_size));
    }
}

int main(int count, char **words)
{
    return run_system({connect, subscribe, serve}, count, words);
}
