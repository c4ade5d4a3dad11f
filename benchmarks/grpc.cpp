/* SPDX-License-Identifier: Apache-2.0 */
/* grpc - gRPC over a Unix socket with the callback interface, which its documentation advises for
   servers; a subscription is a stream of answers. Each client has a channel of its own, as clients
   in processes of their own have. The library waits on its own threads, whatever WAITING says. */
#include "benchmarks/harness.h"
#include "grpc.grpc.pb.h"

#include <grpcpp/grpcpp.h>
#include <semaphore>

using namespace bench;

static std::unique_ptr<Board::Stub> connect_stub(const std::string &address)
{
    grpc::ChannelArguments arguments;
    arguments.SetInt(GRPC_ARG_USE_LOCAL_SUBCHANNEL_POOL, 1);
    return Board::NewStub(grpc::CreateCustomChannel("unix:" + address,
                                                    grpc::InsecureChannelCredentials(), arguments));
}

static Request make_request(request_kind kind)
{
    Request request;
    request.set_kind(static_cast<uint32_t>(kind));
    request.set_payload(std::string(request_size(kind) - 4, '\0'));
    return request;
}

static void check(const grpc::Status &status)
{
    if (!status.ok())
        fail(status.error_message());
}

namespace
{

class grpc_client : public client
{
  public:
    explicit grpc_client(const std::string &address) : stub_(connect_stub(address))
    {
    }

    void call(request_kind kind) override
    {
        grpc::ClientContext context;
        context.set_wait_for_ready(true);
        Answer answer;
        check(stub_->Call(&context, make_request(kind), &answer));
    }

    void send(request_kind kind) override
    {
        struct one_call {
            grpc::ClientContext context;
            Request request;
            Answer answer;
        };
        auto *call = new one_call;
        call->request = make_request(kind);
        stub_->async()->Call(&call->context, &call->request, &call->answer,
                             [this, call](const grpc::Status &status) {
                                 if (!status.ok())
                                     abort();
                                 delete call;
                                 answered_.release();
                             });
    }

    void receive() override
    {
        answered_.acquire();
    }

  private:
    std::unique_ptr<Board::Stub> stub_;
    std::counting_semaphore<> answered_{0};
};

} // namespace

static std::unique_ptr<client> connect(const std::string &address, waiting)
{
    return std::make_unique<grpc_client>(address);
}

/* The server sends a first answer when the stream is open. */
static void subscribe(const std::string &address, waiting, receipts &record)
{
    const std::unique_ptr<Board::Stub> stub = connect_stub(address);
    grpc::ClientContext context;
    context.set_wait_for_ready(true);
    Answer answer;
    const auto stream = stub->Subscribe(&context, make_request(request_kind::subscribe));
    if (stream->Read(&answer))
        record.note_ready();
    while (stream->Read(&answer))
        record.note_receipt();
    check(stream->Finish());
}

namespace
{

/* One subscriber's stream; one answer is written at a time. */
class stream : public grpc::ServerWriteReactor<Answer>
{
  public:
    void notify()
    {
        const std::lock_guard guard(lock_);
        if (to_write_++ == 0)
            write();
    }

    void OnWriteDone(bool) override
    {
        const std::lock_guard guard(lock_);
        if (--to_write_ > 0)
            write();
    }

    void OnDone() override
    {
    }

  private:
    void write()
    {
        static const Answer answer = [] {
            Answer made;
            made.set_payload(std::string(event_size - 4, '\0'));
            return made;
        }();
        StartWrite(&answer);
    }

    std::mutex lock_;
    uint32_t to_write_ = 0;
};

/* Streams stay until the process ends. */
class service : public Board::CallbackService
{
  public:
    grpc::ServerUnaryReactor *Call(grpc::CallbackServerContext *context, const Request *request,
                                   Answer *answer) override
    {
        const auto kind = static_cast<request_kind>(request->kind());
        answer->set_payload(std::string(answer_size(kind) - 4, '\0'));
        grpc::ServerUnaryReactor *reactor = context->DefaultReactor();
        reactor->Finish(grpc::Status::OK);
        return reactor;
    }

    grpc::ServerWriteReactor<Answer> *Subscribe(grpc::CallbackServerContext *,
                                                const Request *) override
    {
        auto *added = new stream;
        const std::lock_guard guard(lock_);
        streams_.push_back(added);
        added->notify();
        return added;
    }

    void notify_all()
    {
        const std::lock_guard guard(lock_);
        for (stream *subscriber : streams_)
            subscriber->notify();
    }

  private:
    std::mutex lock_;
    std::vector<stream *> streams_;
};

} // namespace

static void serve(const std::string &address, board &events)
{
    service offered;
    grpc::ServerBuilder builder;
    builder.AddListeningPort("unix:" + address, grpc::InsecureServerCredentials());
    builder.RegisterService(&offered);
    const std::unique_ptr<grpc::Server> server = builder.BuildAndStart();
    events.serve([&] { offered.notify_all(); });
}

int main(int count, char **words)
{
    return run_system({connect, subscribe, serve}, count, words);
}
