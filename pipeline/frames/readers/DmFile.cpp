/// \file
/// DM3 and DM4 files, one frame or a stack.
#include <algorithm>
#include <array>
#include <cmath>
#include <map>

#include "indexing/EwaldCurvature.h"
#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {
namespace {

/// Where an array of a tag lies in the file.
struct TagArray {
    std::uint64_t position = 0;
    std::uint64_t count = 0;
    PixelType type = PixelType::UInt8;
};

/// The tags of a file: numbers, texts and the places of arrays by their path, the names of groups and tags
/// with dots between. Nameless ones are called by their number in their group.
struct Tags {
    std::map<std::string, double> numbers;
    std::map<std::string, std::string> texts;
    std::map<std::string, TagArray> arrays;

    std::optional<double> number(const std::string& path) const {
        const auto found = numbers.find(path);
        return found == numbers.end() ? std::nullopt : std::optional(found->second);
    }
    std::string text(const std::string& path) const {
        const auto found = texts.find(path);
        return found == texts.end() ? "" : found->second;
    }
};

/// Reads the tree of tags. Its structure is big-endian, values are in the order that the header states.
/// Lengths have 4 bytes in version 3 and 8 in version 4, where each tag also states its size.
///
/// Layout: G. Jefferis and B. Schaffer, described by C. Boothroyd, "Digital Micrograph file formats" (public
/// notes).
class TagReader {
public:
    explicit TagReader(FrameBytes& bytes) : m_bytes(bytes) {}

    /// False when the tags are damaged or of an unknown kind.
    bool read(Tags& tags) {
        m_wide = integer(PixelType::Int32) == 4;
        length();  // of the file
        m_bigEndian = integer(PixelType::Int32) == 0;
        return m_good && readGroup("", 0, tags);
    }
    bool bigEndian() const { return m_bigEndian; }

private:
    static constexpr int kDeepest = 64;
    static constexpr int kMostTags = 1'000'000;

    /// Big-endian, whatever the order of the data is.
    std::int64_t integer(PixelType type) {
        std::array<char, 8> raw{};
        if (!take({raw.data(), bytesOf(type)})) return 0;
        return decodeInteger(raw, 0, type, true);
    }
    std::int64_t length() { return integer(m_wide ? PixelType::Int64 : PixelType::Int32); }
    bool take(std::span<char> target) {
        m_good = m_good && m_bytes.read(m_position, target);
        m_position += target.size();
        return m_good;
    }
    bool skip(std::uint64_t count) {
        m_good = m_good && m_position <= m_bytes.size() && count <= m_bytes.size() - m_position;
        m_position += count;
        return m_good;
    }

    static std::optional<PixelType> simpleType(std::int64_t code) {
        using enum PixelType;
        static const std::map<std::int64_t, PixelType> types = {
            {2, Int16}, {3, Int32}, {4, UInt16}, {5, UInt32}, {6, Float32}, {7, Float64},
            {8, UInt8}, {9, Int8},  {10, UInt8}, {11, Int64}, {12, UInt64}};
        const auto found = types.find(code);
        return found == types.end() ? std::nullopt : std::optional(found->second);
    }

    bool readGroup(const std::string& path, int depth, Tags& tags) {
        if (depth > kDeepest) return false;
        skip(2);  // sorted, open
        const std::int64_t count = length();
        for (std::int64_t i = 0; i < count && m_good; ++i) {
            if (++m_tags > kMostTags) return false;
            const std::int64_t kind = integer(PixelType::UInt8);
            std::string name(static_cast<std::size_t>(integer(PixelType::UInt16)), '\0');
            take(name);
            if (name.empty()) name = std::to_string(i);
            const std::string inside = path.empty() ? name : path + "." + name;
            if (m_wide) skip(8);
            constexpr std::int64_t group = 20;
            constexpr std::int64_t value = 21;
            if (kind == group ? !readGroup(inside, depth + 1, tags)
                              : kind != value || !readValue(inside, tags))
                return false;
        }
        return m_good;
    }

