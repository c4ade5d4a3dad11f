/* SPDX-License-Identifier: Apache-2.0 */
/* metrics_text - the two text formats of metrics: Prometheus 0.0.4 and OpenMetrics 1.0.0. Series
   have the same names and labels in both. No state. */
#pragma once

#include "tesk_client/tesk_client.h"

#include <string>
#include <string_view>

namespace exporter
{

enum class text_format { prometheus, open_metrics };

/* The format that an Accept header prefers; Prometheus if it has no preference. */
text_format choose_format(std::string_view accept);
/* The value of the Content-Type header. */
const char *content_type(text_format format);

/* A text as the value of a label: escaped, without quotes. */
std::string label_value(std::string_view text);
/* The labels of a module: its texts without trailing blanks, first escaped as in teskctl's objects,
   so that any bytes give valid text. */
std::string module_labels(const tesk_client_sfp_info &info);

enum class metric_type { gauge, counter, info, histogram };

/* One metric family. The name ends neither in "_total" nor in "_info"; if there is a unit, the name
   ends in it. */
struct family {
    const char *name;
    metric_type type;
    const char *unit; /* "" without a unit */
    const char *help;
};

class metrics_writer
{
  public:
    explicit metrics_writer(text_format format) : format_(format)
    {
    }
    /* Begins a family: the following samples belong to it. */
    void begin(const family &described);
    /* Writes a sample of the family. Each part of the labels is a list, or empty. `suffix` follows
       the family's name; its default depends on the type. */
    void sample(std::string_view labels, double value)
    {
        sample(suffix_, labels, {}, value);
    }
    void sample(std::string_view labels, std::string_view more_labels, double value)
    {
        sample(suffix_, labels, more_labels, value);
    }
    void sample(std::string_view suffix, std::string_view labels, std::string_view more_labels,
                double value);
    /* Adds the families of another text of the same format. */
    void append(const metrics_writer &other)
    {
        text_ += other.text_;
    }
    size_t size() const
    {
        return text_.size();
    }
    /* Returns the whole text. */
    std::string finish();
    void reserve(size_t size)
    {
        text_.reserve(size);
    }

  private:
    void header(std::string_view keyword, std::string_view content);

    const text_format format_;
    std::string_view name_;
    std::string_view suffix_;
    std::string text_;
};

} // namespace exporter
