/// \file
/// What the fuzz targets share: bytes as a file that is in memory only, numbers made of bytes, and checks.
#pragma once

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <istream>
#include <memory>
#include <span>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

#include "foundation/Narration.h"
#include "pipeline/base/Failure.h"

namespace fuzz {

using Bytes = std::span<const std::uint8_t>;

/// Ends the target, as a crash does, when something does not hold that always has to.
inline void expect(bool holds, const char* what) {
    if (holds) return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

inline std::string_view textOf(Bytes bytes) {
    return {reinterpret_cast<const char*>(bytes.data()), bytes.size()};
}

/// Bytes as a stream, read where they lie.
class ByteStream : private std::streambuf, public std::istream {
public:
    explicit ByteStream(Bytes bytes) : std::istream(static_cast<std::streambuf*>(this)) {
        // A buffer for reading takes a pointer to what could be written, and writes nothing.
        char* begin = const_cast<char*>(reinterpret_cast<const char*>(bytes.data()));
        setg(begin, begin, begin + bytes.size());
    }
};

/// A file without a place on disk, for readers that take a path. One for the life of a target.
class MemoryFile {
public:
    MemoryFile() : m_file(memfd_create("fuzz", MFD_CLOEXEC)) {
        m_path = "/proc/self/fd/" + std::to_string(m_file);
        expect(m_file >= 0, "there are files in memory");
    }
    ~MemoryFile() { close(m_file); }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;

    /// Replaces the contents. \returns the path
    const std::string& hold(Bytes bytes) {
        const auto size = static_cast<off_t>(bytes.size());
        const bool held = (size == m_size || ftruncate(m_file, size) == 0) &&
                          pwrite(m_file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(size);
        expect(held, "a file in memory holds what is written");
        m_size = size;
        return m_path;
    }

private:
    int m_file;
    off_t m_size = 0;
    std::string m_path;
};

/// Runs what may refuse its input, which is the only way in which it may fail.
template <typename Work>
bool refusable(Work work) {
    try {
        work();
        return true;
    } catch (const vrk::Failure& failure) {
        expect(failure.what()[0] != '\0', "a refusal says why");
        return false;
    }
}

/// Numbers of the kinds that upset algorithms, made of the last bytes first; 0 when none is left.
class Numbers {
public:
    explicit Numbers(Bytes bytes) : m_bytes(bytes) {}

    bool more() const { return !m_bytes.empty(); }
    bool flag() { return (next() & 1) != 0; }
    int whole(int least, int most) {
        const std::uint64_t count = static_cast<std::uint64_t>(std::int64_t{most} - least) + 1;
        std::uint64_t number = 0;
        for (std::uint64_t left = count - 1; left > 0 && more(); left >>= 8)
            number = number << 8 | next();
        return static_cast<int>(least + static_cast<std::int64_t>(number % count));
    }
    /// Multiples of 1/64 mostly, so that equal values are frequent; one in eight of any size, one in 32 of
    /// any bits.
    double any() {
        const int kind = whole(0, 31);
        if (kind == 0) return bits();
        if (kind < 4) return std::ldexp(static_cast<double>(whole(-1000, 1000)), whole(-80, 80));
        return static_cast<double>(whole(-8192, 8191)) / 64.0;
    }
    double within(double least, double most) {
        return least + (most - least) * static_cast<double>(whole(0, 65535)) / 65535.0;
    }

private:
    std::uint8_t next() {
        if (m_bytes.empty()) return 0;
        const std::uint8_t byte = m_bytes.back();
        m_bytes = m_bytes.first(m_bytes.size() - 1);
        return byte;
    }
    double bits() {
        std::uint64_t number = 0;
        for (int i = 0; i < 8; ++i)
            number = number << 8 | next();
        return std::bit_cast<double>(number);
    }

    Bytes m_bytes;
};

/// While a target runs the library says nothing on the standard output.
inline const VRK::QuietNarration kQuiet;

}  // namespace fuzz

/// The body of a target: FUZZ_TARGET(bytes) { ... }
#define FUZZ_TARGET(bytes)                                                              \
    static void runTarget(fuzz::Bytes bytes);                                           \
    extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) { \
        runTarget(fuzz::Bytes(data, size));                                             \
        return 0;                                                                       \
    }                                                                                   \
    static void runTarget(fuzz::Bytes bytes)