    bool readValue(const std::string& path, Tags& tags) {
        constexpr std::int64_t structure = 15;
        constexpr std::int64_t text = 18;
        constexpr std::int64_t array = 20;
        skip(4);   // %%%%
        length();  // numbers of the description that follows
        const std::int64_t code = length();
        if (const std::optional<PixelType> type = simpleType(code)) {
            std::array<char, 8> raw{};
            if (!take({raw.data(), bytesOf(*type)})) return false;
            tags.numbers[path] = decodeNumber(raw, 0, *type, m_bigEndian);
            return true;
        }
        if (code == text) return skip(static_cast<std::uint64_t>(length()));
        if (code == structure) return skip(structureBytes());
        if (code != array) return false;
        const std::int64_t element = length();
        if (element == structure) return skipElements(structureBytes());
        if (element == text) return skipElements(static_cast<std::uint64_t>(length()));
        if (element == array) {
            const std::optional<PixelType> inner = simpleType(length());
            return inner && skipElements(static_cast<std::uint64_t>(length()) * bytesOf(*inner));
        }
        const std::optional<PixelType> type = simpleType(element);
        if (!type) return false;
        return readArray(path, *type, tags);
    }

    bool skipElements(std::uint64_t bytes) {
        const std::int64_t count = length();
        const std::uint64_t most = m_bytes.size() / std::max<std::uint64_t>(bytes, 1);
        return count >= 0 && static_cast<std::uint64_t>(count) <= most &&
               skip(static_cast<std::uint64_t>(count) * bytes);
    }

    bool readArray(const std::string& path, PixelType type, Tags& tags) {
        const std::uint64_t size = bytesOf(type);
        const auto count = static_cast<std::uint64_t>(length());
        if (!m_good || count > m_bytes.size() / size) return false;
        tags.arrays[path] = {m_position, count, type};
        constexpr std::uint64_t longestText = 1000;
        if (type != PixelType::UInt16 || count > longestText) return skip(count * size);
        std::string raw(count * 2, '\0');
        if (!take(raw)) return false;
        std::string& characters = tags.texts[path];
        for (std::size_t i = 0; i < count; ++i) {
            const auto unit = decodeInteger(raw, 2 * i, type, m_bigEndian);
            if (unit < 128)
                characters += static_cast<char>(unit);
            else if (unit == 0xc5 || unit == 0x212b)
                characters += 'A';  // Angstrom
            else if (unit == 0xb0)
                characters += "deg";
        }
        return true;
    }

    std::uint64_t structureBytes() {
        length();
        const std::int64_t fields = length();
        std::uint64_t bytes = 0;
        for (std::int64_t i = 0; i < fields && m_good; ++i) {
            length();
            const std::optional<PixelType> type = simpleType(length());
            m_good = m_good && type.has_value();
            if (type) bytes += bytesOf(*type);
        }
        return bytes;
    }

    FrameBytes& m_bytes;
    std::uint64_t m_position = 0;
    bool m_wide = false;
    bool m_bigEndian = false;
    bool m_good = true;
    int m_tags = 0;
};

/// The largest image of the file (others are thumbnails). Pixel size from its calibration, tilt, voltage and
/// exposure from its tags; of a stack whose third dimension is calibrated in degrees, the tilts from there.
class DmFile : public FrameFile {
public:
    explicit DmFile(FrameSource source);

private:
    Frame readFrame(int frame) const override;
    std::string largestImage(const Tags& tags) const;
    void readGeometry(const Tags& tags, const std::string& image);

