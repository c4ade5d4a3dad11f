/* SPDX-License-Identifier: Apache-2.0 */
/* The ring that ships (mbx_ring.h) under a checker that runs a sender and a receiver in many
   interleavings, with every value that C++'s memory model lets a load return. The bytes of a slot
   are plain memory for the checker, so that a missing order shows as a data race; a wake-up that is
   lost shows as a deadlock; a ring without a signal, or a wrong signal, fails an assertion.

   The bells are semaphores, like the kernel's: a woken thread sees everything written before the
   ring.

   `ring_model` checks the memory orders that ship; `ring_model NAME` weakens one of them, and fails
   if the checker finds no error. Names: see `names` below. */
#include "platform/mbx/mbx_ring.h"

#include <cstring>
#include <relacy/relacy.hpp>
#include <string>

/* The checker's header defines these names as macros, which add the place in the source. */
#undef memory_order_relaxed
#undef memory_order_acquire
#undef memory_order_release
#undef memory_order_acq_rel
#undef memory_order_seq_cst

static constexpr uint32_t slot_bytes = 8;
static constexpr uint32_t slots = 4; /* the ring's capacity */
static constexpr uint32_t signals = 6;
static constexpr int iterations = 30000;

/* The two enumerations have the same members in the same order. */
static constexpr rl::memory_order translate(std::memory_order order)
{
    return static_cast<rl::memory_order>(order);
}
static_assert(translate(std::memory_order_relaxed) == rl::mo_relaxed &&
              translate(std::memory_order_acquire) == rl::mo_acquire &&
              translate(std::memory_order_release) == rl::mo_release &&
              translate(std::memory_order_seq_cst) == rl::mo_seq_cst);

/* A weakened fence does nothing. */
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

using bell = rl::semaphore<struct of_the_ring>;

template <typename orders>
struct ring_test : rl::test_suite<ring_test<orders>, 2> {
    ring_words<checked_atomics> words;
    rl::var<uint32_t> data[slots];
    bell to_receiver, to_sender;

    void before()
    {
        for (auto *word : {&words.head, &words.armed, &words.tail, &words.wants_room})
            word->store(0, rl::mo_relaxed, $);
        for (bell *one : {&to_receiver, &to_sender})
            one->init(false, 0, 2 * signals, $);
    }
    void after()
    {
        for (bell *one : {&to_receiver, &to_sender})
            one->deinit($);
    }

    void send()
    {
        ring_sender<checked_atomics, orders> ring(&words, slots * slot_bytes);
        for (uint32_t i = 1; i <= signals; i++) {
            while (!ring.has_room(slot_bytes))
                if (ring.wait_for_room())
                    to_sender.wait(false, false, $);
            data[ring.position() / slot_bytes % slots]($) = i;
            if (ring.publish(slot_bytes))
                to_receiver.signal($);
        }
    }

    void receive()
    {
        ring_receiver<checked_atomics, orders> ring(&words, slots * slot_bytes);
        bool rests = ring.rest();
        for (uint32_t i = 1; i <= signals; i++) {
            if (rests)
                to_receiver.wait(false, false, $);
            const uint32_t there = ring.available();
            RL_ASSERT(there >= slot_bytes && there <= slots * slot_bytes);
            const uint32_t got = data[ring.position() / slot_bytes % slots]($);
            RL_ASSERT(got == i);
            const bool asks = ring.consume(slot_bytes);
            const bool is_empty = ring.available() == 0;
            rests = is_empty && i < signals && ring.rest();
            if ((asks || is_empty) && ring.must_report_room())
                to_sender.signal($);
        }
    }

    void thread(unsigned which)
    {
        which == 0 ? send() : receive();
    }
};

/* ring_orders in which one order, by its index in `names`, or none is weakened. */
template <int weakened>
struct weakened_orders {
    static constexpr std::memory_order pick(int index, std::memory_order order)
    {
        return index == weakened ? std::memory_order_relaxed : order;
    }
    static constexpr auto publish = pick(0, ring_orders::publish),
                          find = pick(1, ring_orders::find),
                          release = pick(2, ring_orders::release),
                          reuse = pick(3, ring_orders::reuse),
                          before_armed = pick(4, ring_orders::before_armed),
                          before_resting = pick(5, ring_orders::before_resting),
                          before_waiting = pick(6, ring_orders::before_waiting);
};

static constexpr const char *names[] = {"publish",      "find",           "release",       "reuse",
                                        "before_armed", "before_resting", "before_waiting"};

template <int weakened>
static bool is_right()
{
    rl::test_params params;
    params.iteration_count = iterations;
    params.search_type = rl::random_scheduler_type;
    return rl::simulate<ring_test<weakened_orders<weakened>>>(params);
}

static constexpr bool (*without[])() = {is_right<0>, is_right<1>, is_right<2>, is_right<3>,
                                        is_right<4>, is_right<5>, is_right<6>};
static_assert(std::size(without) == std::size(names));

int main(int count, char **arguments)
{
    if (count == 1)
        return is_right<-1>() ? 0 : 1;
    const std::string wanted = arguments[1];
    for (size_t index = 0; index < std::size(names); index++)
        if (wanted == "--list")
            printf("%s\n", names[index]);
        else if (wanted == names[index])
            return without[index]() ? 1 : 0;
    return wanted == "--list" ? 0 : 1;
}
