#include "pipeline/frames/FrameFormat.h"

#include <algorithm>
#include <cctype>
#include <vector>

namespace vrk {
namespace {

/// Readers register while the library is loaded, in any order.
std::vector<FrameFormat>& frameFormats() {
    static std::vector<FrameFormat> all;
    return all;
}

std::string lowerExtension(const std::filesystem::path& path) {
    const auto lower = [](std::string text) {
        std::transform(text.begin(), text.end(), text.begin(),
                       [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
        return text;
    };
    std::string extension = lower(path.extension().string());
    if (extension == ".gz" || extension == ".bz2") extension = lower(path.stem().extension().string());
    return extension;
}

}  // namespace

FrameFormat::Registration::Registration(FrameFormat format) {
    std::vector<FrameFormat>& all = frameFormats();
    const auto before = [](const FrameFormat& a, const FrameFormat& b) { return a.name < b.name; };
    all.insert(std::upper_bound(all.begin(), all.end(), format, before), std::move(format));
}

const FrameFormat* FrameFormat::of(const FrameSource& source) {
    const std::string head = source.beginning(4096);
    const FileStart start{head, lowerExtension(source.path())};
    const FrameFormat* best = nullptr;
    Match surest = Match::No;
    for (const FrameFormat& format : frameFormats())
        if (const Match match = format.recognise(start); match > surest) {
            surest = match;
            best = &format;
        }
    return best;
}

std::string FrameFormat::names() {
    std::string names;
    for (const FrameFormat& format : frameFormats())
        names += (names.empty() ? "" : ", ") + format.name;
    return names;
}

}  // namespace vrk
