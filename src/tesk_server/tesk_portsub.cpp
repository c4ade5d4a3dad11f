/* SPDX-License-Identifier: Apache-2.0 */
/* Two tables, one for each kind of subscription, with one record for each port that has
   subscribers. Each table has an index by port, since every hardware event looks up its port's
   record, and most ports have none.

   A record represents the hardware subscription of its port and kind: it is added when the library
   has accepted the subscription, and removed when the library has ended it. If the library refuses,
   everything is restored: there is no subscription without a record that can end it, and no record
   without a subscription.

   Both records of a port contain the presence of its module. It answers get_sfp_presence without a
   hardware call, and distinguishes a new presence from a repeated one. An update writes both. They
   differ only when a first SFP info subscriber joins a port whose port status record has missed
   changes of the module, since SFP events come with the SFP info subscription only; the next event
   makes them equal again. */
#include "tesk_server/tesk_portsub.h"

#include "tesk_server/leaky_bucket.h"
#include "tesk_server/tesk_dolm_ric.h"
#include "tesk_server/tesk_trace.h"

#include <cstdlib>
#include <glib.h>

/* Five changes to down without a tick between them fill a bucket; the third one reaches the filter
   level. */
static constexpr int32_t bucket_size = 100;
static constexpr int32_t bucket_filter_level = 50;

struct tesk_portsub_port_status {
    uint32_t port_no;
    uint32_t subscribers;
    int32_t bucket_id;
    uint32_t sfp_presence;
    uint32_t port_state;
};

struct tesk_portsub_sfp_info {
    uint32_t port_no;
    uint32_t subscribers;
    uint32_t sfp_presence;
};

static GArray *port_status_table;
static GArray *sfp_info_table;

/* The index of a port's record in its table, plus 1; 0 without a record. A page without a
   subscribed port is never touched, and takes no memory. */
using port_index = uint32_t[tesk_number_of_ports];
static port_index port_status_index;
static port_index sfp_info_index;

static int32_t find_index(const port_index &index, uint32_t port_no)
{
    return port_no < tesk_number_of_ports ? static_cast<int32_t>(index[port_no]) - 1 : -1;
}

static tesk_portsub_port_status *find_port_status(uint32_t port_no)
{
    const int32_t index = find_index(port_status_index, port_no);

    return index == -1 ? nullptr
                       : &g_array_index(port_status_table, tesk_portsub_port_status, index);
}

static tesk_portsub_sfp_info *find_sfp_info(uint32_t port_no)
{
    const int32_t index = find_index(sfp_info_index, port_no);

    return index == -1 ? nullptr : &g_array_index(sfp_info_table, tesk_portsub_sfp_info, index);
}

template <typename record_type>
static void append_record(GArray *table, port_index &index, const record_type &record)
{
    g_array_append_vals(table, &record, 1);
    index[record.port_no] = table->len;
}

/* The last record takes the place of the removed one. If they are the same record, its index is
   written and then cleared: the order of the last two lines matters. */
template <typename record_type>
static void remove_record(GArray *table, port_index &index, uint32_t port_no)
{
    const uint32_t place = index[port_no] - 1;
    const uint32_t last = g_array_index(table, record_type, table->len - 1).port_no;

    g_array_remove_index_fast(table, place);
    index[last] = place + 1;
    index[port_no] = 0;
}

/* The index is cleared port by port: clearing it whole would touch all its pages. */
template <typename record_type>
static void free_table(GArray **table, port_index &index)
{
    if (*table == nullptr)
        return;
    for (guint place = 0; place < (*table)->len; place++)
        index[g_array_index(*table, record_type, place).port_no] = 0;
    g_array_free(*table, TRUE);
    *table = nullptr;
}

/* Decrements the number of subscribers. True if that was the last one, so that the hardware
   subscription is to be ended; otherwise *result is the result of the removal. */
template <typename record_type>
static bool count_down(record_type *record, uint32_t port_no, int32_t *result)
{
    if (record == nullptr) {
        tesk_trace(TESK_TRACE_ERROR, "No client subscribed to port (%u)", port_no);
        *result = tesk_failure;
        return false;
    }
    *result = 0;
    return --record->subscribers == 0;
}

/* Traces that the library refused to end the subscription, and restores the record's count. */
template <typename record_type>
static void keep_record(record_type *record, const char *operation, int32_t result)
{
    tesk_trace(TESK_TRACE_ERROR, "%s: port%u, %d (%s)", operation, record->port_no, result,
               dolm_ric_result_text(result));
    record->subscribers++;
}

