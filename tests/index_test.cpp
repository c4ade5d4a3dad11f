/* The indexes against the plain walks over the records that they stand beside, under random
   clients, subscriptions and refusals. */
#include "server_fixture.h"
#include "tesk_client_data.h"
#include "tesk_portsub.h"

#include <map>
#include <random>
#include <set>

class indexes : public server_fixture
{
  protected:
    std::mt19937 random{7};
    std::map<uint32_t, int> refused; /* port status give-backs, by port */

    uint32_t below(uint32_t limit)
    {
        return static_cast<uint32_t>(random()) % limit;
    }

    static uint32_t walk_length(uint32_t port, uint32_t kind)
    {
        const tesk_subscriber *found = tesk_client_first_subscriber(port, kind);
        uint32_t count = 0;
        for (tesk_client *client = tesk_client_first(); client != nullptr; client = client->next)
            for (guint index = 0; index < client->subscriptions->len; index++) {
                const auto &held =
                    g_array_index(client->subscriptions, tesk_client_subscription, index);
                if (held.port_no != port || held.kind != kind)
                    continue;
                /* The list of the port is the walk over all clients. */
                EXPECT_EQ(found->client, client);
                EXPECT_EQ(tesk_client_find_subscription(client, port, kind),
                          static_cast<int32_t>(index));
                found = found->next;
                count++;
            }
        EXPECT_EQ(found, nullptr);
        return count;
    }

    void check(uint32_t ports)
    {
        std::set<int32_t> buckets;
        for (uint32_t port = 0; port < ports; port++) {
            const uint32_t status = walk_length(port, TESK_SUBSCRIPTION_PORT_STATUS);
            const uint32_t info = walk_length(port, TESK_SUBSCRIPTION_SFP_INFO);
            const int32_t bucket = tesk_portsub_get_bucket_id(port);
            const bool status_held = status > 0 || refused[port] > 0;
            EXPECT_EQ(tesk_portsub_find_port_status(port) != -1, status_held);
            EXPECT_EQ(tesk_portsub_find_sfp_info(port) != -1, info > 0);
            EXPECT_EQ(bucket != 0, status_held);
            if (bucket != 0) {
                ASSERT_NE(leaky_bucket_find(bucket), nullptr);
                EXPECT_EQ(leaky_bucket_find(bucket)->id, bucket);
                EXPECT_TRUE(buckets.insert(bucket).second);
            }
        }
        for (tesk_client *client = tesk_client_first(); client != nullptr; client = client->next) {
            EXPECT_EQ(tesk_client_find_by_sender(client->mbox), client);
            EXPECT_EQ(tesk_client_find(client->client_id, client->mbox), client);
            EXPECT_EQ(tesk_client_find(client->client_id + 1, client->mbox), nullptr);
        }
    }
};

TEST_F(indexes, agree_with_the_walks_over_the_records)
{
    constexpr uint32_t ports = 6, mailboxes = 9;
    static constexpr uint32_t requests[] = {
        TESK_SUBSCRIBE_SFP_INFO_REQ, TESK_SUBSCRIBE_PORT_STATUS_REQ, TESK_UNSUBSCRIBE_SFP_INFO_REQ,
        TESK_UNSUBSCRIBE_PORT_STATUS_REQ};
    for (uint32_t port = 0; port < ports; port++)
        scripted::ports[port] = {};

    for (int step = 0; step < 4000 && !HasFailure(); step++) {
        const uint32_t mailbox = 0x100 + below(mailboxes);
        const uint32_t port = below(ports);
        const tesk_client *client = tesk_client_find_by_sender(mailbox);
        if (client == nullptr) {
            connect(mailbox);
        } else if (below(20) == 0) {
            scripted::failing["unsubslink"] = below(4) == 0 ? DOLM_RICERR_BUSY : 0;
            std::set<uint32_t> last;
            for (uint32_t at = 0; at < ports; at++) {
                const auto *only = tesk_client_first_subscriber(at, TESK_SUBSCRIPTION_PORT_STATUS);
                if (only != nullptr && only->client == client && only->next == nullptr &&
                    refused[at] == 0)
                    last.insert(at);
            }
            if (scripted::failing["unsubslink"] != 0)
                for (uint32_t at : last)
                    refused[at]++;
            scripted::deliver_host(mailbox, MBX_MONITOR_DEFAULT_NO, {});
            tesk_handle_mailbox();
            scripted::failing.clear();
        } else {
            send(mailbox, requests[below(4)], {1, client->client_id, port, 0});
        }
        check(ports);
    }
    for (uint32_t port = 0; port < ports; port++)
        while (tesk_portsub_remove_port_status(port) == 0) {
        }
    EXPECT_EQ(leaky_bucket_find(1), nullptr);
}
