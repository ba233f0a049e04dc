#include "pipeline/base/FileText.h"

#include <fstream>
#include <vector>

#include "pipeline/base/Failure.h"

namespace vrk {

std::optional<std::string> wholeFile(const std::filesystem::path& path) {
    constexpr std::size_t most = 1'000'000'000;
    std::ifstream file(path, std::ios::binary);
    std::string text;
    std::vector<char> block(1 << 16);
    while (file && text.size() <= most) {
        file.read(block.data(), static_cast<std::streamsize>(block.size()));
        text.append(block.data(), static_cast<std::size_t>(file.gcount()));
    }
    if (!file.eof() || text.size() > most) return std::nullopt;
    return text;
}

std::string textOfFile(const std::filesystem::path& path) {
    if (std::optional<std::string> text = wholeFile(path)) return *std::move(text);
    std::error_code error;
    const bool isThere = std::filesystem::exists(path, error);
    throw Failure("cannot read " + path.string() + (isThere ? "" : ": there is no such file"));
}

}  // namespace vrk
