/// \file
/// How much memory the work may take, asked before it is taken.
#pragma once

#include <cstdint>
#include <filesystem>
#include <string>

namespace vrk {

/// Memory that can be had without others losing theirs: what the system has available, or what the control
/// group of the process leaves, whichever is less. Bytes; the largest number where neither is known. \param
/// root  of the file system with proc and sys
std::uint64_t freeMemory(const std::filesystem::path& root = "/");

/// What the process has, bytes.
std::uint64_t residentMemory();

/// "500M", "1.5G" (powers of 1024), "80%" of what is free. Throws Failure (usage) for other texts and for 0.
std::uint64_t memoryFromText(const std::string& text, std::uint64_t free);

/// "63.5 MiB"
std::string memoryText(std::uint64_t bytes);

/// Limits the whole process to so many bytes in the eyes of the thread that makes it, until its end. Without
/// one, four fifths of what is free may be added to what the process has.
class MemoryLimit {
public:
    explicit MemoryLimit(std::uint64_t bytes);
    ~MemoryLimit();
    MemoryLimit(const MemoryLimit&) = delete;
    MemoryLimit& operator=(const MemoryLimit&) = delete;

private:
    std::uint64_t m_before;
};

/// What may still be taken, bytes.
std::uint64_t memoryLeft();

/// Throws Failure where less is left than needed; it says both numbers.
/// \param what  needs it, a plural: "121 patterns of 512 x 512 pixels"
void requireMemory(std::uint64_t bytes, const std::string& what);

}  // namespace vrk
