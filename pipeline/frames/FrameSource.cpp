#include "pipeline/frames/FrameSource.h"

#include <algorithm>
#include <array>
#include <fstream>
#include <limits>
#include <system_error>

#include "pipeline/base/Failure.h"
#include "pipeline/base/MemoryLimit.h"
#include "pipeline/frames/detail/Unpacking.h"

namespace vrk {
namespace {

class FileBytes : public FrameBytes {
public:
    explicit FileBytes(const std::filesystem::path& path) : m_file(path, std::ios::binary) {
        std::error_code error;
        m_size = std::filesystem::file_size(path, error);
        m_good = m_file && !error;
    }

    bool good() const { return m_good; }
    std::uint64_t size() const override { return m_size; }
    bool read(std::uint64_t position, std::span<char> target) override {
        if (position > m_size || target.size() > m_size - position) return false;
        m_file.clear();
        m_file.seekg(static_cast<std::streamoff>(position));
        m_file.read(target.data(), static_cast<std::streamsize>(target.size()));
        return static_cast<bool>(m_file);
    }

private:
    std::ifstream m_file;
    std::uint64_t m_size = 0;
    bool m_good = false;
};

class MemoryBytes : public FrameBytes {
public:
    explicit MemoryBytes(std::shared_ptr<const std::string> bytes) : m_bytes(std::move(bytes)) {}

    std::uint64_t size() const override { return m_bytes->size(); }
    bool read(std::uint64_t position, std::span<char> target) override {
        if (position > size() || target.size() > size() - position) return false;
        std::copy_n(m_bytes->data() + position, target.size(), target.data());
        return true;
    }

private:
    std::shared_ptr<const std::string> m_bytes;
};

}  // namespace

std::uint64_t mostUnpacked(std::uint64_t packed) {
    constexpr std::uint64_t kAnyway = std::uint64_t{64} << 20, kRatio = 1300;
    return std::max(kAnyway, kRatio * std::min(packed, std::numeric_limits<std::uint64_t>::max() / kRatio));
}

std::uint64_t bytesIn(const std::vector<std::filesystem::path>& files) {
    std::uint64_t bytes = 0;
    std::error_code error;
    for (const std::filesystem::path& file : files)
        if (const std::uintmax_t size = std::filesystem::file_size(file, error); !error) bytes += size;
    return bytes;
}

bool liesWithin(const std::filesystem::path& file, const std::filesystem::path& folder) {
    const std::filesystem::path way =
        file.lexically_normal().lexically_relative(folder.lexically_normal() / "");
    const std::filesystem::path inside = folder.empty() ? file.lexically_normal() : way;
    return !inside.empty() && inside.is_relative() && *inside.begin() != "..";
}

FrameSource::FrameSource(std::filesystem::path path, std::string inside)
    : m_path(std::move(path)), m_inside(std::move(inside)) {}

FrameSource::FrameSource(std::filesystem::path name, std::shared_ptr<const std::string> bytes)
    : m_path(std::move(name)), m_bytes(std::move(bytes)) {}

void FrameSource::refuse(const std::string& reason) const {
    throw Failure("cannot import " + m_path.string() + ": " + reason);
}

FrameSource::Packing FrameSource::packing() const {
    std::string start;
    if (m_bytes) {
        start = m_bytes->substr(0, 3);
    } else {
        std::array<char, 3> bytes{};
        std::ifstream file(m_path, std::ios::binary);
        file.read(bytes.data(), bytes.size());
        start.assign(bytes.data(), static_cast<std::size_t>(file.gcount()));
    }
    if (start.starts_with("\x1f\x8b")) return Packing::Gzip;
    if (start.starts_with("BZh")) return Packing::Bzip2;
    return Packing::None;
}

bool FrameSource::isPlainFile() const {
    return !m_bytes && packing() == Packing::None;
}

void FrameSource::refuseUnlessFile() const {
    std::error_code error;
    if (!m_bytes && !std::filesystem::is_regular_file(m_path, error)) refuse("there is no such file");
}

std::unique_ptr<FrameBytes> FrameSource::open() const {
    if (m_unpacked) return std::make_unique<MemoryBytes>(m_unpacked);
    refuseUnlessFile();
    const Packing packed = packing();
    if (packed == Packing::None) return openPlain();
    m_unpacked = std::make_shared<const std::string>(unpack(packed, limitOfUnpacking(), true));
    return std::make_unique<MemoryBytes>(m_unpacked);
}

std::unique_ptr<FrameBytes> FrameSource::openPlain() const {
    if (m_bytes) return std::make_unique<MemoryBytes>(m_bytes);
    auto file = std::make_unique<FileBytes>(m_path);
    if (!file->good()) refuse("it cannot be read; check its permissions");
    return file;
}

std::uint64_t FrameSource::limitOfUnpacking() const {
    constexpr std::uint64_t kMost = std::uint64_t{1} << 31;
    std::error_code error;
    const std::uintmax_t packed = m_bytes ? m_bytes->size() : std::filesystem::file_size(m_path, error);
    // A text that grows is there twice for moments.
    return std::min({kMost, mostUnpacked(error ? 0 : packed), memoryLeft() / 3});
}

std::string FrameSource::unpack(Packing packing, std::uint64_t most, bool whole) const {
    const detail::ChunkReader next =
        m_bytes ? detail::chunksOf(*m_bytes)
                : detail::chunksOf(std::make_shared<std::ifstream>(m_path, std::ios::binary));
    const auto beyond = whole ? detail::BeyondLimit::Refuse : detail::BeyondLimit::Stop;
    std::string unpacked;
    std::string reason;
    const bool good = packing == Packing::Gzip ? detail::gunzip(next, most, beyond, unpacked, reason)
                                               : detail::bunzip2(next, most, beyond, unpacked, reason);
    if (!good) refuse(reason);
    return unpacked;
}

std::string FrameSource::beginning(std::size_t most) const {
    if (!m_unpacked) {
        refuseUnlessFile();
        if (const Packing packed = packing(); packed != Packing::None) return unpack(packed, most, false);
    }
    const std::unique_ptr<FrameBytes> bytes = m_unpacked ? open() : openPlain();
    std::string start(std::min<std::uint64_t>(most, bytes->size()), '\0');
    if (!bytes->read(0, start)) refuse("it cannot be read");
    return start;
}

std::string FrameSource::everything(std::uint64_t most) const {
    const std::unique_ptr<FrameBytes> bytes = open();
    if (bytes->size() > most) refuse("it is too long for a file of its kind");
    requireMemory(2 * bytes->size(), m_path.string() + ": the contents");
    std::string all(bytes->size(), '\0');
    if (!bytes->read(0, all)) refuse("it cannot be read in full");
    return all;
}

}  // namespace vrk
