/* SPDX-License-Identifier: Apache-2.0 */
/* redis - Redis through hiredis: a request is a GET of a value of the answer's size, requests in
   flight are pipelined, an event is a PUBLISH by a process of its own. ADDRESS is the path of
   redis-server's socket. */
#include "benchmarks/harness.h"

#include <hiredis/hiredis.h>
#include <unistd.h>

using namespace bench;

static redisContext *connect_redis(const std::string &path)
{
    redisContext *context = redisConnectUnix(path.c_str());
    if (context == nullptr || context->err != 0)
        fail(path + ": " + (context != nullptr ? context->errstr : "no memory"));
    return context;
}

static void check(const redisContext *context, int result)
{
    if (result != REDIS_OK)
        fail(std::string("Redis: ") + context->errstr);
}

/* Frees a reply, which must be no error. */
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
    redis_client(const std::string &address, waiting how)
        : context_(connect_redis(address)),
          epoll_(how == waiting::in_epoll ? watch(context_->fd) : -1)
    {
    }

    ~redis_client() override
    {
        if (epoll_ != -1)
            close(epoll_);
        redisFree(context_);
    }

    void send(request_kind kind) override
    {
        redisAppendCommand(context_, "GET %d", static_cast<int>(kind));
    }

    void receive() override
    {
        void *reply = nullptr;
        if (epoll_ == -1)
            redisGetReply(context_, &reply);
        else
            reply = await_reply();
        free_good(reply);
    }

    void subscribe()
    {
        free_good(redisCommand(context_, "SUBSCRIBE events"));
    }

  private:
    /* As redisGetReply, with epoll_wait before each read: commands are written once no reply is
       left in the buffer. */
    void *await_reply()
    {
        void *reply = nullptr;
        check(context_, redisGetReplyFromReader(context_, &reply));
        for (int done = reply != nullptr; done == 0;)
            check(context_, redisBufferWrite(context_, &done));
        while (reply == nullptr) {
            await_ready(epoll_);
            check(context_, redisBufferRead(context_));
            check(context_, redisGetReplyFromReader(context_, &reply));
        }
        return reply;
    }

    redisContext *context_;
    int epoll_;
};

} // namespace

static std::unique_ptr<client> connect(const std::string &address, waiting how)
{
    return std::make_unique<redis_client>(address, how);
}

static void subscribe(const std::string &address, waiting how, receipts &record)
{
    redis_client connection(address, how);
    connection.subscribe();
    record.note_ready();
    for (;;) {
        connection.receive();
        record.note_receipt();
    }
}

static void serve(const std::string &address, board &events)
{
    static constexpr char payload[largest_size] = {};
    redisContext *context = connect_redis(address);
    for (const request_kind kind : {request_kind::capabilities, request_kind::pm_counters})
        free_good(
            redisCommand(context, "SET %d %b", static_cast<int>(kind), payload, answer_size(kind)));
    events.serve(
        [&] { free_good(redisCommand(context, "PUBLISH events %b", payload, event_size)); });
}

int main(int count, char **words)
{
    return run_system({connect, subscribe, serve}, count, words);
}
