/* The socket's file tells clients where to connect, the lock beside it tells whether its owner
   lives. The lock is a record lock: it is the process's own, a child does not inherit it. Whoever
   holds it may remove what a dead owner left. The lock's file goes away with the name, so whoever
   has locked one looks whether it is still the one that others will find.

   Both files follow the directory, whoever starts the server, be it root by hand: who may write in
   the directory may lock, and so take over from another user who died; its group may connect. */
#include "mbx_name.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

namespace
{

constexpr mode_t directory_mode = 0750;
constexpr mode_t socket_mode = 0660;
constexpr mode_t lock_mode = 0600;
constexpr int backlog = 4096;

std::string directory()
{
    const char *set = secure_getenv("MBX_DIR");
    return set && *set ? set : "/run/mbx";
}

/* A leading dot is for the locks. */
bool valid(const std::string &name)
{
    return !name.empty() && name[0] != '.' && name.find('/') == std::string::npos;
}

std::string socket_path(const std::string &name)
{
    return directory() + "/" + name;
}

std::string lock_path(const std::string &name)
{
    return directory() + "/." + name + ".lock";
}

/* False when the path is too long for a socket. */
bool make_address(const std::string &name, sockaddr_un &address)
{
    const std::string path = socket_path(name);
    address = {};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path)
        return false;
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return true;
}

bool is_the_file_at(int fd, const std::string &path)
{
    struct stat ours {
    };
    struct stat found {
    };
    return fstat(fd, &ours) == 0 && lstat(path.c_str(), &found) == 0 &&
           ours.st_dev == found.st_dev && ours.st_ino == found.st_ino;
}

/* Only root may give a file away, and others only to a group of theirs; where neither is possible,
   the file serves its owner alone. */
void open_to_writers_of(const struct stat &directory, int lock)
{
    struct stat found {
    };
    if (fstat(lock, &found) != 0 || found.st_nlink != 1)
        return; /* a link to something else that a writer has put here */
    if (found.st_uid != directory.st_uid || found.st_gid != directory.st_gid) [[maybe_unused]]
        int given = fchown(lock, directory.st_uid, directory.st_gid);
    const mode_t writers = directory.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH);
    fchmod(lock, lock_mode | writers | writers << 1);
}

/* Empty with errno, EADDRINUSE when another process holds it. A file that went away between opening
   and locking was its owner's, who has just given the name back: then there is a new one to lock.
 */
owned_fd take_lock(const std::string &path, const struct stat &directory)
{
    for (;;) {
        owned_fd lock(open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, lock_mode));
        if (!lock)
            return {};
        struct flock whole {
        };
        whole.l_type = F_WRLCK;
        whole.l_whence = SEEK_SET;
        if (fcntl(lock.get(), F_SETLK, &whole) != 0) {
            if (errno == EAGAIN || errno == EACCES)
                errno = EADDRINUSE;
            return {};
        }
        if (is_the_file_at(lock.get(), path)) {
            open_to_writers_of(directory, lock.get());
            return lock;
        }
    }
}

/* Never of what a link leads to that a writer of the directory has put there: it may be root who
   starts us. The first way needs /proc, which a root of its own may lack. */
bool set_socket_mode(const char *path)
{
    struct stat found {
    };
    return fchmodat(AT_FDCWD, path, socket_mode, AT_SYMLINK_NOFOLLOW) == 0 ||
           (lstat(path, &found) == 0 && S_ISSOCK(found.st_mode) && chmod(path, socket_mode) == 0);
}

/* The mode is narrow before the file is there, and right whatever the umask before anybody can
   connect. */
owned_fd listen_at(const sockaddr_un &address, const struct stat &directory)
{
    owned_fd listener(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!listener)
        return {};
    if (unlink(address.sun_path) != 0 && errno != ENOENT)
        return {};
    if (fchmod(listener.get(), socket_mode) != 0 ||
        bind(listener.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0)
        return {};
    if (directory.st_gid != getegid()) [[maybe_unused]]
        int given = lchown(address.sun_path, getuid(), directory.st_gid);
    if (!set_socket_mode(address.sun_path) || listen(listener.get(), backlog) != 0) {
        const int error = errno;
        unlink(address.sun_path);
        errno = error;
        return {};
    }
    return listener;
}

/* The installation makes it; where it has not, the first server does, whatever the umask. */
bool make_directory(struct stat &made)
{
    const std::string path = directory();
    if (mkdir(path.c_str(), directory_mode) == 0) {
        if (chmod(path.c_str(), directory_mode) != 0)
            return false;
    } else if (errno != EEXIST) {
        return false;
    }
    return stat(path.c_str(), &made) == 0;
}

int connect_error(int error)
{
    switch (error) {
    case ECONNREFUSED: /* a dead owner's file */
    case ENOTDIR:
    case EPROTOTYPE: /* no mailbox at all */
    case ELOOP:
        return ENOENT;
    case EAGAIN: /* the owner does not accept */
    case EINPROGRESS:
        return ETIMEDOUT;
    case EPERM:
        return EACCES;
    default:
        return error;
    }
}

} // namespace

int take_name(const char *name, owned_name &out)
{
    owned_name taken{name, {}, {}};
    sockaddr_un address;
    if (!valid(taken.name))
        return EINVAL;
    if (!make_address(taken.name, address))
        return ENAMETOOLONG;
    struct stat where {
    };
    if (!make_directory(where))
        return errno;
    taken.lock = take_lock(lock_path(taken.name), where);
    if (!taken.lock)
        return errno;
    taken.listener = listen_at(address, where);
    if (!taken.listener) {
        const int error = errno;
        unlink(lock_path(taken.name).c_str());
        return error;
    }
    out = std::move(taken);
    return 0;
}

/* If somebody has removed the lock's file by hand, another process may own the name by now: then
   the files are left alone. */
void give_name(owned_name &owned)
{
    if (!owned.lock)
        return;
    owned.listener.reset();
    const std::string lock = lock_path(owned.name);
    if (is_the_file_at(owned.lock.get(), lock)) {
        unlink(socket_path(owned.name).c_str());
        unlink(lock.c_str());
    }
    owned.lock.reset();
    owned.name.clear();
}

/* A connect waits while the listener's backlog is full; the send time-out limits that. */
owned_fd connect_to_name(const char *name, time_point deadline)
{
    sockaddr_un address;
    if (!name || !valid(name) || !make_address(name, address)) {
        errno = ENOENT;
        return {};
    }
    owned_fd control(socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0));
    if (!control)
        return {};
    const int left = milliseconds_until(deadline);
    if (left == 0) {
        errno = ETIMEDOUT;
        return {};
    }
    const timeval limit{left / 1000, suseconds_t{left % 1000} * 1000};
    setsockopt(control.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    if (connect(control.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        errno = connect_error(errno);
        return {};
    }
    return control;
}
