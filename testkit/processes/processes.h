/* SPDX-License-Identifier: Apache-2.0 */
/* Real processes for system tests: the server in a private directory, clients that a test controls,
   and the board by its own protocol. All waits have a deadline and throw after it. */
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

/* Whether sanitizers slow the programs down; tests then use smaller counts. */
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
inline constexpr bool sanitized = true;
#else
inline constexpr bool sanitized = false;
#endif

/* A directory that the destructor removes, and the environment that makes all programs use it. */
struct directory {
    directory();
    ~directory();
    directory(const directory &) = delete;
    directory &operator=(const directory &) = delete;
    std::string path;
};

/* Starts a program; `environment` has NAME=VALUE, `kept` becomes descriptor 3. The file `output`
   exists when the function returns. */
pid_t start(const std::vector<std::string> &words, const std::vector<std::string> &environment = {},
            int kept = -1, const std::string &output = {});

/* Runs a shell command and waits for its end. Returns the exit status; `output` gets standard
   output and standard error. */
int run(const std::string &command, std::string &output);

/* The exit status, or minus the signal that ended the process. */
int wait_for_end(pid_t process);

/* The server; its mailbox and its board exist when the constructor returns. */
class server
{
  public:
    explicit server(const std::vector<std::string> &environment = {},
                    const std::vector<std::string> &program = {TESK_BIN_DIR "/tesk-server"});
    ~server();
    server(const server &) = delete;
    server &operator=(const server &) = delete;
    /* Sends SIGTERM and returns the exit status, or minus the signal that ended the process. */
    int stop();
    pid_t pid = -1;
};

/* From /proc: a value of the process's status such as "VmRSS", in the file's unit; the number of
   its open descriptors; its processor time in milliseconds. */
long status_of(pid_t process, const std::string &line);
size_t descriptors_of(pid_t process);
/* Waits until at most that many descriptors are open, up to the deadline; returns their number. */
size_t await_descriptors(pid_t process, size_t at_most);
long processor_ms(pid_t process);

/* Connects to a listening SEQPACKET socket; -1 with errno. */
int connect_to(const std::string &path);

/* Throws unless the descriptor is readable, or its other end closed, before the deadline. */
void await(int fd, const char *what);

/* Returns when a line of a growing file contains the text; `from` is then the position after that
   line. */
void await_line(const std::string &file, const std::string &text, size_t &from);

/* Sends a request to the board and returns the lines of its answer. Throws the board's error. */
std::map<std::string, std::string> board(const std::string &request);

/* A signal that a client has received. */
struct message {
    std::vector<uint8_t> bytes;
    uint32_t number() const;
    uint32_t word(size_t offset) const;      /* network order */
    uint32_t host_word(size_t offset) const; /* host order */
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
    /* Receives the next signal. */
    message receive();
    /* Sends a request and returns the next signal. */
    message ask(uint32_t number, const std::vector<uint32_t> &words);
    /* Establishes a connection and returns the server's reference. */
    uint32_t connect(uint32_t own_reference);
    /* Sends SIGKILL and waits for the end of the process. */
    void kill();
    int located = 0;
    pid_t pid = -1;

  private:
    int socket_ = -1;
};

} // namespace testkit
