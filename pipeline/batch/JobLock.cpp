#include "pipeline/batch/JobLock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

namespace vrk {
namespace {

/// The byte of a job: two jobs that share one (a chance of 1 in 10^15) wait for each other.
struct flock rangeOf(const std::string& job, short type) {
    std::uint64_t hash = 14695981039346656037U;
    for (const char sign : job)
        hash = (hash ^ static_cast<unsigned char>(sign)) * 1099511628211U;
    struct flock range = {};
    range.l_type = type;
    range.l_whence = SEEK_SET;
    range.l_start = static_cast<off_t>(hash >> 14U);
    range.l_len = 1;
    return range;
}

int openLocks(const std::filesystem::path& file) {
    return open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0666);
}

}  // namespace

JobLock::JobLock(const std::filesystem::path& file, const std::string& job) : m_file(openLocks(file)) {
    struct flock range = rangeOf(job, F_WRLCK);
    while (m_file >= 0 && fcntl(m_file, F_OFD_SETLKW, &range) != 0 && errno == EINTR) {
    }
}

JobLock::~JobLock() {
    if (m_file >= 0) close(m_file);
}

}  // namespace vrk
