/* SPDX-License-Identifier: Apache-2.0 */
/* The ring that ships (mbx_ring.h) under a checker that runs a sender and a receiver in many
   interleavings, with every value that C++'s memory model lets a load return. The bytes of a slot
   are plain memory for the checker, so that a missing order shows as a data race; a wake-up that is
   lost shows as a deadlock; a ring without a signal, or a wrong signal, fails an assertion.

   The bells are semaphores, which the kernel's are as well: whoever is woken sees what was written
   before the ring.

   `ring_model` checks the orders that ship; `ring_model NAME` the same with one order weakened, and
   fails if the checker finds nothing wrong. Names: see `weakened` below. */
#include "platform/mbx/mbx_ring.h"

#include <cstring>
#include <map>
#include <relacy/relacy.hpp>
#include <string>

/* The checker's header makes macros of these, which add the place in the source. */
#undef memory_order_relaxed
#undef memory_order_acquire
#undef memory_order_release
#undef memory_order_acq_rel
#undef memory_order_seq_cst

static constexpr uint32_t slot_bytes = 8;
static constexpr uint32_t slots = 4; /* the ring's capacity */
static constexpr uint32_t signals = 6;
static constexpr int iterations = 30000;

static constexpr rl::memory_order translate(std::memory_order order)
{
    switch (order) {
    case std::memory_order_acquire:
        return rl::mo_acquire;
    case std::memory_order_release:
        return rl::mo_release;
    case std::memory_order_acq_rel:
        return rl::mo_acq_rel;
    case std::memory_order_seq_cst:
        return rl::mo_seq_cst;
    default:
        return rl::mo_relaxed;
    }
}

namespace
{

/* A weakened fence is no fence. */
struct checked_atomics {
    using word = rl::atomic<uint32_t>;

    static uint32_t load(const word &from, std::memory_order order)
    {
        return from.load(translate(order), $);
    }
    static void store(word &to, uint32_t value, std::memory_order order)
    {
        to.store(value, translate(order), $);
    }
    static bool replace(word &in, uint32_t expected, uint32_t desired, std::memory_order order)
    {
        return in.compare_exchange_strong(expected, desired, translate(order), $);
    }
    static void fence(std::memory_order order)
    {
        if (order != std::memory_order_relaxed)
            rl::atomic_thread_fence(translate(order), $);
    }
};

/* What the kernel does for a bell. */
class bell
{
  public:
    void ring()
    {
        lock_.lock($);
        count_++;
        rung_.notify_one($);
        lock_.unlock($);
    }
    void await()
    {
        lock_.lock($);
        while (count_ == 0)
            rung_.wait(lock_, $);
        count_--;
        lock_.unlock($);
    }

  private:
    rl::mutex lock_;
    rl::condition_variable_any rung_;
    int count_ = 0;
};

template <typename orders>
struct ring_test : rl::test_suite<ring_test<orders>, 2> {
    ring_words<checked_atomics> words;
    rl::var<uint32_t> data[slots];
    bell to_receiver, to_sender;

    void before()
    {
        for (auto *word : {&words.head, &words.armed, &words.tail, &words.hungry})
            word->store(0, rl::mo_relaxed, $);
    }

    void send()
    {
        ring_sender<checked_atomics, orders> ring(&words, slots * slot_bytes);
        for (uint32_t i = 1; i <= signals; i++) {
            while (!ring.has_room(slot_bytes))
                if (ring.wait_for_room())
                    to_sender.await();
            data[ring.position() / slot_bytes % slots]($) = i;
            if (ring.publish(slot_bytes))
                to_receiver.ring();
        }
    }

    void receive()
    {
        ring_receiver<checked_atomics, orders> ring(&words, slots * slot_bytes);
        bool rests = ring.rest();
        for (uint32_t i = 1; i <= signals; i++) {
            if (rests)
                to_receiver.await();
            const uint32_t there = ring.available();
            RL_ASSERT(there >= slot_bytes && there <= slots * slot_bytes);
            const uint32_t got = data[ring.position() / slot_bytes % slots]($);
            RL_ASSERT(got == i);
            const bool asks = ring.consume(slot_bytes);
            const bool is_empty = ring.available() == 0;
            rests = is_empty && i < signals && ring.rest();
            if ((asks || is_empty) && ring.has_hungry_sender())
                to_sender.ring();
        }
    }

    void thread(unsigned which)
    {
        which == 0 ? send() : receive();
    }
};

} // namespace

/* The name, and the orders with that one weakened. */
#define WEAKENED(order)                                                                            \
    struct without_##order : ring_orders {                                                         \
        static constexpr auto order = std::memory_order_relaxed;                                   \
    }
WEAKENED(publish);
WEAKENED(find);
WEAKENED(release);
WEAKENED(reuse);
WEAKENED(before_armed);
WEAKENED(before_resting);
WEAKENED(before_waiting);

template <typename orders>
static bool is_right()
{
    rl::test_params params;
    params.iteration_count = iterations;
    params.search_type = rl::random_scheduler_type;
    return rl::simulate<ring_test<orders>>(params);
}

static const std::map<std::string, bool (*)()> weakened = {
    {"publish", is_right<without_publish>},
    {"find", is_right<without_find>},
    {"release", is_right<without_release>},
    {"reuse", is_right<without_reuse>},
    {"before_armed", is_right<without_before_armed>},
    {"before_resting", is_right<without_before_resting>},
    {"before_waiting", is_right<without_before_waiting>},
};

int main(int count, char **arguments)
{
    if (count == 1)
        return is_right<ring_orders>() ? 0 : 1;
    if (std::string(arguments[1]) == "--list") {
        for (const auto &[name, check] : weakened)
            printf("%s\n", name.c_str());
        return 0;
    }
    return weakened.at(arguments[1])() ? 1 : 0;
}
