/* SPDX-License-Identifier: Apache-2.0 */
/* response - the HTTP library's answers, which are released with their last owner, and bodies that
   the answers of a short while share. Main thread only. */
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

/* Empty where there is no memory for the response. The library holds a reference to one that is
   queued. */
using response = std::unique_ptr<MHD_Response, response_release>;

/* Takes over a response of the library, and adds the headers of all answers. */
response finished(MHD_Response *made, const char *content_type);
response text_response(const std::string &text, const char *content_type);
response file_response(web_files::file &&file);
void add_header(const response &to, const char *name, const char *value);

/* A body that is rendered at most once in a short while, since rendering takes the most time: a
   thousand scrapes a second need a few renderings. A body exists until its slowest reader has
   received it; while too many exist, the newest is sent again, however old it is. */
class shared_body
{
  public:
    /* How old a body may be that is sent. */
    static constexpr std::chrono::milliseconds longest_age{250};

    /* The body, of `render` where there is none that is young enough; null without memory. */
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
