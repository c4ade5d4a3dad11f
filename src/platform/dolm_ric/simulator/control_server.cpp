/* SPDX-License-Identifier: Apache-2.0 */
/* One thread polls the listening socket, the peers and an eventfd. The eventfd wakes the thread
   when it must end and, while a peer waits for its answer, after each call of the library, as only
   such calls can make the answer due. The thread never waits for a peer: one that doesn't take its
   answer is disconnected.

   A peer whose command would queue events while the queue is full waits for its answer until the
   library's caller has taken some; its socket isn't read meanwhile. So the queue never exceeds its
   bound by more than the events of one command. */
#include "platform/dolm_ric/simulator/control_server.h"

#include "platform/dolm_ric/simulator/control_protocol.h"
#include "util/local_socket.h"
#include "util/poll.h"
#include "util/thread.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utility>

namespace board
{

/* The library runs in another program's process and must leave most descriptors to that program. */
static constexpr size_t max_peers = 64;
static constexpr int backlog = 16;
static constexpr size_t stack_size = size_t{256} * 1024;
static constexpr mode_t socket_mode = 0660;

[[noreturn]] static void fail(const std::string &subject)
{
    throw board_error(subject + ": " + std::strerror(errno));
}

static std::string lock_name(const std::string &path)
{
    return path + ".lock";
}

/* False if the path leads to another file than the descriptor, or to none. */
static bool is_file_at(int file, const std::string &name)
{
    struct stat ours = {};
    struct stat found = {};
    return fstat(file, &ours) == 0 && lstat(name.c_str(), &found) == 0 &&
           ours.st_dev == found.st_dev && ours.st_ino == found.st_ino;
}

/* The process that holds the lock beside the socket's path owns the path: a socket that exists
   already was left by a board that has died. Only the directory's owner can open the lock file,
   since any process that can open it can lock it; root makes the directory's owner the file's
   owner, so that the service can replace a board that root has started by hand. A clean stop
   removes the file, so a lock counts only while its file still has this name. */
static util::descriptor lock_path(const std::string &path, const struct stat &directory)
{
    const std::string name = lock_name(path);
    for (;;) {
        util::descriptor lock(open(name.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
        struct stat status = {};
        if (!lock.is_open() || fstat(lock.get(), &status) != 0)
            fail(name);
        if (S_ISREG(status.st_mode) && status.st_nlink == 1 && fchmod(lock.get(), 0600) == 0)
            (void)!fchown(lock.get(), directory.st_uid, static_cast<gid_t>(-1));
        if (flock(lock.get(), LOCK_EX | LOCK_NB) != 0)
            throw board_error(path +
                              ": another board listens there: end it, or name another socket in " +
                              DOLM_RIC_BOARD_SOCKET_ENV);
        if (is_file_at(lock.get(), name))
            return lock;
    }
}

/* A file that isn't a socket stays; bind then reports that the address is in use. */
static void remove_dead_socket(const std::string &path)
{
    struct stat status = {};
    if (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode))
        unlink(path.c_str());
}

/* The status of the directory of `path`; the directory is created if it doesn't exist. */
static struct stat make_directory_of(const std::string &path)
{
    std::error_code error;
    std::filesystem::path directory = std::filesystem::path(path).parent_path();
    if (directory.empty())
        directory = ".";
    if (!std::filesystem::create_directories(directory, error) && error)
        throw board_error(directory.string() + ": " + error.message());
    struct stat status = {};
    if (stat(directory.c_str(), &status) != 0)
        fail(directory);
    return status;
}

static bool send_answer(int to, std::string_view answer)
{
    return send(to, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL) >= 0;
}

control_server::control_server(const std::string &path, simulator &board)
    : path_(path), board_(board), command_(DOLM_RIC_BOARD_PACKET_MAX)
{
    const struct stat directory = make_directory_of(path_);
    lock_ = lock_path(path_, directory);
    try {
        /* The directory's group may control the board, whichever user starts the server. */
        remove_dead_socket(path_);
        listener_ = util::listen_at(path_, SOCK_SEQPACKET | SOCK_NONBLOCK, socket_mode,
                                    directory.st_gid, backlog);
        if (!listener_.is_open())
            fail(path_);
        errno = util::start_thread(thread_, stack_size, run, this);
        if (errno != 0)
            fail("pthread_create");
    } catch (...) {
        /* If a constructor throws, no destructor runs, so the files are removed here. */
        remove_dead_socket(path_);
        unlink(lock_name(path_).c_str());
        throw;
    }
}

/* The connections of peers that still wait for an answer are closed. */
control_server::~control_server()
{
    is_ending_ = true;
    wakeup_.signal();
    pthread_join(thread_, nullptr);
    if (is_file_at(lock_.get(), lock_name(path_))) {
        unlink(path_.c_str());
        unlink(lock_name(path_).c_str());
    }
    const auto guard = board_.events.lock();
    board_.faults.watch_calls(-1);
}

void *control_server::run(void *argument)
{
    pthread_setname_np(pthread_self(), "dolm-ric-board");
    try {
        static_cast<control_server *>(argument)->serve();
    } catch (const std::exception &error) {
        fprintf(stderr, "libdolm_ric: teskboard can't control the board any more: %s\n",
                error.what());
    }
    return nullptr;
}

/* Peers are last in `polled`, in the order of `peers_`, which doesn't change until all of them are
   served. */
void control_server::serve()
{
    std::vector<pollfd> polled;
    while (!is_ending_) {
        polled.assign({{wakeup_.fd(), POLLIN, 0}, {listener_.get(), POLLIN, 0}});
        polled[1].events = can_accept_ ? POLLIN : 0;
        for (const peer &known : peers_)
            polled.push_back(
                {known.socket.get(), static_cast<short>(known.pending ? 0 : POLLIN), 0});
        util::poll_or_pause(polled, can_accept_ ? -1 : 1000);
        wakeup_.take();
        serve_peers(std::span(polled).subspan(2));
        can_accept_ = polled[1].revents == 0 || accept_peer();
    }
}

/* False if the process has no free descriptor; accepting is tried again after a second. */
bool control_server::accept_peer()
{
    util::descriptor socket(
        accept4(listener_.get(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!socket.is_open())
        return errno != EMFILE && errno != ENFILE;
    ucred process = {};
    socklen_t size = sizeof(process);
    getsockopt(socket.get(), SOL_SOCKET, SO_PEERCRED, &process, &size);
    if (peers_.size() == max_peers)
        make_room();
    peers_.push_back(
        {.socket = std::move(socket), .process = process.pid, .last_command = ++last_command_});
    return true;
}

/* Disconnects one peer of the process that has most peers: the peer whose last command, or whose
   connection, is the oldest. So no process can keep others out. */
void control_server::make_room()
{
    const auto order = [this](const peer &one) {
        return std::pair(std::ranges::count(peers_, one.process, &peer::process),
                         last_command_ - one.last_command);
    };
    peers_.erase(std::ranges::max_element(peers_, {}, order));
}

/* One pass over all peers, with the lock held. The watch is set before the lock is released, so
   that no call after this pass is missed. */
void control_server::serve_peers(std::span<const pollfd> polled)
{
    const auto guard = board_.events.lock();
    for (size_t at = 0; at < peers_.size(); at++)
        peers_[at].is_dropped = !serve_peer(peers_[at], polled[at].revents != 0);
    std::erase_if(peers_, [](const peer &known) { return known.is_dropped; });
    const bool has_waiting =
        std::ranges::any_of(peers_, [](const peer &known) { return known.pending != nullptr; });
    board_.faults.watch_calls(has_waiting ? wakeup_.fd() : -1);
}

/* False if the peer is to be disconnected. While a peer waits for its answer, its socket is
   readable only if the peer has disconnected. The answer may be ready at once. */
bool control_server::serve_peer(peer &known, bool is_ready)
{
    if (is_ready && (known.pending || !receive_command(known)))
        return false;
    const std::string answer = known.pending ? known.pending() : "";
    if (answer.empty())
        return true;
    known.pending = nullptr;
    return send_answer(known.socket.get(), answer);
}

/* False if the peer is to be disconnected. */
bool control_server::receive_command(peer &from)
{
    const ssize_t length = recv(from.socket.get(), command_.data(), command_.size(), MSG_TRUNC);
    if (length <= 0)
        return length < 0 && errno == EAGAIN;
    from.last_command = ++last_command_;
    if (static_cast<size_t>(length) > command_.size())
        return send_answer(from.socket.get(), "error the request is too long");
    const std::string answer = run_command(
        std::string_view(command_.data(), static_cast<size_t>(length)), board_, from.pending);
    return from.pending || send_answer(from.socket.get(), answer);
}

} // namespace board