static int32_t add_bucket(uint32_t port_no)
{
    const int32_t bucket_id = leaky_bucket_add(bucket_size, bucket_filter_level);

    if (bucket_id == -1)
        tesk_trace(TESK_TRACE_ERROR, "Failed to bound bucket with id %d to port %u", bucket_id,
                   port_no);
    return bucket_id;
}

/* The presence from the records, or else from the hardware. The hardware's answer is stored, since
   the port's SFP info record, if there is one, contains sfp_unknown. */
static tesk_sfp_presence tesk_portsub_resolve_sfp_presence(uint32_t port_no)
{
    tesk_sfp_presence presence = get_sfp_presence(port_no);

    if (presence != sfp_unknown)
        return presence;
    presence = get_dolm_sfp_presence(port_no);
    if (presence == sfp_unknown || presence == unsupported_port) {
        tesk_trace(TESK_TRACE_ERROR, "Failed to get sfp data on port %u with result %s", port_no,
                   tesk_sfp_presence_str(presence));
        return sfp_unknown;
    }
    tesk_portsub_update_sfp_presence(port_no, presence);
    return presence;
}

int32_t tesk_portsub_find_port_status(uint32_t port_no)
{
    return find_index(port_status_index, port_no);
}

int32_t tesk_portsub_find_sfp_info(uint32_t port_no)
{
    return find_index(sfp_info_index, port_no);
}

int32_t tesk_portsub_get_bucket_id(uint32_t port_no)
{
    const tesk_portsub_port_status *record = find_port_status(port_no);

    return record == nullptr ? 0 : record->bucket_id;
}

int32_t tesk_portsub_add_sfp_info(uint32_t port_no)
{
    tesk_portsub_sfp_info *record = find_sfp_info(port_no);

    if (record != nullptr) {
        record->subscribers++;
        return 0;
    }
    /* The presence is read in the same call, so that no change is missed between the two. */
    const tesk_sfp_presence presence = subscribe_sfp_info(port_no);
    if (presence == unsupported_port || presence == sfp_unknown)
        return tesk_failure;
    const tesk_portsub_sfp_info added = {
        .port_no = port_no, .subscribers = 1, .sfp_presence = presence};
    append_record(sfp_info_table, sfp_info_index, added);
    tesk_trace(TESK_TRACE_COURSE,
               "Successfully subscribed for sfp info on port %u with sfp_presence %s", port_no,
               tesk_sfp_presence_str(presence));
    return 0;
}

int32_t tesk_portsub_add_port_status(uint32_t port_no)
{
    tesk_portsub_port_status *record = find_port_status(port_no);

    if (record != nullptr) {
        record->subscribers++;
        return 0;
    }
    if (subscribe_port_status(port_no) != 0)
        return tesk_failure;
    const int32_t bucket_id = add_bucket(port_no);
    if (bucket_id == -1) {
        /* Without a record nothing would end the new hardware subscription. */
        unsubscribe_port_status(port_no);
        return tesk_failure;
    }
    /* The new record is not in the table yet: only the port's SFP info record can provide the
       presence without a hardware call. An unknown presence does not prevent the subscription,
       which concerns the link. The port state is unknown until the first read of the port. */
    const tesk_sfp_presence presence = tesk_portsub_resolve_sfp_presence(port_no);
    const tesk_portsub_port_status added = {.port_no = port_no,
                                            .subscribers = 1,
                                            .bucket_id = bucket_id,
                                            .sfp_presence = presence,
                                            .port_state = port_unknown};
    append_record(port_status_table, port_status_index, added);
    tesk_trace(TESK_TRACE_COURSE,
               "Successfully subscribed for port status on port %u with sfp_presence %s", port_no,
               tesk_sfp_presence_str(presence));
    return 0;
}

int32_t tesk_portsub_remove_sfp_info(uint32_t port_no)
{
    tesk_portsub_sfp_info *record = find_sfp_info(port_no);
    int32_t result;

    if (!count_down(record, port_no, &result))
        return result;
    result = unsubscribe_sfp_info(port_no);
    if (result != 0) {
        keep_record(record, "dolm_unsubsport", result);
        return tesk_failure;
    }
    remove_record<tesk_portsub_sfp_info>(sfp_info_table, sfp_info_index, port_no);
    return 0;
}

int32_t tesk_portsub_remove_port_status(uint32_t port_no)
{
    tesk_portsub_port_status *record = find_port_status(port_no);
    int32_t result;

    if (!count_down(record, port_no, &result))
        return result;
    leaky_bucket_data *bucket = leaky_bucket_take_out(record->bucket_id);
    result = unsubscribe_port_status(port_no);
    if (result != 0) {
        keep_record(record, "dolm_unsubslink", result);
        /* The filter continues with its level; no tick is requested, as the one of the bucket is
           still outstanding. */
        leaky_bucket_reinsert(bucket);
        return tesk_failure;
    }
    free(bucket);
    remove_record<tesk_portsub_port_status>(port_status_table, port_status_index, port_no);
    return 0;
}

