#include "pipeline/batch/ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sstream>

namespace vrk {
namespace {

constexpr int kNotStarted = 127;
constexpr int kWait = 50;  ///< ms
constexpr std::size_t kLastWords = 8192;

/// In the child.
[[noreturn]] void become(const ChildCommand& command, const std::vector<char*>& words, int output,
                         pid_t parent) {
    prctl(PR_SET_PDEATHSIG, SIGTERM);
    if (getppid() != parent) _exit(kNotStarted);
    if (command.hasOwnGroup) setpgid(0, 0);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGPIPE})
        std::signal(signal, SIG_DFL);
    const int nothing = open("/dev/null", O_RDWR);
    dup2(nothing, STDIN_FILENO);
    dup2(command.log.empty() ? nothing : output, STDOUT_FILENO);
    dup2(output, STDERR_FILENO);
    if (chdir(command.folder.c_str()) != 0) _exit(kNotStarted);
    if (command.work) std::exit(command.work());
    execvp(words.front(), words.data());
    _exit(kNotStarted);
}

int codeOf(int status) {
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

/// What there is to read now, the last part of it.
void take(int from, std::string& words) {
    std::array<char, 4096> piece{};
    pollfd waiting{from, POLLIN, 0};
    while (poll(&waiting, 1, 0) > 0) {
        const ssize_t got = read(from, piece.data(), piece.size());
        if (got <= 0) return;
        words.append(piece.data(), static_cast<std::size_t>(got));
        if (words.size() > 2 * kLastWords) words.erase(0, words.size() - kLastWords);
    }
}

}  // namespace

ChildEnd runChild(const ChildCommand& command, const std::function<bool()>& canceled,
                  const std::function<void()>& idle) {
    std::array<int, 2> ends{-1, -1};
    if (command.log.empty()) {
        if (pipe2(ends.data(), O_CLOEXEC) != 0) return {kNotStarted, "cannot make a pipe"};
    } else {
        ends[1] = open(command.log.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
        if (ends[1] < 0) return {kNotStarted, "cannot write " + command.log.string()};
    }
    std::vector<char*> words;
    for (const std::string& word : command.words)
        words.push_back(const_cast<char*>(word.c_str()));
    words.push_back(nullptr);
    const pid_t self = getpid();
    // What waits in a stream would be written by both.
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        close(ends[0]);
        become(command, words, ends[1], self);
    }
    close(ends[1]);
    ChildEnd result;
    int status = 0;
    bool isAsked = false;
    while (child > 0 && waitpid(child, &status, WNOHANG) == 0) {
        pollfd waiting{ends[0], POLLIN, 0};
        poll(&waiting, ends[0] >= 0 ? 1 : 0, kWait);
        if (ends[0] >= 0) take(ends[0], result.lastWords);
        // A closed stream is always ready.
        if ((waiting.revents & POLLHUP) != 0) poll(nullptr, 0, kWait / 5);
        if (idle) idle();
        if (!isAsked && canceled()) isAsked = kill(command.hasOwnGroup ? -child : child, SIGTERM) == 0;
    }
    if (ends[0] >= 0) {
        take(ends[0], result.lastWords);
        close(ends[0]);
    }
    result.exitCode = child > 0 ? codeOf(status) : kNotStarted;
    return result;
}

bool isInPath(const std::string& program) {
    if (program.find('/') != std::string::npos) return access(program.c_str(), X_OK) == 0;
    const char* path = std::getenv("PATH");
    std::istringstream folders(path ? path : "/usr/bin:/bin");
    for (std::string folder; std::getline(folders, folder, ':');)
        if (access((folder + '/' + program).c_str(), X_OK) == 0) return true;
    return false;
}

}  // namespace vrk
