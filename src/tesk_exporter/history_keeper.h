/* SPDX-License-Identifier: Apache-2.0 */
/* history_keeper - the thread that keeps the history; no other thread uses the file. Readings,
   events and questions go in, answers come out. Inputs for which the queue has no room, for example
   while a disk doesn't respond, are dropped and counted. */
#pragma once

#include "history/chronicle.h"
#include "tesk_client/tesk_details.h"
#include "tesk_exporter/event_ring.h"
#include "tesk_exporter/model.h"
#include "tesk_exporter/outlooks.h"
#include "tesk_exporter/worker.h"
#include "util/event.h"

#include <atomic>
#include <mutex>

namespace exporter
{

/* A question from an HTTP request. */
struct history_question {
    enum class kind { port, modules, forecast };
    kind what;
    uint32_t port;     /* for kind::port */
    history::level of; /* for kind::port */
    bool is_followed;  /* the port is known, even if it has no history */
};

struct history_answer {
    uint64_t id;     /* id of the question */
    unsigned status; /* HTTP status; with 200 the text is JSON */
    std::string text;
};

class history_keeper
{
  public:
    /* Starts at once. `limit` is in bytes; with a journal, each raised or withdrawn forecast is
       recorded there. Throws std::system_error. */
    history_keeper(const std::string &folder, int64_t limit, bool has_journal);
    ~history_keeper();
    history_keeper(const history_keeper &) = delete;
    history_keeper &operator=(const history_keeper &) = delete;

    /* All functions below are for the main thread. */
    /* A port's latest reading; `details`, if not null, have all its lanes and the module's
       limits. */
    void take(const port_state &read, const dolm_ric_details_record *details);
    void note(const exporter::event &happened);
    /* Queues a question. Returns the id that its answer will have. */
    uint64_t ask(const history_question &asked);
    std::vector<history_answer> take_answers();
    /* Readable while there are answers. */
    int fd() const
    {
        return answered_.fd();
    }
    /* Whether the history is open and can be written. */
    bool is_well() const
    {
        return is_well_;
    }
    /* The present forecasts. */
    std::vector<forecast_sample> forecasts();
    /* The number of readings and events that were dropped. */
    uint64_t lost() const
    {
        return lost_;
    }

  private:
    struct reading {
        history::occupant from;
        history::record measured;
        std::optional<outlooks::module_limits> limits; /* if there are details */
    };
    struct noted {
        int64_t port;
        std::string kind, text; /* an empty kind: nothing to record */
        bool is_empty;          /* the port has no module now */
    };
    struct question {
        uint64_t id;
        history_question asked;
    };
    struct input {
        history::clocks when;
        std::variant<reading, noted, question> what;
    };

    void post(input given, bool is_urgent);
    void run();
    void process(const std::vector<input> &inputs);
    void take(const reading &given, const history::clocks &when);
    void take(const noted &given, const history::clocks &when);
    void take(const question &given, const history::clocks &when);
    void look_ahead(const history::clocks &now);

    static constexpr size_t capacity = 32'768;
    static constexpr size_t wake_at = 4'096;

    const util::event wake_, answered_;
    std::mutex mutex_;
    std::vector<input> inputs_;
    std::vector<history_answer> answers_;
    uint64_t questions_ = 0;
    std::atomic<bool> is_well_{false};
    std::atomic<uint64_t> lost_{0};
    std::vector<forecast_sample> forecasts_;
    const bool has_journal_;
    /* Members that the thread uses. */
    outlooks outlooks_;
    history::chronicle chronicle_;
    bool is_restored_ = false, has_steps_ = false;
    int64_t next_look_ = 0; /* seconds since boot */
    worker thread_;         /* last, so destroyed first: it uses the other members */
};

} // namespace exporter
