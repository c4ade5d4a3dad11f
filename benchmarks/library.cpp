/* SPDX-License-Identifier: Apache-2.0 */
/* library - a client of libtesk_client that makes one call after the other. It waits in the
   library's own calls, whatever WAITING says. */
#include "benchmarks/harness.h"
#include "tesk_client/tesk_client.h"

namespace
{

using namespace bench;

class library_client : public client
{
  public:
    library_client()
    {
        check(tesk_client_connect(nullptr, &session_));
    }

    ~library_client() override
    {
        tesk_client_close(session_);
    }

    void call(request_kind kind) override
    {
        if (kind == request_kind::pm_counters) {
            tesk_client_pm pm;
            check(tesk_client_read_pm(session_, 0, &pm));
        } else {
            tesk_client_capability capabilities[8];
            size_t count = 0;
            check(tesk_client_read_capabilities(session_, capabilities, 8, &count));
        }
    }

    void send(request_kind) override
    {
        fail("the library's client makes single calls only");
    }

    void receive() override
    {
    }

  private:
    static void check(tesk_client_result result)
    {
        if (result != TESK_CLIENT_OK)
            fail(tesk_client_error());
    }

    tesk_client_session *session_ = nullptr;
};

} // namespace

static std::unique_ptr<client> connect(const std::string &, waiting)
{
    return std::make_unique<library_client>();
}

int main(int count, char **words)
{
    return run_system({connect, nullptr, nullptr}, count, words);
}
