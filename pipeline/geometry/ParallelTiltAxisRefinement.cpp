#include "pipeline/geometry/ParallelTiltAxisRefinement.h"

#include <poll.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <iostream>
#include <type_traits>
#include <utility>

namespace vrk {
namespace {

/// What a process sends of one angle. Smaller than what a pipe takes at once.
struct Message {
    std::size_t index = 0;
    TiltAxisScore score;
};
static_assert(std::is_trivially_copyable_v<Message>);

bool writeAll(int descriptor, const void* data, std::size_t size) {
    const char* from = static_cast<const char*>(data);
    while (size > 0) {
        const ssize_t written = ::write(descriptor, from, size);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return false;
        from += written;
        size -= static_cast<std::size_t>(written);
    }
    return true;
}

/// False at the end of the pipe.
bool readAll(int descriptor, void* data, std::size_t size) {
    char* to = static_cast<char*>(data);
    while (size > 0) {
        const ssize_t got = ::read(descriptor, to, size);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        to += got;
        size -= static_cast<std::size_t>(got);
    }
    return true;
}

}  // namespace

/// A process and the reading end of its pipe. Ended and waited for on destruction.
struct ParallelTiltAxisRefinement::Worker {
    Worker() = default;
    Worker(Worker&& other) noexcept
        : process(std::exchange(other.process, -1)), pipe(std::exchange(other.pipe, -1)) {}
    Worker& operator=(Worker&&) = delete;
    ~Worker() {
        if (pipe >= 0) {
            // Its work is done, or nobody waits for it any more.
            kill(process, SIGKILL);
            close(pipe);
        }
        if (process > 0)
            while (waitpid(process, nullptr, 0) < 0 && errno == EINTR) {
            }
    }
    void closePipe() {
        close(pipe);
        pipe = -1;
    }

    pid_t process = -1;
    int pipe = -1;
};

ParallelTiltAxisRefinement::ParallelTiltAxisRefinement(int jobs, Session& session)
    : m_jobs(static_cast<std::size_t>(std::max(jobs, 1))), m_session(session) {
    registerObserver(&session.progress());
}

ParallelTiltAxisRefinement::Worker ParallelTiltAxisRefinement::startWorker(const std::vector<float>& angles,
                                                                           std::size_t first,
                                                                           std::size_t stride, bool mode3D) {
    Worker worker;
    std::array<int, 2> ends{};
    if (::pipe(ends.data()) != 0) return worker;
    std::cout.flush();
    worker.process = fork();
    if (worker.process == 0) {
        close(ends[0]);
        registerObserver(nullptr);
        int code = 0;
        try {
            for (std::size_t i = first; i < angles.size() && code == 0; i += stride) {
                const Message message{i, scoreAngle(angles[i], mode3D)};
                if (!writeAll(ends[1], &message, sizeof message)) code = 1;
            }
        } catch (...) {
            code = 1;
        }
        std::cout.flush();
        _exit(code);
    }
    close(ends[1]);
    worker.pipe = ends[0];
    if (worker.process < 0) worker.closePipe();
    return worker;
}

void ParallelTiltAxisRefinement::evaluateAngles(const std::vector<float>& angles, const std::string& name,
                                                bool mode3D) {
    const std::size_t count = std::min(m_jobs, angles.size());
    if (count < 2) {
        VRKTiltAxisRefinement::evaluateAngles(angles, name, mode3D);
        return;
    }
    std::vector<Worker> workers;
    for (std::size_t i = 0; i < count; ++i)
        workers.push_back(startWorker(angles, i, count, mode3D));

    Scores scores(angles.size());
    std::size_t recorded = 0;
    do {
        for (; recorded < angles.size() && scores[recorded]; ++recorded) {
            if (!beginAngle(angles[recorded])) return;
            recordScore(*scores[recorded]);
        }
    } while (collect(workers, scores));
    // Only angles whose process failed are left.
    for (; recorded < angles.size(); ++recorded) {
        if (!beginAngle(angles[recorded])) return;
        recordScore(scores[recorded] ? *scores[recorded] : scoreAngle(angles[recorded], mode3D));
    }
}

bool ParallelTiltAxisRefinement::collect(std::vector<Worker>& workers, Scores& scores) {
    std::vector<pollfd> pipes;
    pipes.reserve(workers.size());
    for (const Worker& worker : workers)
        pipes.push_back({worker.pipe, POLLIN, 0});  // poll() passes over those that are -1
    if (std::all_of(pipes.begin(), pipes.end(), [](const pollfd& p) { return p.fd < 0; })) return false;
    while (poll(pipes.data(), pipes.size(), -1) < 0)
        if (errno != EINTR) return false;
    for (std::size_t i = 0; i < workers.size(); ++i) {
        if (pipes[i].fd < 0 || pipes[i].revents == 0) continue;
        Message message;
        if (readAll(workers[i].pipe, &message, sizeof message) && message.index < scores.size())
            scores[message.index] = message.score;
        else
            workers[i].closePipe();
    }
    return true;
}

}  // namespace vrk
