/* SPDX-License-Identifier: Apache-2.0 */
/* http - serves model and events by HTTP, in the main thread, whose loop waits for fd() and calls
   run(). No call blocks: a client that doesn't send its request, or doesn't read its answer, is
   disconnected after a time limit, and the memory for all clients is bounded. */
#pragma once

#include "tesk_exporter/api.h"
#include "tesk_exporter/connections.h"
#include "tesk_exporter/event_readers.h"
#include "tesk_exporter/history_requests.h"
#include "tesk_exporter/metrics.h"
#include "tesk_exporter/options.h"
#include "tesk_exporter/port_details.h"
#include "tesk_exporter/response.h"
#include "tesk_exporter/web_files.h"

#include <microhttpd.h>
#include <optional>

namespace exporter
{

class http_server
{
  public:
    /* The arguments must outlive this object. Throws std::runtime_error with a text that says what
       to do. */
    http_server(const settings &given, const model &board, const event_ring &events,
                exporter_figures &figures, port_details &details);
    ~http_server();
    http_server(const http_server &) = delete;
    http_server &operator=(const http_server &) = delete;

    /* Enables requests for the history; `history` must outlive this object. */
    void use_history(history_keeper &history)
    {
        history_.use(history);
    }

    /* Readable when run() must be called. */
    int fd() const;
    /* When run() must be called even if fd() isn't readable; nothing if there is no such time. */
    std::optional<steady_time> next_run() const;
    /* Serves all ready connections, without blocking. */
    void run();
    /* Writes the new events of the ring to the streams. */
    void continue_streams()
    {
        readers_.resume_all();
    }

  private:
    struct http_request {
        MHD_Connection *http;
        connection &from;
        moment now;
    };
    using handler = MHD_Result (http_server::*)(const http_request &);
    struct route;

    static MHD_Result handle(void *server, MHD_Connection *http, const char *url,
                             const char *method, const char *version, const char *upload,
                             size_t *upload_size, void **state);
    static void completed(void *server, MHD_Connection *http, void **state,
                          MHD_RequestTerminationCode code);
    static void connected(void *server, MHD_Connection *http, void **context,
                          MHD_ConnectionNotificationCode code);
    MHD_Result answer(const http_request &request, const char *method, std::string_view path);
    bool is_meant_for_us(const http_request &request) const;
    MHD_Result send(const http_request &request, unsigned status, MHD_Response *made);
    MHD_Result send_text(const http_request &request, unsigned status, const std::string &text);
    MHD_Result send_json(const http_request &request, const std::string &text);
    MHD_Result send_metrics(const http_request &request);
    MHD_Result send_ports(const http_request &request);
    MHD_Result send_port(const http_request &request, uint32_t port_no);
    MHD_Result send_plot(const http_request &request);
    MHD_Result send_events(const http_request &request);
    MHD_Result send_history(const http_request &request);
    MHD_Result send_falls(const http_request &request);
    MHD_Result send_modules(const http_request &request);
    MHD_Result send_forecast(const http_request &request);
    MHD_Result ask_history(const http_request &request, const history_question &asked);
    MHD_Result send_stream(const http_request &request);
    MHD_Result send_health(const http_request &request);
    MHD_Result send_readiness(const http_request &request);
    MHD_Result send_file(const http_request &request, std::string_view path);
    /* Finds a port by its number or interface. */
    std::optional<uint32_t> port_called(std::string_view text) const;
    std::optional<uint32_t> port_argument(MHD_Connection *http) const;
    std::optional<uint32_t> port_of_path(std::string_view path) const;
    const port_state *port_of(const http_request &request, unsigned &status) const;
    void give_memory_back();

    const settings &settings_;
    const model &model_;
    const event_ring &events_;
    exporter_figures &figures_;
    port_details &details_;
    const web_files files_;
    connection_table connections_;
    history_requests history_;
    event_readers readers_;
    shared_body bodies_[3]; /* metrics, by text_format, and the ports as JSON */
    steady_time next_look_{};
    bool was_crowded_ = false;
    bool is_ending_ = false;
    MHD_Daemon *daemon_ = nullptr;
};

} // namespace exporter
