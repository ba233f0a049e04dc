/// \file
/// SER files, one frame or a series.
#include <array>
#include <cmath>

#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {
namespace {

/// A header, a list of places, and at each a frame behind its calibration. A series that was stopped holds
/// fewer frames than it has places for. The calibration is the pixel size where it is reciprocal (1/metre).
/// Rows run upwards in these files.
///
/// Layout: C. Boothroyd, "TIA file formats" (public notes).
class SerFile : public FrameFile {
public:
    explicit SerFile(FrameSource source);

private:
    struct Element {
        std::uint64_t position = 0;  ///< of the pixels
        PixelType type = PixelType::UInt16;
    };
    Frame readFrame(int frame) const override;
    /// Reads what stands before the pixels of a frame; false when the frame is not there in full.
    bool readElement(FrameBytes& bytes, std::uint64_t position);

    std::vector<Element> m_elements;
};

FrameFormat::Match recogniseSer(const FileStart& start) {
    using namespace std::string_view_literals;
    return start.bytes.starts_with("II\x97\x01"sv) ? FrameFormat::Match::Yes : FrameFormat::Match::No;
}

const FrameFormat::Registration kSer({"SER", recogniseSer, FrameFormat::openAs<SerFile>});

SerFile::SerFile(FrameSource source) : FrameFile(std::move(source)) {
    constexpr std::size_t headerBytes = 34;
    const std::unique_ptr<FrameBytes> bytes = this->source().open();
    std::array<char, headerBytes> header{};
    if (!bytes->read(0, header)) refuse("it ends within its header");
    const auto integer = [&](std::size_t position, PixelType type) {
        return static_cast<std::uint64_t>(decodeInteger(header, position, type, false));
    };
    constexpr std::uint64_t images = 0x4122;
    constexpr std::uint64_t lastWithShortPlaces = 0x210;
    if (integer(6, PixelType::UInt32) != images) refuse("it holds spectra, not images");
    const bool wide = integer(4, PixelType::UInt16) > lastWithShortPlaces;
    const PixelType placeType = wide ? PixelType::UInt64 : PixelType::UInt32;
    const std::uint64_t valid = integer(18, PixelType::UInt32);
    const std::uint64_t list = integer(22, placeType);
    const std::uint64_t listBytes = valid * bytesOf(placeType);
    if (valid == 0)
        refuse("it holds no images; those of a single exposure can lie in the .emi file beside it");
    if (list > bytes->size() || listBytes > bytes->size() - list)
        refuse("it is truncated: the list of its " + std::to_string(valid) + " images is not there");
    std::vector<char> places(listBytes);
    bytes->read(list, places);
    for (std::uint64_t i = 0; i < valid && m_damage.empty(); ++i) {
        const std::int64_t place = decodeInteger(places, i * bytesOf(placeType), placeType, false);
        if (readElement(*bytes, static_cast<std::uint64_t>(place))) continue;
        m_damage = "it is truncated or damaged: " + std::to_string(i) + " of its " + std::to_string(valid) +
                   " images are there";
        if (i == 0) refuse(m_damage);
    }
}

bool SerFile::readElement(FrameBytes& bytes, std::uint64_t position) {
    constexpr std::size_t calibrationBytes = 50;
    std::array<char, calibrationBytes> start{};
    if (!bytes.read(position, start)) return false;
    const auto integer = [&](std::size_t at, PixelType type) {
        return decodeInteger(start, at, type, false);
    };
    using enum PixelType;
    constexpr std::array<PixelType, 8> types = {UInt8, UInt16, UInt32, Int8, Int16, Int32, Float32, Float64};
    const std::int64_t code = integer(40, UInt16);
    if (code < 1 || code > static_cast<std::int64_t>(types.size()))
        refuse("its pixels are complex or of an unknown kind");
    Element element{position + calibrationBytes, types[static_cast<std::size_t>(code - 1)]};
    FrameInfo info;
    checkSize(integer(42, UInt32), integer(46, UInt32));
    info.width = static_cast<int>(integer(42, UInt32));
    info.height = static_cast<int>(integer(46, UInt32));
    const double pixel = std::abs(decodeNumber(start, 8, Float64, false));
    if (std::isfinite(pixel) && pixel > 1) info.pixelSize = pixel;
    const std::uint64_t needed = static_cast<std::uint64_t>(info.width) *
                                 static_cast<std::uint64_t>(info.height) * bytesOf(element.type);
    if (needed > bytes.size() - element.position) return false;
    m_elements.push_back(element);
    m_infos.push_back(info);
    return true;
}

Frame SerFile::readFrame(int frame) const {
    const Element& element = m_elements.at(static_cast<std::size_t>(frame));
    const FrameInfo& info = m_infos[static_cast<std::size_t>(frame)];
    std::vector<char> bytes(static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height) *
                            bytesOf(element.type));
    if (!source().open()->read(element.position, bytes))
        refuse("frame " + std::to_string(frame + 1) + " cannot be read");
    return {info.width, info.height, decodePixels(bytes, element.type, false)};
}

}  // namespace
}  // namespace vrk
