#include "pipeline/frames/FrameFile.h"

#include <array>
#include <fstream>
#include <system_error>

#include "pipeline/base/Failure.h"
#include "pipeline/frames/MrcStack.h"
#include "pipeline/frames/SmvFile.h"
#include "pipeline/frames/TiffFile.h"

namespace vrk {

std::unique_ptr<FrameFile> FrameFile::open(const std::filesystem::path& path) {
    std::error_code error;
    if (!std::filesystem::is_regular_file(path, error))
        throw Failure("cannot import " + path.string() + ": there is no such file");
    std::ifstream file(path, std::ios::binary);
    std::array<char, 512> start{};
    file.read(start.data(), start.size());
    if (!file && !file.eof()) throw Failure("cannot import " + path.string() + ": it cannot be read");
    const std::string head(start.data(), static_cast<std::size_t>(file.gcount()));
    if (SmvFile::recognises(head)) return std::make_unique<SmvFile>(path);
    if (TiffFile::recognises(head)) return std::make_unique<TiffFile>(path);
    return std::make_unique<MrcStack>(path);
}

void FrameFile::refuse(const std::string& reason) const {
    throw Failure("cannot import " + m_path.string() + ": " + reason);
}

void FrameFile::checkSize(long long width, long long height) const {
    constexpr long long largest = 16384;
    if (width < 1 || height < 1 || width > largest || height > largest)
        refuse("its header gives frames of " + std::to_string(width) + " x " + std::to_string(height) +
               " pixels; the file is damaged or of another kind");
}

}  // namespace vrk
