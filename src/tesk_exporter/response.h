/* SPDX-License-Identifier: Apache-2.0 */
/* response - answers for the HTTP library, which are released with their last owner, and bodies
   that several answers share for a short time. Main thread only. */
#pragma once

#include "tesk_exporter/facts.h"
#include "tesk_exporter/web_files.h"

#include <functional>
#include <memory>
#include <microhttpd.h>
#include <string>

namespace exporter
{

struct response_release {
    void operator()(MHD_Response *released) const
    {
        MHD_destroy_response(released);
    }
};

/* Empty if there is no memory for the response. The library holds a reference to a queued
   response. */
using response = std::unique_ptr<MHD_Response, response_release>;

/* Takes ownership of a response of the library, and adds the headers that all answers have. */
response finished(MHD_Response *made, const char *content_type);
response text_response(const std::string &text, const char *content_type);
response file_response(web_files::file &&file);
void add_header(const response &to, const char *name, const char *value);

/* A body that is rendered at most once in longest_age, since rendering takes the most time: a
   thousand scrapes a second need a few renderings. A body exists until its slowest reader has
   received it; while too many bodies exist, the newest one is sent again, however old it is. */
class shared_body
{
  public:
    /* An older body is not sent, but rendered again. */
    static constexpr std::chrono::milliseconds longest_age{250};

    /* The body; rendered by `render` if no stored one is young enough; null without memory. */
    MHD_Response *get(steady_time now, const char *content_type,
                      const std::function<std::string()> &render);
    /* Releases a body that is too old. */
    void drop_old(steady_time now);
    bool empty() const
    {
        return !body_;
    }

  private:
    bool is_over(steady_time now) const;

    response body_;
    steady_time made_{};
};

} // namespace exporter
