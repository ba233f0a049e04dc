/// \file
/// One writer at a time in a folder.
#pragma once

#include <filesystem>

namespace vrk {

/// Holds the file ".vrk-lock" in a folder, with the number of the process in it, while it lives. The lock of
/// a process that was killed is gone with it. File systems without locks are written to without one.
class FolderLock {
public:
    /// Throws Failure when another one is held, and when the folder may not be written to.
    explicit FolderLock(const std::filesystem::path& folder);
    ~FolderLock();
    FolderLock(const FolderLock&) = delete;
    FolderLock& operator=(const FolderLock&) = delete;

    static constexpr const char* kFile = ".vrk-lock";
    /// Throws Failure when a lock is held in the folder; writes nothing.
    static void refuseHeld(const std::filesystem::path& folder);

private:
    std::filesystem::path m_file;
    int m_lock = -1;
};

}  // namespace vrk