bool tesk_portsub_update_sfp_presence(uint32_t port_no, uint32_t presence)
{
    tesk_portsub_port_status *port_status = find_port_status(port_no);
    tesk_portsub_sfp_info *sfp_info = find_sfp_info(port_no);
    bool changed = false;

    if (port_status != nullptr && port_status->sfp_presence != presence) {
        tesk_trace(TESK_TRACE_COURSE, "Updated port status sfp presence from %s to %s",
                   tesk_sfp_presence_str(port_status->sfp_presence),
                   tesk_sfp_presence_str(presence));
        port_status->sfp_presence = presence;
        changed = true;
    }
    if (sfp_info != nullptr && sfp_info->sfp_presence != presence) {
        tesk_trace(TESK_TRACE_COURSE, "Updated sfp info presence from %s to %s",
                   tesk_sfp_presence_str(sfp_info->sfp_presence), tesk_sfp_presence_str(presence));
        sfp_info->sfp_presence = presence;
        changed = true;
    }
    return changed;
}

tesk_sfp_presence get_sfp_presence(uint32_t port_no)
{
    const tesk_portsub_port_status *port_status = find_port_status(port_no);
    const tesk_portsub_sfp_info *sfp_info = find_sfp_info(port_no);

    if (port_status != nullptr)
        tesk_trace(TESK_TRACE_COURSE, "Port status subscription contains sfp presence %s",
                   tesk_sfp_presence_str(port_status->sfp_presence));
    if (sfp_info != nullptr)
        tesk_trace(TESK_TRACE_COURSE, "SFP info subscription contains sfp presence %s",
                   tesk_sfp_presence_str(sfp_info->sfp_presence));

    /* If the two records differ, either may be outdated. The callers read the hardware when the
       presence is unknown. */
    if (port_status != nullptr && sfp_info != nullptr &&
        port_status->sfp_presence != sfp_info->sfp_presence) {
        tesk_trace(TESK_TRACE_ERROR,
                   "get_sfp_presence: failed to get sfp presence for port %u. Missmatch in "
                   "presence for port subscription(%s) and sfp subscription(%s)",
                   port_no, tesk_sfp_presence_str(port_status->sfp_presence),
                   tesk_sfp_presence_str(sfp_info->sfp_presence));
        return sfp_unknown;
    }
    if (port_status != nullptr)
        return static_cast<tesk_sfp_presence>(port_status->sfp_presence);
    if (sfp_info != nullptr)
        return static_cast<tesk_sfp_presence>(sfp_info->sfp_presence);
    return sfp_unknown;
}

bool tesk_portsub_update_port_state(uint32_t port_no, uint32_t new_state)
{
    tesk_portsub_port_status *record = find_port_status(port_no);

    if (record == nullptr) {
        tesk_trace(TESK_TRACE_NOTABLE, "Warning: failed to find port %u for port_state update",
                   port_no);
        return false;
    }
    tesk_trace(TESK_TRACE_COURSE, "port_state change for port %u: new_state(%s) prev_state(%s)",
               port_no, tesk_port_state_str(new_state), tesk_port_state_str(record->port_state));
    if (record->port_state == new_state)
        return false;
    record->port_state = new_state;
    return true;
}

const char *tesk_port_state_str(uint32_t state)
{
    static constexpr const char *names[] = {"PORTSTATE_UP", "PORTSTATE_DOWN", "PORTSTATE_UNKNOWN"};

    return state < G_N_ELEMENTS(names) ? names[state] : "UNSUPPORTED_STATE";
}

const char *tesk_sfp_presence_str(uint32_t presence)
{
    static constexpr const char *names[] = {"SFP_NOT_PRESENT", "SFP_PRESENT_NOT_READY",
                                            "SFP_PRESENT_AND_READY", "SFP_UNKNOWN",
                                            "UNSUPPORTED_PORT"};

    return presence < G_N_ELEMENTS(names) ? names[presence] : "UNSUPPORTED_SFP_PRESENCE";
}

void tesk_portsub_init()
{
    port_status_table = g_array_new(FALSE, FALSE, sizeof(tesk_portsub_port_status));
    sfp_info_table = g_array_new(FALSE, FALSE, sizeof(tesk_portsub_sfp_info));
}

void tesk_portsub_shutdown()
{
    free_table<tesk_portsub_port_status>(&port_status_table, port_status_index);
    free_table<tesk_portsub_sfp_info>(&sfp_info_table, sfp_info_index);
}
