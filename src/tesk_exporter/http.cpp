/* SPDX-License-Identifier: Apache-2.0 */
/* The HTTP library works without threads of its own: it has one epoll descriptor, and looks at its
   sockets when run() is called. */
#include "tesk_exporter/http.h"

#include "program/clock.h"
#include "program/exit_code.h"
#include "program/recorded_falls.h"
#include "tesk_exporter/host_check.h"
#include "tesk_exporter/listener.h"
#include "util/calls.h"

#include <algorithm>
#include <charconv>
#include <cstring>
#include <malloc.h>
#include <new>
#include <stdexcept>
#include <sys/socket.h>
#include <utility>

namespace exporter
{

static constexpr size_t connection_memory = 16384; /* of the library, headers included */
static constexpr std::chrono::seconds connections_look_pause{5};

struct http_server::route {
    std::string_view path;
    place kind;
    handler handle;
};

/* Without these calls the HTTP library starts, but answers no request. */
static void expect_calls()
{
    char byte;
    const char *refused =
        util::is_refused(recv(-1, &byte, 1, 0)) ? "recvfrom" : util::refused_call(true);
    if (refused != nullptr)
        throw std::runtime_error(std::string("the system refuses ") + refused + " (" +
                                 strerror(errno) +
                                 "), without which no request is answered: allow that call");
}

http_server::http_server(const settings &given, const model &board, const event_ring &events,
                         exporter_figures &figures, port_details &details)
    : settings_(given), model_(board), events_(events), figures_(figures), details_(details),
      files_(given.web)
{
    expect_calls();
    const int listener = open_listener(given.listen);
    daemon_ = MHD_start_daemon(
        MHD_USE_EPOLL | MHD_ALLOW_SUSPEND_RESUME, 0, nullptr, nullptr, &handle, this,
        MHD_OPTION_LISTEN_SOCKET, listener, MHD_OPTION_CONNECTION_LIMIT, most_connections,
        MHD_OPTION_CONNECTION_MEMORY_LIMIT, connection_memory, MHD_OPTION_STRICT_FOR_CLIENT, 1,
        MHD_OPTION_SIGPIPE_HANDLED_BY_APP, 1, MHD_OPTION_NOTIFY_COMPLETED, &completed, this,
        MHD_OPTION_NOTIFY_CONNECTION, &connected, this, MHD_OPTION_END);
    if (daemon_ == nullptr)
        throw std::runtime_error(
            "the HTTP library doesn't start: allow more open files (ulimit -n)");
}

/* The library aborts if it is stopped with a suspended connection: all are resumed, and no more are
   suspended. */
http_server::~http_server()
{
    is_ending_ = true;
    readers_.end_all();
    history_.resume_answered(steady_time::max());
    MHD_run(daemon_);
    MHD_stop_daemon(daemon_);
    remove_listener(settings_.listen);
}

int http_server::fd() const
{
    return MHD_get_daemon_info(daemon_, MHD_DAEMON_INFO_EPOLL_FD)->epoll_fd;
}

std::optional<steady_time> http_server::next_run() const
{
    MHD_UNSIGNED_LONG_LONG timeout = 0;
    if (MHD_get_timeout(daemon_, &timeout) == MHD_YES)
        return steady_clock::now() + std::chrono::milliseconds(timeout);
    if (!history_.empty())
        return steady_clock::now() + std::chrono::seconds(1);
    if (!std::ranges::all_of(bodies_, &shared_body::empty))
        return steady_clock::now() + shared_body::longest_age;
    return connections_.size() > 0 || was_crowded_ ? std::optional(next_look_) : std::nullopt;
}

void http_server::run()
{
    const steady_time now = steady_clock::now();
    if (now >= next_look_) {
        next_look_ = now + connections_look_pause;
        connections_.end_overdue(now);
        readers_.look();
        give_memory_back();
    }
    history_.resume_answered(now);
    MHD_run(daemon_);
    for (shared_body &body : bodies_)
        body.drop_old(now);
    figures_.connections = connections_.size();
    figures_.streams = readers_.size();
    figures_.ended_connections = connections_.ended();
}

/* The freed memory of many connections lies between blocks in use, so malloc doesn't return it by
   itself. */
void http_server::give_memory_back()
{
    const bool is_crowded = connections_.size() > 32;
    if (was_crowded_ && !is_crowded)
        malloc_trim(0);
    was_crowded_ = is_crowded;
}

void http_server::connected(void *server, MHD_Connection *http, void **context,
                            MHD_ConnectionNotificationCode code)
{
    auto *self = static_cast<http_server *>(server);
    if (code == MHD_CONNECTION_NOTIFY_CLOSED) {
        self->connections_.remove(static_cast<connection *>(*context));
        return;
    }
    const int fd = MHD_get_connection_info(http, MHD_CONNECTION_INFO_CONNECTION_FD)->connect_fd;
    *context = self->connections_.add(fd, steady_clock::now());
}

static connection *connection_of(MHD_Connection *http)
{
    const auto *info = MHD_get_connection_info(http, MHD_CONNECTION_INFO_SOCKET_CONTEXT);
    return static_cast<connection *>(info->socket_context);
}

void http_server::completed(void *server, MHD_Connection *http, void **, MHD_RequestTerminationCode)
{
    auto *self = static_cast<http_server *>(server);
    self->history_.forget(http);
    self->connections_.leave_place(*connection_of(http), steady_clock::now());
}

/* The library calls this once with the headers, then for each part of a body, which is ignored, and
   once at the end: the request is answered then. Other methods are refused in the first call,
   before the body is received. */
MHD_Result http_server::handle(void *server, MHD_Connection *http, const char *url,
                               const char *method, const char *, const char *, size_t *upload_size,
                               void **state)
try {
    auto *self = static_cast<http_server *>(server);
    const bool is_read = std::strcmp(method, MHD_HTTP_METHOD_GET) == 0 ||
                         std::strcmp(method, MHD_HTTP_METHOD_HEAD) == 0;
    if (*state == nullptr && is_read) {
        *state = self;
        return MHD_YES;
    }
    if (*upload_size > 0) {
        *upload_size = 0;
        return MHD_YES;
    }
    const http_request request{http, *connection_of(http), {steady_clock::now(), now_us()}};
    return self->answer(request, is_read ? method : nullptr, url);
} catch (const std::bad_alloc &) {
    return MHD_NO; /* ends the connection */
}

static std::optional<std::string> only_host(MHD_Connection *http)
{
    std::vector<std::string> hosts;
    const auto each = [](void *found, MHD_ValueKind, const char *name, const char *value) {
        if (strcasecmp(name, MHD_HTTP_HEADER_HOST) == 0)
            static_cast<std::vector<std::string> *>(found)->emplace_back(value ? value : "");
        return MHD_YES;
    };
    MHD_get_connection_values(http, MHD_HEADER_KIND, each, &hosts);
    return hosts.size() == 1 ? std::optional(hosts.front()) : std::nullopt;
}

bool http_server::is_meant_for_us(const http_request &request) const
{
    sockaddr_storage local{};
    socklen_t size = sizeof(local);
    const auto host = only_host(request.http);
    return host && getsockname(request.from.fd, reinterpret_cast<sockaddr *>(&local), &size) == 0 &&
           is_host_allowed(*host, local, settings_.hosts);
}

MHD_Result http_server::send(const http_request &request, unsigned status, MHD_Response *made)
{
    if (made == nullptr)
        return MHD_NO;
    figures_.responses[status]++;
    return MHD_queue_response(request.http, status, made);
}

MHD_Result http_server::send_text(const http_request &request, unsigned status,
                                  const std::string &text)
{
    const response made = text_response(text + "\n", "text/plain; charset=utf-8");
    if (made && status == MHD_HTTP_METHOD_NOT_ALLOWED)
        add_header(made, MHD_HTTP_HEADER_ALLOW, "GET, HEAD");
    if (made && status == MHD_HTTP_SERVICE_UNAVAILABLE)
        add_header(made, MHD_HTTP_HEADER_RETRY_AFTER, "2");
    return send(request, status, made.get());
}

MHD_Result http_server::send_json(const http_request &request, const std::string &text)
{
    return send(request, MHD_HTTP_OK, text_response(text, "application/json").get());
}

MHD_Result http_server::send_metrics(const http_request &request)
{
    const char *accept =
        MHD_lookup_connection_value(request.http, MHD_HEADER_KIND, MHD_HTTP_HEADER_ACCEPT);
    const text_format format = choose_format(accept == nullptr ? "" : accept);
    const auto render = [&] {
        figures_.events = events_.next() - 1;
        return render_metrics(model_, details_, settings_.lanes, figures_, format,
                              request.now.steady);
    };
    shared_body &body = bodies_[static_cast<size_t>(format)];
    return send(request, MHD_HTTP_OK, body.get(request.now.steady, content_type(format), render));
}

MHD_Result http_server::send_ports(const http_request &request)
{
    const auto render = [&] {
        return ports_json(model_, events_, settings_.interval, figures_.forecasts, request.now);
    };
    return send(request, MHD_HTTP_OK,
                bodies_[2].get(request.now.steady, "application/json", render));
}

static std::optional<uint32_t> parse_port(std::string_view digits)
{
    uint32_t number = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), number);
    if (error != std::errc{} || end != digits.data() + digits.size())
        return std::nullopt;
    return number;
}

