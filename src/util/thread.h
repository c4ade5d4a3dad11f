/* SPDX-License-Identifier: Apache-2.0 */
/* thread - threads that a library starts in another program's process. */
#pragma once

#include <csignal>
#include <cstddef>
#include <pthread.h>
#include <thread>
#include <utility>

namespace util
{

/* Blocks all signals of the calling thread while the object exists; threads started meanwhile
   inherit the mask. */
class blocked_signals
{
  public:
    blocked_signals() noexcept
    {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before_);
    }
    ~blocked_signals()
    {
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    blocked_signals(const blocked_signals &) = delete;
    blocked_signals &operator=(const blocked_signals &) = delete;

  private:
    sigset_t before_{};
};

/* Starts a joinable thread that runs `run(argument)`. All signals are blocked from its first
   instruction, as the program's handlers expect to run on the program's own threads. The stack also
   contains the thread-local storage of all libraries. Returns 0 or an error number. */
inline int start_thread(pthread_t &thread, size_t stack_size, void *(*run)(void *), void *argument)
{
    pthread_attr_t attributes;
    if (const int error = pthread_attr_init(&attributes))
        return error;
    pthread_attr_setstacksize(&attributes, stack_size);
    int error = 0;
    {
        const blocked_signals blocked;
        error = pthread_create(&thread, &attributes, run, argument);
    }
    pthread_attr_destroy(&attributes);
    return error;
}

/* Starts a std::thread that blocks all signals, with a name of at most 15 characters. Throws a
   std::system_error. */
template <typename body>
std::thread start_thread(const char *name, body run)
{
    const blocked_signals blocked;
    std::thread started(std::move(run));
    pthread_setname_np(started.native_handle(), name);
    return started;
}

} // namespace util
