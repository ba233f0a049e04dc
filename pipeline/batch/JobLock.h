/// \file
/// One process at a job at a time.
#pragma once

#include <filesystem>
#include <string>

namespace vrk {

/// Keeps other processes out of a job while it lives, also those of other machines where the file system has
/// locks; it ends with the process, however that ends. All jobs share one file, each has a byte of it.
class JobLock {
public:
    /// Waits until the job is free. On file systems without locks it does nothing.
    JobLock(const std::filesystem::path& file, const std::string& job);
    ~JobLock();
    JobLock(const JobLock&) = delete;
    JobLock& operator=(const JobLock&) = delete;

private:
    int m_file = -1;
};

}  // namespace vrk
