/* SPDX-License-Identifier: Apache-2.0 */
/* One thread polls the listening socket, the peers, and an eventfd. The eventfd wakes it to end
   and, while some peer waits for a condition, after each call of the library: conditions are about
   what the calls do, so that is when they are looked at again. A peer is never waited for: if it
   doesn't take its answer it is dropped. */
#include "platform/dolm_ric/simulator/board_control.h"

#include "platform/dolm_ric/dolm_ric_board.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>
#include <utility>
#include <vector>

namespace board
{

/* The library lives in somebody else's process and leaves its descriptors to it. Further peers wait
   in the listening socket's queue. */
static constexpr size_t max_peers = 64;
/* The C library puts the thread-local storage of all libraries on the stack too. */
static constexpr size_t thread_stack = size_t{256} * 1024;

[[noreturn]] static void fail(const std::string &what)
{
    throw board_error(what + ": " + std::strerror(errno));
}

namespace
{

/* Owns a file descriptor, so that whatever throws on the way closes what has been opened. */
class descriptor
{
  public:
    explicit descriptor(int number = -1) : fd(number)
    {
    }
    descriptor(descriptor &&other) noexcept : fd(std::exchange(other.fd, -1))
    {
    }
    descriptor &operator=(descriptor &&other) noexcept
    {
        std::swap(fd, other.fd);
        return *this;
    }
    ~descriptor()
    {
        if (fd >= 0)
            close(fd);
    }
    int get() const
    {
        return fd;
    }

  private:
    int fd;
};

} // namespace

/* Whoever holds the lock beside the socket's path owns the path, so that a socket which is there
   already was left by a dead board. The lock file stays. */
static descriptor lock_path(const std::string &path)
{
    const std::string name = path + ".lock";
    descriptor lock(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
    if (lock.get() < 0)
        fail(name);
    if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
        throw board_error(path + ": another board listens there");
    return lock;
}

/* What is no socket isn't ours to remove; bind then says that the address is in use. */
static void remove_dead_socket(const std::string &path)
{
    struct stat status;
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
        unlink(path.c_str());
}

/* The mode goes onto the socket before it has a name, so that it is never more open than it will
   be; the umask may have narrowed it, which chmod undoes. */
static descriptor listen_at(const std::string &path)
{
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    if (path.size() >= sizeof(address.sun_path))
        throw board_error(path + ": too long for a socket");
    path.copy(address.sun_path, path.size());
    descriptor listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    remove_dead_socket(path);
    if (listener.get() < 0 || fchmod(listener.get(), 0660) != 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof(address)) != 0 ||
        chmod(path.c_str(), 0660) != 0 || listen(listener.get(), 16) != 0)
        fail(path);
    return listener;
}

static void make_directory_of(const std::string &path)
{
    std::error_code error;
    const std::filesystem::path directory = std::filesystem::path(path).parent_path();
    if (!directory.empty() && !std::filesystem::create_directories(directory, error) && error)
        throw board_error(directory.string() + ": " + error.message());
}

namespace
{

struct peer {
    descriptor socket;
    condition pending = {};  /* what its "wait" waits for */
    bool is_dropped = false; /* goes at the end of the pass that finds it out */
};

} // namespace

class board_control::server
{
  public:
    server(const std::string &where, const stage &on)
        : path(where), scene(on), request(DOLM_RIC_BOARD_PACKET_MAX)
    {
        make_directory_of(path);
        lock = lock_path(path);
        try {
            listener = listen_at(path);
            wakeup = descriptor(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC));
            if (wakeup.get() < 0)
                fail("eventfd");
            start_thread();
        } catch (...) {
            /* The constructor failed, so nobody runs the destructor. */
            remove_dead_socket(path);
            throw;
        }
    }

    /* Peers that still wait find their connection closed. */
    ~server()
    {
        ending = true;
        eventfd_write(wakeup.get(), 1);
        pthread_join(thread, nullptr);
        unlink(path.c_str());
        const std::lock_guard guard(scene.events.lock);
        scene.events.watch_calls(-1);
    }