std::optional<uint32_t> http_server::port_called(std::string_view text) const
{
    if (const auto number = parse_port(text))
        return number;
    const auto found = std::ranges::find_if(
        model_.ports(), [&](const auto &each) { return each.second.interface == text; });
    return text.empty() || found == model_.ports().end() ? std::nullopt
                                                         : std::optional(found->first);
}

std::optional<uint32_t> http_server::port_argument(MHD_Connection *http) const
{
    const char *text = MHD_lookup_connection_value(http, MHD_GET_ARGUMENT_KIND, "port");
    return port_called(text == nullptr ? "" : text);
}

/* The port that the argument names; null, with the status of the refusal, if there is none. */
const port_state *http_server::port_of(const http_request &request, unsigned &status) const
{
    const auto number = port_argument(request.http);
    status = MHD_HTTP_BAD_REQUEST;
    if (!number)
        return nullptr;
    status = MHD_HTTP_NOT_FOUND;
    const auto found = model_.ports().find(*number);
    return found == model_.ports().end() ? nullptr : &found->second;
}

static const char *port_fault(unsigned status)
{
    return status == MHD_HTTP_NOT_FOUND ? "there is no such port"
                                        : "name a port: ?port=NUMBER, or its interface";
}

MHD_Result http_server::send_plot(const http_request &request)
{
    unsigned status = 0;
    const port_state *port = port_of(request, status);
    if (port == nullptr)
        return send_text(request, status, port_fault(status));
    const char *range = MHD_lookup_connection_value(request.http, MHD_GET_ARGUMENT_KIND, "range");
    const std::string_view wanted = range == nullptr ? "hour" : range;
    if (wanted != "hour" && wanted != "day")
        return send_text(request, MHD_HTTP_BAD_REQUEST, "range is hour or day");
    return send_json(request, plot_json(*port, wanted == "day", request.now));
}

