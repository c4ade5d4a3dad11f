/* SPDX-License-Identifier: Apache-2.0 */
#include "testkit/processes/processes.h"

#include "tesk_server/tesk_signals.h"
#include "util/local_socket.h"

#include <algorithm>
#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <map>
#include <poll.h>
#include <stdexcept>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace testkit
{

void await(int fd, const char *what)
{
    pollfd ready = {fd, POLLIN, 0};
    const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(deadline).count();
    if (poll(&ready, 1, static_cast<int>(ms)) != 1)
        throw std::runtime_error(std::string("no ") + what + " before the deadline");
}

directory::directory()
{
    char name[] = "/tmp/tesk-XXXXXX";
    path = mkdtemp(name);
    setenv("MBX_DIR", (path + "/mbx").c_str(), 1);
    setenv("DOLM_RIC_SOCKET", (path + "/board.sock").c_str(), 1);
    /* A long timeout, since the machine may be busy. */
    setenv("MBX_LOCATE_MS", "20000", 1);
}

directory::~directory()
{
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
}

pid_t start(const std::vector<std::string> &words, const std::vector<std::string> &environment,
            int kept, const std::string &output)
{
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string &word : words)
        arguments.push_back(const_cast<char *>(word.c_str()));
    arguments.push_back(nullptr);
    const int out =
        output.empty() ? -1 : open(output.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0600);
    const pid_t child = fork();
    if (child != 0 && out != -1)
        close(out);
    if (child != 0)
        return child;
    /* The process ends with the test. */
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    for (const std::string &setting : environment)
        putenv(const_cast<char *>(setting.c_str()));
    if (kept == 3)
        fcntl(kept, F_SETFD, 0); /* dup2 of a descriptor to itself would leave close-on-exec set */
    else if (kept != -1)
        dup2(kept, 3);
    if (out != -1) {
        dup2(out, STDOUT_FILENO);
        dup2(out, STDERR_FILENO);
    }
    execv(arguments[0], arguments.data());
    _exit(127);
}

int run(const std::string &command, std::string &output)
{
    FILE *pipe = popen((command + " 2>&1").c_str(), "r");
    output.clear();
    for (int c = 0; (c = fgetc(pipe)) != EOF;)
        output += static_cast<char>(c);
    return WEXITSTATUS(pclose(pipe));
}

int wait_for_end(pid_t process)
{
    const int fd = static_cast<int>(syscall(SYS_pidfd_open, process, 0));
    await(fd, "end of the process");
    close(fd);
    int status;
    waitpid(process, &status, 0);
    return WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status);
}

static int connect_to_board()
{
    const char *path = getenv("DOLM_RIC_SOCKET");
    return connect_to(path == nullptr ? "" : path);
}

server::server(const std::vector<std::string> &environment, const std::vector<std::string> &program)
    : pid(start(program, environment))
{
    const auto until = std::chrono::steady_clock::now() + deadline;
    /* The mailbox exists before the board's socket. */
    int board_fd = -1;
    while (test_client().located != 0 || (board_fd = connect_to_board()) == -1)
        if (std::chrono::steady_clock::now() > until)
            throw std::runtime_error("the server does not come up");
    close(board_fd);
    board("wait calls waitevent 1");
    /* An answer shows that the main loop runs and the start is over. A request without a revision
       is rejected, so it leaves no client behind. */
    test_client().ask(TESK_CONN_ESTABLISH_REQ, {1, 1, 0});
}

server::~server()
{
    if (pid == -1)
        return;
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
}

int server::stop()
{
    ::kill(pid, SIGTERM);
    const int status = wait_for_end(pid);
    pid = -1;
    return status;
}

long status_of(pid_t process, const std::string &line)
{
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string read; std::getline(status, read);)
        if (read.starts_with(line + ":"))
            return std::stol(read.substr(line.size() + 1));
    throw std::runtime_error("no " + line + " in the status of the process");
}

size_t descriptors_of(pid_t process)
{
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(process) + "/fd");
    return static_cast<size_t>(std::distance(begin(all), end(all)));
}

size_t await_descriptors(pid_t process, size_t at_most)
{
    const auto until = std::chrono::steady_clock::now() + deadline;
    size_t open = descriptors_of(process);
    while (open > at_most && std::chrono::steady_clock::now() < until) {
        usleep(1000);
        open = descriptors_of(process);
    }
    return open;
}