  private:
    /* The thread takes no signals: those of the process are for the threads that handle them. It
       inherits the mask: before it could set one of its own a signal might come. */
    void start_thread()
    {
        pthread_attr_t attributes;
        pthread_attr_init(&attributes);
        pthread_attr_setstacksize(&attributes, thread_stack);
        sigset_t all;
        sigset_t before;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
        errno = pthread_create(&thread, &attributes, run, this);
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
        pthread_attr_destroy(&attributes);
        if (errno != 0)
            fail("pthread_create");
    }

    static void *run(void *self)
    {
        pthread_setname_np(pthread_self(), "dolm-ric-board");
        try {
            static_cast<server *>(self)->serve();
        } catch (const std::exception &error) {
            fprintf(stderr, "libdolm_ric: the board can't be played any more: %s\n", error.what());
        }
        return nullptr;
    }

    void serve()
    {
        std::vector<pollfd> polled;
        while (!ending) {
            /* Peers come last, in the order of `peers`, which no one changes until they are served.
             */
            polled.assign({{wakeup.get(), POLLIN, 0}, {listener.get(), POLLIN, 0}});
            polled[1].events = can_accept && peers.size() < max_peers ? POLLIN : 0;
            for (const peer &known : peers)
                polled.push_back({known.socket.get(), POLLIN, 0});
            poll(polled.data(), polled.size(), can_accept ? -1 : 1000);
            eventfd_t woken;
            eventfd_read(wakeup.get(), &woken);
            serve_peers(std::span(polled).subspan(2));
            can_accept = polled[1].revents == 0 || accept_peer();
        }
    }

    /* False if the process has no descriptor left; that is tried again after a while. */
    bool accept_peer()
    {
        descriptor socket(accept4(listener.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
        if (socket.get() < 0)
            return errno != EMFILE && errno != ENFILE;
        peers.push_back({.socket = std::move(socket)});
        return true;
    }

    /* One pass under the lock over what the peers ask and wait for; `polled` has an entry for each
       of them. The watch is set before the lock is given up, so that no call after
       this look goes unseen. */
    void serve_peers(std::span<const pollfd> polled)
    {
        const std::lock_guard guard(scene.events.lock);
        for (size_t at = 0; at < peers.size(); at++)
            peers[at].is_dropped = !serve_peer(peers[at], polled[at].revents != 0);
        std::erase_if(peers, [](const peer &known) { return known.is_dropped; });
        const bool some_wait =
            std::ranges::any_of(peers, [](const peer &known) { return known.pending != nullptr; });
        scene.events.watch_calls(some_wait ? wakeup.get() : -1);
    }

    /* False if the peer is to be dropped. What it has just asked to wait for may be true already.
     */
    bool serve_peer(peer &known, bool has_sent)
    {
        if (has_sent && !take_request(known))
            return false;
        return look(known);
    }

    /* False if the peer is to be dropped; so is one that asks while it waits for an answer. */
    bool take_request(peer &from)
    {
        const ssize_t length = recv(from.socket.get(), request.data(), request.size(), MSG_TRUNC);
        if (length <= 0 || from.pending)
            return length < 0 && errno == EAGAIN;
        if (static_cast<size_t>(length) > request.size())
            return send_answer(from, "error the request is too long");
        const std::string answer = answer_request(
            std::string_view(request.data(), static_cast<size_t>(length)), scene, from.pending);
        return from.pending || send_answer(from, answer);
    }

    /* Answers the peer if what it waits for has come true. False if it is to be dropped. */
    bool look(peer &at)
    {
        if (!at.pending || !at.pending())
            return true;
        at.pending = nullptr;
        return send_answer(at, "ok");
    }

    static bool send_answer(const peer &to, std::string_view answer)
    {
        const int flags = MSG_DONTWAIT | MSG_NOSIGNAL;
        // cppcheck-suppress invalidLifetime ; the view is used before its text goes
        return send(to.socket.get(), answer.data(), answer.size(), flags) >= 0;
    }

    const std::string path;
    const stage scene;
    descriptor lock;
    descriptor listener;
    descriptor wakeup;
    std::vector<peer> peers;
    bool can_accept = true;
    std::vector<char> request;
    std::atomic<bool> ending = false;
    pthread_t thread = {};
};

board_control::board_control(const std::string &path, const stage &on)
    : own(std::make_unique<server>(path, on))
{
}

board_control::~board_control() = default;

} // namespace board