MHD_Result http_server::send_events(const http_request &request)
{
    unsigned status = 0;
    const port_state *port = port_of(request, status);
    if (port == nullptr)
        return send_text(request, status, port_fault(status));
    return send_json(request, events_json(events_, port->number));
}

/* When the connection is resumed, the library calls the handler again. */
MHD_Result http_server::ask_history(const http_request &request, const history_question &asked)
{
    if (history_.ask(request.http, request.from, asked, request.now.steady))
        return MHD_YES;
    return send_text(request, MHD_HTTP_NOT_FOUND,
                     "no history is kept: tesk-exporter --history DIR keeps one");
}

MHD_Result http_server::send_history(const http_request &request)
{
    using named_level = std::pair<std::string_view, history::level>;
    static constexpr named_level spans[] = {
        {"2d", history::step_rows}, {"8w", history::hour_rows}, {"2y", history::day_rows}};
    unsigned status = 0;
    const auto port = port_argument(request.http);
    if (!port)
        return send_text(request, MHD_HTTP_BAD_REQUEST, port_fault(MHD_HTTP_BAD_REQUEST));
    const char *span = MHD_lookup_connection_value(request.http, MHD_GET_ARGUMENT_KIND, "span");
    const std::string_view wanted = span == nullptr ? "2d" : span;
    const auto *found = std::ranges::find(spans, wanted, &named_level::first);
    if (found == std::end(spans))
        return send_text(request, MHD_HTTP_BAD_REQUEST, "span is 2d, 8w or 2y");
    return ask_history(request, {history_question::kind::port, *port, found->second,
                                 port_of(request, status) != nullptr});
}

/* The falls of one port are in its file of some kilobytes. */
MHD_Result http_server::send_falls(const http_request &request)
{
    constexpr size_t usual = 32;
    const char *last = MHD_lookup_connection_value(request.http, MHD_GET_ARGUMENT_KIND, "last");
    const auto most = parse_port(last == nullptr ? std::to_string(usual) : last);
    if (!most || *most == 0)
        return send_text(request, MHD_HTTP_BAD_REQUEST, "last is the number of falls, from 1 on");
    if (MHD_lookup_connection_value(request.http, MHD_GET_ARGUMENT_KIND, "port") == nullptr)
        return send_json(request, model_.falls().json(*most));
    unsigned status = 0;
    const port_state *port = port_of(request, status);
    if (port == nullptr)
        return send_text(request, status, port_fault(status));
    try {
        return send_json(request, falls_json(falls_folder(), port->number, *most));
    } catch (const tool_error &error) {
        return send_text(request, MHD_HTTP_SERVICE_UNAVAILABLE, error.what());
    }
}

