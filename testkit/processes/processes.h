/* SPDX-License-Identifier: Apache-2.0 */
/* Real processes for system tests: the server in a private directory, clients that do as they are
   told, and the board behind its own protocol. Everything waits with a deadline and throws past it.
 */
#pragma once

#include <chrono>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <sys/types.h>
#include <vector>

namespace testkit
{

inline constexpr std::chrono::seconds deadline{20};

/* What the tests ask of a program that is slowed down: less. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

/* A directory of its own, gone with it, and the environment that makes all our programs use it. */
struct directory {
    directory();
    ~directory();
    directory(const directory &) = delete;
    directory &operator=(const directory &) = delete;
    std::string path;
};

/* Starts a program; `environment` is NAME=VALUE, `kept` becomes descriptor 3. */
pid_t start(const std::vector<std::string> &words, const std::vector<std::string> &environment = {},
            int kept = -1, const std::string &output = {});

/* Runs a command of the shell to its end: the exit status, with all that it has written. */
int run(const std::string &command, std::string &output);

/* The exit status, or minus the signal that ended it. */
int wait_for_end(pid_t process);

/* The server; it is up, with its mailbox and its board, when the constructor returns. */
class server
{
  public:
    explicit server(const std::vector<std::string> &environment = {},
                    const std::vector<std::string> &program = {TESK_BIN_DIR "/tesk-server"});
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;
    /* SIGTERM, and what the process ended with. */
    int stop();
    pid_t pid = -1;
};

/* What /proc tells of a process: a line of its status such as "VmRSS", in its unit; how many
   descriptors are open; the milliseconds of processor time that it has had. */
long status_of(pid_t process, const std::string &line);
size_t descriptors_of(pid_t process);
/* Waits until no more than so many are open, and tells how many are. */
size_t await_descriptors(pid_t process, size_t at_most);
long processor_ms(pid_t process);

/* Connects to a listening SEQPACKET socket; -1 with errno. */
int connect_to(const std::string &path);

/* Throws unless it is readable, or has ended, before the deadline. */
void await(int fd, const char *what);

/* Returns when a line of a growing file holds the text; `from` moves behind that line. */
void await_line(const std::string &file, const std::string &text, size_t &from);

/* One request to the board: the lines of its answer. Throws its error. */
std::map<std::string, std::string> board(const std::string &request);

/* A signal as a client gets it. */
struct message {
    std::vector<uint8_t> bytes;
    uint32_t number() const;
    uint32_t word(size_t offset) const;      /* network order */
    uint32_t host_word(size_t offset) const; /* as it stands */
    std::string text(size_t offset) const;
};

class test_client
{
  public:
    explicit test_client(const std::string &argument = "",
                         std::vector<std::string> program = {TESK_BIN_DIR "/test_client"});
    ~test_client();
    test_client(const test_client &) = delete;
    test_client &operator=(const test_client &) = delete;
    /* Payload words are sent in network order. */
    void send(uint32_t number, const std::vector<uint32_t> &words);
    void send_raw(const void *bytes, size_t size);
    /* The next signal. */
    message receive();
    /* Sends and receives. */
    message ask(uint32_t number, const std::vector<uint32_t> &words);
    /* Establishes a connection; the server's reference. */
    uint32_t connect(uint32_t own_reference);
    /* kill -9, and the process is gone when it returns. */
    void kill();
    int located = 0;
    pid_t pid = -1;

  private:
    int socket = -1;
};

} // namespace testkit
