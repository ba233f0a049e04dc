#include "pipeline/frames/detail/SeparateProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdint>
#include <fstream>
#include <new>
#include <utility>

namespace vrk::detail {
namespace {

constexpr int kForever = -1;
constexpr int kNoMemory = 2;  // exit code

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

bool sendMessage(int socket, std::span<const char> message) {
    const std::uint64_t length = message.size();
    return sendBytes(socket, reinterpret_cast<const char*>(&length), sizeof length) &&
           sendBytes(socket, message.data(), message.size());
}

/// The length of the message that follows.
std::optional<std::uint64_t> receiveLength(int socket, int patience) {
    std::uint64_t length = 0;
    if (!receiveBytes(socket, reinterpret_cast<char*>(&length), sizeof length, patience)) return std::nullopt;
    return length;
}

std::optional<std::string> receiveMessage(int socket, int patience, std::size_t most) {
    const std::optional<std::uint64_t> announced = receiveLength(socket, patience);
    if (!announced || *announced > most) return std::nullopt;
    const std::size_t length = *announced;
    std::string message(length, '\0');
    if (!receiveBytes(socket, message.data(), message.size(), patience)) return std::nullopt;
    return message;
}

[[noreturn]] void serve(int socket, const SeparateProcess::Answer& answer) {
    // Ctrl-C is the parent's affair, which then ends this process.
    std::signal(SIGINT, SIG_IGN);
    for (const int fault : {SIGSEGV, SIGBUS, SIGABRT, SIGFPE, SIGILL, SIGPROF})
        std::signal(fault, SIG_DFL);
    const rlimit noCore{0, 0};
    setrlimit(RLIMIT_CORE, &noCore);
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDOUT_FILENO);
    dup2(nothing, STDERR_FILENO);
    constexpr std::size_t longestRequest = 1 << 16;
    bool isHeard = true;
    const SeparateProcess::Reply reply = [&](std::span<const char> bytes) {
        isHeard = sendMessage(socket, bytes);
    };
    try {
        while (isHeard) {
            const std::optional<std::string> request = receiveMessage(socket, kForever, longestRequest);
            if (!request) break;
            answer(*request, reply);
        }
    } catch (const std::bad_alloc&) {
        _exit(kNoMemory);
    } catch (...) {
        _exit(1);
    }
    _exit(0);
}

}  // namespace

SeparateProcess::SeparateProcess(const Answer& answer, int patience) : m_patience(patience) {
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

template <typename Receive>
bool SeparateProcess::askAnd(const std::string& request, const Receive& receive) {
    const bool good = m_socket >= 0 && sendMessage(m_socket, request) && receive();
    if (!good) end();
    return good;
}

std::optional<std::string> SeparateProcess::ask(const std::string& request, std::size_t most) {
    std::optional<std::string> answer;
    askAnd(request, [&] {
        answer = receiveMessage(m_socket, m_patience, most);
        return answer.has_value();
    });
    return answer;
}

bool SeparateProcess::ask(const std::string& request, std::span<char> answer) {
    return askAnd(request, [&] {
        return receiveLength(m_socket, m_patience) == answer.size() &&
               receiveBytes(m_socket, answer.data(), answer.size(), m_patience);
    });
}

void SeparateProcess::allowSeconds(double seconds) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    seconds *= 10.0;
#endif
    itimerval time{};
    time.it_value.tv_sec = static_cast<time_t>(seconds);
    time.it_value.tv_usec = static_cast<suseconds_t>((seconds - std::floor(seconds)) * 1e6);
    setitimer(ITIMER_PROF, &time, nullptr);
}

void SeparateProcess::allowMemory(std::uint64_t bytes) {
#ifdef __SANITIZE_ADDRESS__  // its shadow takes terabytes
    static_cast<void>(bytes);
#else
    rlim_t pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    rlimit limit{};
    if (pages == 0 || getrlimit(RLIMIT_AS, &limit) != 0) return;
    limit.rlim_cur = std::min(limit.rlim_max, pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + bytes);
    setrlimit(RLIMIT_AS, &limit);
#endif
}

void SeparateProcess::end() {
    if (m_socket >= 0) close(std::exchange(m_socket, -1));
    if (m_child <= 0) return;
    kill(m_child, SIGKILL);
    int status = 0;
    while (waitpid(m_child, &status, 0) < 0 && errno == EINTR) {
    }
    if (WIFSIGNALED(status) && WTERMSIG(status) == SIGPROF) m_excess = "time";
    if (WIFEXITED(status) && WEXITSTATUS(status) == kNoMemory) m_excess = "memory";
    m_child = -1;
}

}  // namespace vrk::detail