long processor_ms(pid_t process)
{
    clockid_t clock;
    timespec used = {};
    clock_getcpuclockid(process, &clock);
    clock_gettime(clock, &used);
    return used.tv_sec * 1000 + used.tv_nsec / 1000000;
}

int connect_to(const std::string &path)
{
    return util::connect_to(path, SOCK_SEQPACKET).release();
}

void await_line(const std::string &file, const std::string &text, size_t &from)
{
    const int changes = inotify_init1(IN_CLOEXEC);
    inotify_add_watch(changes, file.c_str(), IN_MODIFY);
    for (;;) {
        std::ifstream stream(file);
        stream.seekg(static_cast<std::streamoff>(from));
        std::string line;
        for (size_t end = from; std::getline(stream, line) && !stream.eof();) {
            end += line.size() + 1;
            if (line.find(text) == std::string::npos)
                continue;
            from = end;
            close(changes);
            return;
        }
        char events[4096];
        await(changes, text.c_str());
        [[maybe_unused]] ssize_t got = read(changes, events, sizeof(events));
    }
}

std::map<std::string, std::string> board(const std::string &request)
{
    static char packet[65536];
    const int fd = connect_to_board();
    if (fd == -1)
        throw std::runtime_error("no board");
    ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
    await(fd, "answer of the board");
    const ssize_t size = recv(fd, packet, sizeof(packet), 0);
    close(fd);
    std::string answer(packet, static_cast<size_t>(size < 0 ? 0 : size));
    if (answer.rfind("ok", 0) != 0)
        throw std::runtime_error(request + ": " + answer);
    std::map<std::string, std::string> lines;
    for (size_t at = answer.find('\n'); at != std::string::npos;) {
        const size_t end = answer.find('\n', at + 1);
        const std::string line = answer.substr(at + 1, end - at - 1);
        lines[line.substr(0, line.find('='))] = line.substr(line.find('=') + 1);
        at = end;
    }
    return lines;
}

uint32_t message::host_word(size_t offset) const
{
    uint32_t value;
    if (offset + sizeof(value) > bytes.size())
        throw std::runtime_error("a signal of " + std::to_string(bytes.size()) + " bytes");
    memcpy(&value, bytes.data() + offset, sizeof(value));
    return value;
}

uint32_t message::word(size_t offset) const
{
    return ntohl(host_word(offset));
}

uint32_t message::number() const
{
    return host_word(0);
}

std::string message::text(size_t offset) const
{
    return reinterpret_cast<const char *>(bytes.data() + offset);
}

test_client::test_client(const std::string &argument, std::vector<std::string> program)
{
    int pair[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, pair) != 0)
        throw std::runtime_error("no socket pair");
    socket_ = pair[0];
    program.push_back(argument);
    pid = start(program, {}, pair[1]);
    close(pair[1]);
    located = static_cast<int>(receive().host_word(0));
}

test_client::~test_client()
{
    kill();
}

void test_client::kill()
{
    if (pid == -1)
        return;
    ::kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(socket_);
    pid = -1;
}

void test_client::send_raw(const void *bytes, size_t size)
{
    if (::send(socket_, bytes, size, MSG_NOSIGNAL) != static_cast<ssize_t>(size))
        throw std::runtime_error("the client does not receive a signal");
}

void test_client::send(uint32_t number, const std::vector<uint32_t> &words)
{
    std::vector<uint32_t> signal = {number};
    for (const uint32_t word : words)
        signal.push_back(htonl(word));
    send_raw(signal.data(), signal.size() * sizeof(uint32_t));
}

message test_client::receive()
{
    static char packet[65536];
    await(socket_, "signal");
    const ssize_t size = recv(socket_, packet, sizeof(packet), 0);
    if (size <= 0)
        throw std::runtime_error("the client has ended");
    return {{packet, packet + size}};
}

message test_client::ask(uint32_t number, const std::vector<uint32_t> &words)
{
    send(number, words);
    return receive();
}

uint32_t test_client::connect(uint32_t own_reference)
{
    const message answer = ask(TESK_CONN_ESTABLISH_REQ, {1, own_reference, 1, 1});
    if (answer.number() != TESK_CONN_ESTABLISH_CFM)
        throw std::runtime_error("no connection: " + answer.text(16));
    return answer.word(8);
}

} // namespace testkit
