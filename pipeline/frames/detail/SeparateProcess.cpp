#include "pipeline/frames/detail/SeparateProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <utility>

namespace vrk::detail {
namespace {

constexpr int kPatience = 120'000;  // ms without a byte
constexpr int kForever = -1;

bool sendBytes(int socket, const char* bytes, std::size_t count) {
    while (count > 0) {
        const ssize_t sent = send(socket, bytes, count, MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        if (sent <= 0) return false;
        bytes += sent;
        count -= static_cast<std::size_t>(sent);
    }
    return true;
}

bool receiveBytes(int socket, char* bytes, std::size_t count, int patience) {
    while (count > 0) {
        pollfd waiting{socket, POLLIN, 0};
        const int ready = poll(&waiting, 1, patience);
        if (ready < 0 && errno == EINTR) continue;
        if (ready <= 0) return false;
        const ssize_t got = recv(socket, bytes, count, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        bytes += got;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

bool sendMessage(int socket, const std::string& message) {
    const std::uint64_t length = message.size();
    return sendBytes(socket, reinterpret_cast<const char*>(&length), sizeof length) &&
           sendBytes(socket, message.data(), message.size());
}

std::optional<std::string> receiveMessage(int socket, int patience) {
    constexpr std::uint64_t longest = std::uint64_t{1} << 32;
    std::uint64_t length = 0;
    if (!receiveBytes(socket, reinterpret_cast<char*>(&length), sizeof length, patience) || length > longest)
        return std::nullopt;
    std::string message(length, '\0');
    if (!receiveBytes(socket, message.data(), message.size(), patience)) return std::nullopt;
    return message;
}

/// Some gigabytes more than the process has already.
void limitMemory() {
#ifndef __SANITIZE_ADDRESS__  // its shadow takes terabytes
    constexpr rlim_t more = rlim_t{6} << 30;
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    const rlim_t bytes = pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + more;
    rlimit limit{};
    if (pages == 0 || getrlimit(RLIMIT_AS, &limit) != 0) return;
    limit.rlim_cur = std::min(limit.rlim_max, bytes);
    setrlimit(RLIMIT_AS, &limit);
#endif
}

[[noreturn]] void serve(int socket, const SeparateProcess::Answer& answer) {
    // Ctrl-C is the parent's affair, which then ends this process.
    std::signal(SIGINT, SIG_IGN);
    for (const int fault : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGXCPU})
        std::signal(fault, SIG_DFL);
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDOUT_FILENO);
    dup2(nothing, STDERR_FILENO);
    limitMemory();
    try {
        while (const std::optional<std::string> request = receiveMessage(socket, kForever))
            if (!sendMessage(socket, answer(*request))) break;
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

}  // namespace

SeparateProcess::SeparateProcess(const Answer& answer) {
    std::array<int, 2> ends{-1, -1};
    if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends.data()) != 0) return;
    m_child = fork();
    if (m_child == 0) {
        close(ends[0]);
        serve(ends[1], answer);
    }
    close(ends[1]);
    m_socket = ends[0];
    if (m_child < 0) end();
}

SeparateProcess::~SeparateProcess() {
    end();
}

std::optional<std::string> SeparateProcess::ask(const std::string& request) {
    std::optional<std::string> answer;
    if (m_socket >= 0 && sendMessage(m_socket, request)) answer = receiveMessage(m_socket, kPatience);
    if (!answer) end();
    return answer;
}

void SeparateProcess::allowSeconds(int seconds) {
    rusage used{};
    rlimit limit{};
    if (getrusage(RUSAGE_SELF, &used) != 0 || getrlimit(RLIMIT_CPU, &limit) != 0) return;
    const auto sum = used.ru_utime.tv_sec + used.ru_stime.tv_sec + 1 + seconds;
    limit.rlim_cur = std::min(limit.rlim_max, static_cast<rlim_t>(sum));
    setrlimit(RLIMIT_CPU, &limit);
}

void SeparateProcess::end() {
    if (m_socket >= 0) close(std::exchange(m_socket, -1));
    if (m_child <= 0) return;
    kill(m_child, SIGKILL);
    while (waitpid(m_child, nullptr, 0) < 0 && errno == EINTR) {
    }
    m_child = -1;
}

}  // namespace vrk::detail
