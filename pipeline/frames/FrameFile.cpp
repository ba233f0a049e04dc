#include "pipeline/frames/FrameFile.h"

#include <algorithm>
#include <array>

#include "pipeline/base/Failure.h"
#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/frames/FrameFormat.h"

namespace vrk {
namespace {

FrameSource sourceOf(const std::filesystem::path& path) {
    std::error_code error;
    if (std::filesystem::exists(path, error)) return FrameSource(path);
    const std::string text = path.string();
    const std::size_t colon = text.rfind(":/");
    if (colon != std::string::npos && std::filesystem::is_regular_file(text.substr(0, colon), error))
        return FrameSource(text.substr(0, colon), text.substr(colon + 1));
    return FrameSource(path);
}

}  // namespace

std::unique_ptr<FrameFile> FrameFile::open(const std::filesystem::path& path, bool allowOutside) {
    FrameSource source = sourceOf(path);
    if (allowOutside) source.allowOutside();
    return open(std::move(source));
}

std::unique_ptr<FrameFile> FrameFile::open(FrameSource source) {
    const FrameFormat* format = FrameFormat::of(source);
    if (!format)
        throw Failure("cannot import " + source.path().string() +
                      ": it is of none of the kinds that are read (" + FrameFormat::names() + ")");
    std::error_code ignored;
    std::optional<FileState> state;
    if (std::filesystem::exists(source.path(), ignored)) state = stateOf(source.path());
    std::unique_ptr<FrameFile> file = format->open(std::move(source));
    file->m_state = state;
    file->checkPacking();
    if (file->count() == 1) file->m_source.forget();
    return file;
}

Frame FrameFile::read(int frame) const {
    const FrameInfo& info = m_infos.at(static_cast<std::size_t>(frame));
    // As they lie in the file, and as numbers.
    requireMemory(
        2 * sizeof(float) * static_cast<std::uint64_t>(info.width) * static_cast<std::uint64_t>(info.height),
        formatted("%s: frames of %d x %d pixels", path().c_str(), info.width, info.height));
    Frame pixels = readFrame(frame);
    if (m_state) refuseChanged(path(), *m_state);
    if (count() == 1) m_source.forget();
    return pixels;
}

void FrameFile::checkPacking() const {
    constexpr std::uint64_t kUsual = std::uint64_t{1} << 24, kPixelsAByte = 900;
    std::uint64_t most = 0;
    for (const FrameInfo& info : m_infos)
        most =
            std::max(most, static_cast<std::uint64_t>(info.width) * static_cast<std::uint64_t>(info.height));
    if (most <= kUsual) return;
    const std::uint64_t bytes = m_source.open()->size() + bytesIn(parts());
    if (most / kPixelsAByte > bytes)
        refuse("it announces frames of " + std::to_string(most) + " pixels and has " + std::to_string(bytes) +
               " bytes for them; the file is damaged, or its frames are empty");
}

void FrameFile::refuse(const std::string& reason) const {
    throw Failure("cannot import " + path().string() + ": " + reason);
}

void FrameFile::checkSize(long long width, long long height) const {
    constexpr long long largest = 16384;
    if (width < 1 || height < 1 || width > largest || height > largest)
        refuse("its header gives frames of " + std::to_string(width) + " x " + std::to_string(height) +
               " pixels; the file is damaged or of another kind");
}

void FrameFile::setFrames(long long count, long long complete, long long width, long long height) {
    checkSize(width, height);
    if (complete < count) {
        m_damage = "it is truncated: the header announces " + std::to_string(count) + " frames of " +
                   std::to_string(width) + " x " + std::to_string(height) + " pixels, " +
                   std::to_string(std::max(0LL, complete)) + " are there";
        if (complete < 1) refuse(m_damage);
    }
    constexpr long long most = 100'000;
    if (std::min(count, complete) > most)
        refuse("its header announces " + std::to_string(count) + " frames, more than the " +
               std::to_string(most) + " that a series can be made of; import a part of them");
    FrameInfo info;
    info.width = static_cast<int>(width);
    info.height = static_cast<int>(height);
    m_infos.assign(static_cast<std::size_t>(std::min(count, complete)), info);
}

}  // namespace vrk