MHD_Result http_server::send_modules(const http_request &request)
{
    return ask_history(request, {history_question::kind::modules, 0, history::step_rows, true});
}

MHD_Result http_server::send_forecast(const http_request &request)
{
    return ask_history(request, {history_question::kind::forecast, 0, history::step_rows, true});
}

MHD_Result http_server::send_stream(const http_request &request)
{
    const char *last_id =
        MHD_lookup_connection_value(request.http, MHD_HEADER_KIND, MHD_HTTP_HEADER_LAST_EVENT_ID);
    const response made =
        readers_.add(request.http, request.from,
                     event_stream(events_, model_, last_id == nullptr ? "" : last_id));
    return send(request, MHD_HTTP_OK, made.get());
}

/* Any answer shows that the exporter works, so the status is always 200. */
MHD_Result http_server::send_health(const http_request &request)
{
    const std::string trouble = model_.trouble();
    return send_text(request, MHD_HTTP_OK, trouble.empty() ? "ok" : "ok, but: " + trouble);
}

MHD_Result http_server::send_readiness(const http_request &request)
{
    return model_.is_ready() ? send_text(request, MHD_HTTP_OK, "ok")
                             : send_text(request, MHD_HTTP_SERVICE_UNAVAILABLE, model_.trouble());
}

MHD_Result http_server::send_file(const http_request &request, std::string_view path)
{
    auto file = files_.open(path);
    if (!file && path == "/")
        return send_text(request, MHD_HTTP_NOT_FOUND, "there is no page in " + settings_.web);
    if (!file)
        return send_text(request, MHD_HTTP_NOT_FOUND, "there is nothing at this path");
    return send(request, MHD_HTTP_OK, file_response(std::move(*file)).get());
}

/* The N of /api/ports/N. */
std::optional<uint32_t> http_server::port_of_path(std::string_view path) const
{
    constexpr std::string_view folder = "/api/ports/";
    return path.starts_with(folder) ? port_called(path.substr(folder.size())) : std::nullopt;
}

MHD_Result http_server::send_port(const http_request &request, uint32_t port_no)
{
    const auto known = model_.ports().find(port_no);
    if (known == model_.ports().end())
        return send_text(request, MHD_HTTP_NOT_FOUND, port_fault(MHD_HTTP_NOT_FOUND));
    const auto record = details_.read(port_no);
    return send_json(request, port_json(model_, known->second, record.get(), details_.result(),
                                        figures_.forecasts, request.now));
}

MHD_Result http_server::answer(const http_request &request, const char *method,
                               std::string_view path)
{
    static constexpr route routes[] = {
        {"/metrics", place::metrics, &http_server::send_metrics},
        {"/healthz", place::metrics, &http_server::send_health},
        {"/readyz", place::metrics, &http_server::send_readiness},
        {"/events", place::stream, &http_server::send_stream},
        {"/api/ports", place::page, &http_server::send_ports},
        {"/api/plot", place::page, &http_server::send_plot},
        {"/api/events", place::page, &http_server::send_events},
        {"/api/history", place::page, &http_server::send_history},
        {"/api/modules", place::page, &http_server::send_modules},
        {"/api/falls", place::page, &http_server::send_falls},
        {"/api/forecast", place::page, &http_server::send_forecast},
    };
    if (const auto made = history_.take(request.http))
        return made->status == MHD_HTTP_OK ? send_json(request, made->text)
                                           : send_text(request, made->status, made->text);
    if (is_ending_)
        return send_text(request, MHD_HTTP_SERVICE_UNAVAILABLE, "the exporter ends");
    if (method == nullptr)
        return send_text(request, MHD_HTTP_METHOD_NOT_ALLOWED, "only GET and HEAD are answered");
    if (!is_meant_for_us(request))
        return send_text(request, MHD_HTTP_MISDIRECTED_REQUEST,
                         "the Host header names another host; --host NAME accepts it");
    const auto *found = std::ranges::find(routes, path, &route::path);
    const bool is_route = found != std::end(routes);
    const auto port_no = is_route ? std::nullopt : port_of_path(path);
    const place kind = is_route ? found->kind : place::page;
    if (kind == place::stream && connections_.taken(kind) >= places[static_cast<size_t>(kind)])
        readers_.end_gone(); /* frees the places of readers that have disconnected */
    if (!connections_.take_place(request.from, kind, request.now.steady))
        return send_text(request, MHD_HTTP_SERVICE_UNAVAILABLE, "all places are taken");
    if (port_no)
        return send_port(request, *port_no);
    return is_route ? (this->*found->handle)(request) : send_file(request, path);
}

} // namespace exporter
