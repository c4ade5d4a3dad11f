/* SPDX-License-Identifier: Apache-2.0 */
/* The functions are in the order of the header. The library releases the last owner of a body
   inside its calls. */
#include "tesk_exporter/response.h"

#include <utility>

namespace exporter
{

static constexpr size_t most_bodies = 8;

/* The number of shared bodies that exist. */
static size_t live_bodies;

static constexpr std::pair<const char *, const char *> headers_of_all[] = {
    {"Content-Security-Policy",
     "default-src 'none'; script-src 'self'; style-src 'self'; img-src 'self' data:; "
     "font-src 'self'; connect-src 'self'; base-uri 'none'; form-action 'none'; "
     "frame-ancestors 'none'"},
    {"X-Content-Type-Options", "nosniff"},
    {"Referrer-Policy", "no-referrer"},
    {"Cross-Origin-Resource-Policy", "same-origin"},
    {"Cross-Origin-Opener-Policy", "same-origin"},
    {"Cache-Control", "no-cache"},
};

void add_header(const response &to, const char *name, const char *value)
{
    MHD_add_response_header(to.get(), name, value);
}

response finished(MHD_Response *made, const char *content_type)
{
    response its(made);
    if (!its)
        return its;
    add_header(its, MHD_HTTP_HEADER_CONTENT_TYPE, content_type);
    for (const auto &[name, value] : headers_of_all)
        add_header(its, name, value);
    return its;
}

response text_response(const std::string &text, const char *content_type)
{
    return finished(MHD_create_response_from_buffer(text.size(), const_cast<char *>(text.data()),
                                                    MHD_RESPMEM_MUST_COPY),
                    content_type);
}

response file_response(web_files::file &&file)
{
    MHD_Response *made = MHD_create_response_from_fd64(file.size, file.opened.get());
    if (made != nullptr)
        file.opened.release(); /* the answer owns the descriptor now */
    return finished(made, file.type);
}

static response body_response(std::string text, const char *content_type)
{
    auto body = std::make_unique<std::string>(std::move(text));
    MHD_Response *made = MHD_create_response_from_buffer_with_free_callback_cls(
        body->size(), body->data(),
        [](void *owned) {
            delete static_cast<std::string *>(owned);
            live_bodies--;
        },
        body.get());
    if (made == nullptr)
        return {};
    static_cast<void>(body.release()); /* the answer owns the body now */
    live_bodies++;
    return finished(made, content_type);
}

bool shared_body::is_over(steady_time now) const
{
    return now - made_ >= longest_age && live_bodies < most_bodies;
}

MHD_Response *shared_body::get(steady_time now, const char *content_type,
                               const std::function<std::string()> &render)
{
    if (body_ && !is_over(now))
        return body_.get();
    response made = body_response(render(), content_type);
    if (!made)
        return nullptr;
    body_ = std::move(made);
    made_ = now;
    return body_.get();
}

void shared_body::drop_old(steady_time now)
{
    if (body_ && is_over(now))
        body_.reset();
}

} // namespace exporter
