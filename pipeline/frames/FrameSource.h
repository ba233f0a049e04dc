/// \file
/// Where the bytes of frame files come from: a file, memory, or either of them packed.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace vrk {

/// Whether a file lies in a folder or below it, by the names alone: where symbolic links lead is up to those
/// who made them.
bool liesWithin(const std::filesystem::path& file, const std::filesystem::path& folder);

/// How many bytes so many packed ones may be unpacked to. Nothing but zeros becomes 1032 times shorter by
/// deflate, 1273 times by LZW; what holds counts is far from that. Up to 64 MiB may be of anything.
std::uint64_t mostUnpacked(std::uint64_t packed);

/// How many bytes the files have together, as far as they are there.
std::uint64_t bytesIn(const std::vector<std::filesystem::path>& files);

/// Bytes that are open for reading at any position.
class FrameBytes {
public:
    virtual ~FrameBytes() = default;

    virtual std::uint64_t size() const = 0;
    /// Fills \p target with the bytes from \p position on. False when they are not all there.
    virtual bool read(std::uint64_t position, std::span<char> target) = 0;
};

/// A file or a piece of memory that is read as if it were one. What gzip or bzip2 packed appears unpacked.
class FrameSource {
public:
    /// A file on disk, which is not opened yet.
    /// \param inside  a place within the file, for kinds that have such; empty: the whole
    explicit FrameSource(std::filesystem::path path, std::string inside = "");
    /// Bytes in memory. The name serves messages and files that are named relative to this one.
    FrameSource(std::filesystem::path name, std::shared_ptr<const std::string> bytes);

    const std::filesystem::path& path() const { return m_path; }
    const std::string& inside() const { return m_inside; }
    /// Files that this one names may lie anywhere from now on, not only in its folder and below.
    void allowOutside() { m_allowsOutside = true; }
    bool allowsOutside() const { return m_allowsOutside; }
    /// Whether another program that is given the path reads the same bytes.
    bool isPlainFile() const;

    /// Throws Failure when the file cannot be read, or unpacks to more than 2 GiB, than mostUnpacked() or
    /// than memory allows.
    std::unique_ptr<FrameBytes> open() const;
    /// The first bytes, at most \p most; of packed files no more is unpacked. Throws as open() does.
    std::string beginning(std::size_t most) const;
    /// All bytes. Throws Failure for sources of more than \p most bytes.
    std::string everything(std::uint64_t most) const;

    /// Unpacked bytes stay in memory until they are forgotten.
    void forget() const { m_unpacked.reset(); }

private:
    enum class Packing { None, Gzip, Bzip2 };
    Packing packing() const;
    void refuseUnlessFile() const;
    /// What is not packed.
    std::unique_ptr<FrameBytes> openPlain() const;
    std::string unpack(Packing packing, std::uint64_t most, bool whole) const;
    /// What all that is packed may be unpacked to.
    std::uint64_t limitOfUnpacking() const;
    [[noreturn]] void refuse(const std::string& reason) const;

    std::filesystem::path m_path;
    std::string m_inside;
    bool m_allowsOutside = false;
    std::shared_ptr<const std::string> m_bytes;             ///< null for files
    mutable std::shared_ptr<const std::string> m_unpacked;  ///< null when not packed or not opened yet
};

}  // namespace vrk
