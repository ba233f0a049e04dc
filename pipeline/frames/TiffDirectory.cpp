#include "pipeline/frames/TiffDirectory.h"

#include <array>
#include <cstdint>
#include <fstream>
#include <set>

namespace vrk {
namespace {

class DirectoryReader {
public:
    explicit DirectoryReader(const std::filesystem::path& path) : m_file(path, std::ios::binary) {
        std::array<char, 4> start{};
        m_file.read(start.data(), start.size());
        m_bigEndian = start[0] == 'M';
        m_wide = start[m_bigEndian ? 3 : 2] == '+';
    }

    std::vector<TiffPage> pages() {
        constexpr std::size_t most = 100000;
        std::vector<TiffPage> pages;
        std::set<std::uint64_t> visited;
        std::uint64_t position = number(m_wide ? 8 : 4, offsetBytes());
        while (m_file && position != 0 && pages.size() < most && visited.insert(position).second) {
            const TiffPage page = readDirectory(position);
            if (m_file) pages.push_back(page);
        }
        return pages;
    }

private:
    std::size_t offsetBytes() const { return m_wide ? 8 : 4; }

    std::uint64_t number(std::uint64_t position, std::size_t bytes) {
        std::array<unsigned char, 8> raw{};
        m_file.seekg(static_cast<std::streamoff>(position & 0x7fffffffffffffffULL));
        m_file.read(reinterpret_cast<char*>(raw.data()), static_cast<std::streamsize>(bytes));
        std::uint64_t value = 0;
        for (std::size_t i = 0; i < bytes; ++i)
            value |= static_cast<std::uint64_t>(raw[m_bigEndian ? bytes - 1 - i : i]) << (8 * i);
        return m_file ? value : 0;
    }

    /// Reads width and height and moves the position on to the next directory.
    TiffPage readDirectory(std::uint64_t& position) {
        constexpr std::uint64_t widthTag = 256;
        constexpr std::uint64_t heightTag = 257;
        const std::uint64_t entryBytes = m_wide ? 20 : 12;
        const std::size_t countBytes = m_wide ? 8 : 2;
        const std::uint64_t entries = number(position, countBytes);
        if (entries > 4096) m_file.setstate(std::ios::failbit);
        const std::uint64_t first = position + countBytes;
        TiffPage page;
        for (std::uint64_t i = 0; i < entries && m_file; ++i) {
            const std::uint64_t entry = first + i * entryBytes;
            const std::uint64_t tag = number(entry, 2);
            if (tag != widthTag && tag != heightTag) continue;
            const std::size_t valueBytes = number(entry + 2, 2) == 3 ? 2 : 4;  // a short or a long
            const auto value = static_cast<long long>(number(entry + (m_wide ? 12 : 8), valueBytes));
            (tag == widthTag ? page.width : page.height) = value;
        }
        position = number(first + entries * entryBytes, offsetBytes());
        return page;
    }

    std::ifstream m_file;
    bool m_bigEndian = false;
    bool m_wide = false;
};

}  // namespace

std::vector<TiffPage> readTiffPages(const std::filesystem::path& path) {
    return DirectoryReader(path).pages();
}

}  // namespace vrk