    TagArray m_pixels;
    bool m_bigEndian = false;
};

FrameFormat::Match recogniseDm(const FileStart& start) {
    using Match = FrameFormat::Match;
    if (start.bytes.size() < 16) return Match::No;
    const std::span<const char> head(start.bytes);
    const std::int64_t version = decodeInteger(head, 0, PixelType::Int32, true);
    if (version != 3 && version != 4) return Match::No;
    const std::int64_t order = decodeInteger(head, version == 3 ? 8 : 12, PixelType::Int32, true);
    const bool named = start.extension == ".dm3" || start.extension == ".dm4";
    return order != 0 && order != 1 ? Match::No : named ? Match::Yes : Match::Perhaps;
}

const FrameFormat::Registration kDm({"DM3/DM4", recogniseDm, FrameFormat::openAs<DmFile>});

DmFile::DmFile(FrameSource source) : FrameFile(std::move(source)) {
    const std::unique_ptr<FrameBytes> bytes = this->source().open();
    TagReader reader(*bytes);
    Tags tags;
    const bool complete = reader.read(tags);
    m_bigEndian = reader.bigEndian();
    // What is missing may be the image, and what is there its thumbnail.
    if (!complete) refuse("its tags are damaged or truncated");
    const std::string image = largestImage(tags);
    if (image.empty()) refuse("it holds no image of grey values");
    const auto size = [&](int dimension) {
        const double value =
            tags.number(image + "ImageData.Dimensions." + std::to_string(dimension)).value_or(1);
        return std::isnan(value) ? -1 : static_cast<long long>(std::clamp(value, -1.0, 1e9));
    };
    if (size(3) > 1) refuse("it has four dimensions; scans are not tilt series");
    if (size(2) < 1) refuse("it has no frames; the file is damaged");
    checkSize(size(0), size(1));
    m_pixels = tags.arrays.at(image + "ImageData.Data");
    setFrames(size(2), static_cast<long long>(m_pixels.count) / (size(0) * size(1)), size(0), size(1));
    readGeometry(tags, image);
}

/// "ImageList.1." or the like; empty when there is none.
std::string DmFile::largestImage(const Tags& tags) const {
    constexpr std::array<double, 6> coloured = {3, 5, 13, 23, 27, 28};  // and complex
    std::string best;
    std::uint64_t most = 0;
    for (const auto& [path, array] : tags.arrays) {
        const std::string end = "ImageData.Data";
        if (!path.starts_with("ImageList.") || !path.ends_with(end)) continue;
        const std::string image = path.substr(0, path.size() - end.size());
        const double type = tags.number(image + "ImageData.DataType").value_or(0);
        if (std::find(coloured.begin(), coloured.end(), type) != coloured.end() || array.count <= most)
            continue;
        most = array.count;
        best = image;
    }
    return best;
}

void DmFile::readGeometry(const Tags& tags, const std::string& image) {
    const std::string microscope = image + "ImageTags.Microscope Info.";
    const std::string calibration = image + "ImageData.Calibrations.Dimension.";
    std::optional<double> kilovolts;
    if (const auto volts = tags.number(microscope + "Voltage"); volts && *volts > 0)
        kilovolts = *volts / 1000;
    const double scale = std::abs(tags.number(calibration + "0.Scale").value_or(0));
    const std::string unit = tags.text(calibration + "0.Units");
    double perMetre = unit == "1/nm" || unit == "nm^-1" ? 1e9 : unit == "1/A" || unit == "A^-1" ? 1e10 : 0;
    if (kilovolts && (unit == "mrad" || unit == "rad"))
        perMetre = (unit == "rad" ? 1e10 : 1e7) / EwaldCurvature::wavelength(*kilovolts);
    std::optional<double> exposure = tags.number(image + "ImageTags.DataBar.Exposure Time (s)");
    if (!exposure) exposure = tags.number(image + "ImageTags.Acquisition.Parameters.High Level.Exposure (s)");
    const std::optional<double> tilt = tags.number(microscope + "Stage Position.Stage Alpha");
    const std::string third = tags.text(calibration + "2.Units");
    const double step = tags.number(calibration + "2.Scale").value_or(0);
    const double origin = tags.number(calibration + "2.Origin").value_or(0);
    for (std::size_t i = 0; i < m_infos.size(); ++i) {
        FrameInfo& info = m_infos[i];
        info.kilovolts = kilovolts;
        if (std::isfinite(scale) && scale > 0 && perMetre > 0) info.pixelSize = scale * perMetre;
        info.exposure = exposure;
        if (count() == 1 && tilt && std::abs(*tilt) <= 360) info.tilt = tilt;
        if (third == "deg" && step != 0) info.tilt = (static_cast<double>(i) - origin) * step;
    }
}

Frame DmFile::readFrame(int frame) const {
    const FrameInfo& info = m_infos.at(static_cast<std::size_t>(frame));
    std::vector<char> bytes(static_cast<std::size_t>(info.width) * static_cast<std::size_t>(info.height) *
                            bytesOf(m_pixels.type));
    if (!source().open()->read(m_pixels.position + static_cast<std::uint64_t>(frame) * bytes.size(), bytes))
        refuse("frame " + std::to_string(frame + 1) + " cannot be read");
    return {info.width, info.height, decodePixels(bytes, m_pixels.type, m_bigEndian)};
}

}  // namespace
}  // namespace vrk
