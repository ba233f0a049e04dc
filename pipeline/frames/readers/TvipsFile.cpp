/// \file
/// TVIPS recordings.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>

#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {
namespace {

/// A header and frames of 8 or 16 bits, each behind a record with the position of the stage. Long recordings
/// go on in files _001.tvips, _002.tvips ..., which have no header. The tilt is the first angle of the stage;
/// the pixel size that the header states is that of the camera.
class TvipsFile : public FrameFile {
public:
    explicit TvipsFile(FrameSource source);

    std::vector<std::filesystem::path> parts() const override {
        std::vector<std::filesystem::path> paths;
        for (std::size_t i = 1; i < m_parts.size(); ++i)
            paths.push_back(m_parts[i].source.path());
        return paths;
    }

private:
    struct Part {
        FrameSource source;
        std::uint64_t start = 0;  ///< of the first record
        int frames = 0;
    };
    Frame readFrame(int frame) const override;
    void addPart(const FrameSource& source, std::uint64_t start);
    void readRecords(FrameBytes& bytes, const Part& part);

    std::vector<Part> m_parts;
    FrameInfo m_usual;
    PixelType m_type = PixelType::UInt16;
    std::uint64_t m_recordBytes = 0;  ///< before the pixels of a frame
    std::uint64_t m_pixelBytes = 0;
};

FrameFormat::Match recogniseTvips(const FileStart& start) {
    using Match = FrameFormat::Match;
    if (start.bytes.size() < 52 || start.extension != ".tvips") return Match::No;
    const std::int64_t version = decodeInteger(start.bytes, 4, PixelType::UInt32, false);
    return version == 1 || version == 2 ? Match::Yes : Match::No;
}

const FrameFormat::Registration kTvips({"TVIPS", recogniseTvips, FrameFormat::openAs<TvipsFile>});

TvipsFile::TvipsFile(FrameSource source) : FrameFile(std::move(source)) {
    constexpr std::size_t headerBytes = 52;
    constexpr std::uint64_t oldRecord = 12;
    std::array<char, headerBytes> header{};
    this->source().open()->read(0, header);
    const auto integer = [&](std::size_t position) {
        return decodeInteger(header, position, PixelType::UInt32, false);
    };
    const std::int64_t bits = integer(16);
    checkSize(integer(8), integer(12));
    if (bits != 8 && bits != 16)
        refuse("its pixels have " + std::to_string(bits) + " bits; 8 and 16 are read");
    m_type = bits == 8 ? PixelType::UInt8 : PixelType::UInt16;
    m_usual.width = static_cast<int>(integer(8));
    m_usual.height = static_cast<int>(integer(12));
    const auto volts = static_cast<double>(integer(40));
    if (volts > 0) m_usual.kilovolts = volts >= 5000 ? volts / 1000 : volts;
    m_recordBytes = integer(4) == 1 ? oldRecord : static_cast<std::uint64_t>(integer(48));
    m_pixelBytes = static_cast<std::uint64_t>(integer(8) * integer(12)) * bytesOf(m_type);

    addPart(this->source(), static_cast<std::uint64_t>(integer(0)));
    const std::string name = path().string();
    const std::string end = "_000.tvips";
    for (int number = 1; name.ends_with(end) && number < 1000; ++number) {
        std::array<char, 16> digits{};
        std::snprintf(digits.data(), digits.size(), "_%03d", number);
        const std::filesystem::path next =
            name.substr(0, name.size() - end.size()) + digits.data() + ".tvips";
        std::error_code error;
        if (!std::filesystem::is_regular_file(next, error)) break;
        addPart(FrameSource(next), 0);
    }
    if (m_infos.empty()) refuse("it is truncated: not one frame is there in full");
}

void TvipsFile::addPart(const FrameSource& source, std::uint64_t start) {
    const std::unique_ptr<FrameBytes> bytes = source.open();
    const std::uint64_t frameBytes = m_recordBytes + m_pixelBytes;
    if (start > bytes->size()) refuse("it is truncated: its header is longer than the file");
    const std::uint64_t frames = (bytes->size() - start) / frameBytes;
    const std::uint64_t rest = (bytes->size() - start) % frameBytes;
    if (rest != 0)
        m_damage = source.path().string() + " is truncated: it ends " + std::to_string(frameBytes - rest) +
                   " bytes before frame " + std::to_string(m_infos.size() + frames + 1) + " does";
    m_parts.push_back({source, start, static_cast<int>(frames)});
    readRecords(*bytes, m_parts.back());
}

void TvipsFile::readRecords(FrameBytes& bytes, const Part& part) {
    constexpr std::size_t throughAngle = 44;
    for (int i = 0; i < part.frames; ++i) {
        FrameInfo info = m_usual;
        std::array<char, throughAngle> record{};
        const std::uint64_t start =
            part.start + static_cast<std::uint64_t>(i) * (m_recordBytes + m_pixelBytes);
        if (m_recordBytes >= throughAngle && bytes.read(start, record)) {
            const double tilt = decodeNumber(record, 40, PixelType::Float32, false);
            if (std::isfinite(tilt) && std::abs(tilt) <= 360) info.tilt = tilt;
        }
        m_infos.push_back(info);
    }
}

Frame TvipsFile::readFrame(int frame) const {
    int left = frame;
    auto part = m_parts.begin();
    while (left >= part->frames)
        left -= (part++)->frames;
    std::vector<char> bytes(m_pixelBytes);
    const std::uint64_t start =
        part->start + static_cast<std::uint64_t>(left) * (m_recordBytes + m_pixelBytes) + m_recordBytes;
    if (!part->source.open()->read(start, bytes))
        refuse("frame " + std::to_string(frame + 1) + " cannot be read");
    return {m_usual.width, m_usual.height, decodePixels(bytes, m_type, false)};
}

}  // namespace
}  // namespace vrk
