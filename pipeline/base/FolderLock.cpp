#include "pipeline/base/FolderLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>

#include "pipeline/base/Failure.h"

namespace vrk {
namespace {

constexpr int kPatience = 5;

Failure isHeld(const std::filesystem::path& lockFile) {
    std::string process;
    std::ifstream(lockFile) >> process;
    return Failure("another run" + (process.empty() ? "" : " (process " + process + ")") +
                   " is writing into " + lockFile.parent_path().string() +
                   "; wait for it, or name another folder with -o");
}

}  // namespace

FolderLock::FolderLock(const std::filesystem::path& folder) : m_file(folder / kFile) {
    // A file that its owner removed between opening and locking locks nothing: once more then.
    for (int attempt = 0; attempt < 100; ++attempt) {
        m_lock = open(m_file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
        if (m_lock < 0)
            throw Failure("cannot write into the folder " + folder.string() + ": " + std::strerror(errno));
        if (flock(m_lock, LOCK_EX | LOCK_NB) != 0) {
            const bool isTaken = errno == EWOULDBLOCK;
            close(m_lock);
            m_lock = -1;
            if (!isTaken) return;
            // One who only looks whether it is held gives it back at once.
            if (attempt >= kPatience) throw isHeld(m_file);
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
            continue;
        }
        struct stat mine = {}, there = {};
        if (fstat(m_lock, &mine) == 0 && stat(m_file.c_str(), &there) == 0 && mine.st_ino == there.st_ino) {
            std::ofstream(m_file) << getpid() << '\n';
            return;
        }
        close(m_lock);
        m_lock = -1;
    }
    throw isHeld(m_file);
}

FolderLock::~FolderLock() {
    if (m_lock < 0) return;
    std::error_code ignored;
    std::filesystem::remove(m_file, ignored);
    close(m_lock);
}

void FolderLock::refuseHeld(const std::filesystem::path& folder) {
    const std::filesystem::path file = folder / kFile;
    const int lock = open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (lock < 0) return;
    const bool held = flock(lock, LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
    close(lock);
    if (held) throw isHeld(file);
}

}  // namespace vrk
