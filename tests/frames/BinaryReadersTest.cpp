#include "ExpectedFrames.h"
#include "pipeline/frames/PixelDecoder.h"
#include "support/FailureOf.h"

namespace {

using vrk::FrameFile;

std::string pixelsAs(vrk::PixelType type, int frame) {
    using enum vrk::PixelType;
    return type == UInt8     ? rawFrame<std::uint8_t>(frame)
           : type == Int16   ? rawFrame<std::int16_t>(frame)
           : type == UInt16  ? rawFrame<std::uint16_t>(frame)
           : type == Int32   ? rawFrame<std::int32_t>(frame)
           : type == UInt32  ? rawFrame<std::uint32_t>(frame)
           : type == Float64 ? rawFrame<double>(frame)
                             : rawFrame<float>(frame);
}

/// The tags that DM3 and DM4 files consist of.
struct DmTags {
    bool wide;

    std::string length(std::size_t value) const {
        return wide ? rawBytes(std::int64_t(value), true) : rawBytes(std::int32_t(value), true);
    }
    std::string tag(char kind, const std::string& name, const std::string& content) const {
        const std::string unused(wide ? 8 : 0, '\0');
        return kind + rawBytes(std::int16_t(name.size()), true) + name + unused + content;
    }
    std::string group(const std::string& name, const std::vector<std::string>& tags) const {
        const std::string content = std::accumulate(tags.begin(), tags.end(), std::string());
        return tag(20, name, std::string(2, '\0') + length(tags.size()) + content);
    }
    std::string data(const std::string& name, const std::vector<std::size_t>& type,
                     const std::string& bytes) const {
        std::string description = "%%%%" + length(type.size());
        for (const std::size_t part : type)
            description += length(part);
        return tag(21, name, description + bytes);
    }
    template <class Number>
    std::string number(const std::string& name, std::size_t type, Number value) const {
        return data(name, {type}, rawBytes(value));
    }
    std::string frames(std::size_t code, vrk::PixelType type, int count) const {
        std::string bytes;
        for (int frame = 0; frame < count; ++frame)
            bytes += pixelsAs(type, frame);
        return data("Data", {20, code, std::size_t(count * kFramePixels)}, bytes);
    }
    std::string calibration(float scale, const std::string& unit, float origin) const {
        std::string text;
        for (const char c : unit)
            text += rawBytes(std::uint16_t{static_cast<unsigned char>(c)});
        return group("", {number("Scale", 6, scale), number("Origin", 6, origin),
                          data("Units", {20, 4, unit.size()}, text)});
    }
};

struct DmContents {
    int version = 3;
    std::string unit = "1/nm";
    int frames = 3;
    std::string third = "\xb0";  ///< unit of the third dimension
    int kind = 7;                ///< of the data: complex, coloured ...
    std::size_t code = 3;        ///< of a pixel in the array, and what it stands for
    vrk::PixelType type = vrk::PixelType::Int32;
    std::vector<int> sizes = {kFrameWidth, kFrameHeight, frames};
};

/// A DM3 or DM4 file of a coloured thumbnail and frames, taken with the stage at -1 degrees.
std::string dmBytes(const DmContents& contents) {
    const DmTags dm{contents.version == 4};
    std::vector<std::string> sizes;
    for (const int size : contents.sizes)
        sizes.push_back(dm.number("", 5, std::uint32_t(size)));
    const std::string thumbnail = dm.group(
        "ImageData", {dm.frames(3, vrk::PixelType::Int32, 1), dm.number("DataType", 3, std::int32_t{23})});
    const std::string axes = dm.group(
        "Dimension", {dm.calibration(-0.05F, contents.unit, 0), dm.calibration(0.07F, contents.unit, 0),
                      dm.calibration(1, contents.third, 1)});
    const std::string image =
        dm.group("ImageData",
                 {dm.group("Calibrations", {axes}), dm.frames(contents.code, contents.type, contents.frames),
                  dm.number("DataType", 3, contents.kind), dm.group("Dimensions", sizes)});
    const std::string stage = dm.group("Stage Position", {dm.number("Stage Alpha", 6, -1.0F)});
    const std::string tags =
        dm.group("ImageTags", {dm.data("text", {18, 3}, "abc"), dm.data("texts", {20, 18, 3, 0}, ""),
                               dm.data("structure", {15, 0, 2, 0, 3, 0, 2}, "abcdef"),
                               dm.data("structures", {20, 15, 0, 2, 0, 3, 0, 2, 2}, "abcdefghijkl"),
                               dm.data("arrays", {20, 20, 2, 3, 2}, "abcdefghijkl"),
                               dm.group("DataBar", {dm.number("Exposure Time (s)", 7, 0.5)}),
                               dm.group("Microscope Info", {dm.number("Voltage", 6, 200e3F), stage})});
    // Values are little-endian; there is one tag.
    return rawBytes(contents.version, true) + dm.length(0x1234567) + rawBytes(1, true) +
           std::string(2, '\0') + dm.length(1) +
           dm.group("ImageList", {dm.group("", {thumbnail}), dm.group("", {image, tags})});
}

/// A SER file with places of four or eight bytes for three images, of which the first \p valid were taken.
std::string serBytes(bool wide, int valid, double edge = 4e7, std::uint16_t code = 7,
                     vrk::PixelType type = vrk::PixelType::Float32, std::uint32_t kind = 0x4122) {
    const auto place = [&](std::size_t value) {
        return wide ? rawBytes(std::uint64_t{value}) : rawBytes(static_cast<std::uint32_t>(value));
    };
    std::string file = rawBytes(std::uint16_t{0x4949}) + rawBytes(std::uint16_t{0x0197}) +
                       rawBytes(std::uint16_t(wide ? 0x220 : 0x210)) + rawBytes(kind) + rawBytes(0x4152) +
                       rawBytes(3) + rawBytes(valid);
    const std::size_t list = file.size() + (wide ? 12 : 8);
    file += place(list) + rawBytes(0);
    const std::size_t elementBytes = 50 + vrk::bytesOf(type) * kFramePixels;
    for (std::size_t i = 0; i < 3; ++i)
        file += place(list + 3 * (wide ? 8U : 4U) + i * elementBytes);
    for (int frame = 0; frame < valid; ++frame)
        file += rawBytes(0.0) + rawBytes(edge) + rawBytes(0) + rawBytes(0.0) + rawBytes(5e7) + rawBytes(0) +
                rawBytes(code) + rawBytes(kFrameWidth) + rawBytes(kFrameHeight) + pixelsAs(type, frame);
    return file;
}

std::string tvipsFrames(int first, int last) {
    std::string file;
    for (int frame = first; frame <= last; ++frame)  // with the stage's angles
        file += std::string(40, '\0') + rawBytes(static_cast<float>(frame - 1)) + rawBytes(0.0F) +
                rawFrame<std::uint16_t>(frame);
    return file;
}

std::string tvipsHeader(int version = 2, int bits = 16, int volts = 200) {
    std::string file;
    for (const int value : {256, version, kFrameWidth, kFrameHeight, bits, 0, 0, 1, 1, 15600, volts, 0, 48})
        file += rawBytes(value);
    file.resize(256, 'x');
    return file;
}

TEST(BinaryReaders, StacksWithWhatTheirHeadersSay) {
    using enum vrk::PixelType;
    const TemporaryFolder folder;
    const double ofRadian = 1e10 / 0.02507934;  // at 200 kV
    for (const auto& [contents, tilted, pixelSize] : {
             std::tuple{DmContents{}, true, 5e7},
             {{.version = 4, .unit = "A^-1", .code = 4, .type = UInt16}, true, 5e8},
             {{.unit = "mrad", .third = "nm", .code = 2, .type = Int16}, false, 5e-5 * ofRadian},
             {{.unit = "rad", .frames = 1, .third = "", .code = 6, .type = Float32}, true, 0.05 * ofRadian},
             {{.unit = "nm", .frames = 2, .code = 10, .type = UInt8}, true, 0.0},
             {{.unit = "1/A", .code = 5, .type = UInt32}, true, 5e8},
             {{.unit = "nm^-1", .code = 7, .type = Float64}, true, 5e7},
         }) {
        const auto file = FrameFile::open(folder.write("a.dm", dmBytes(contents)));
        SCOPED_TRACE(contents.unit);
        expectFrames(*file, {.firstTilt = tilted ? -1.0 : 99.0,
                             .pixelSize = pixelSize,
                             .kilovolts = 200,
                             .exposure = 0.5,
                             .count = contents.frames});
    }
    for (const auto& [wide, edge, code, type] : {std::tuple{false, 4e7, 1, UInt8},
                                                 {true, -4e7, 2, UInt16},
                                                 {true, 4e7, 3, UInt32},
                                                 {false, 4e7, 5, Int16},
                                                 {true, 4e7, 6, Int32},
                                                 {true, 4e7, 7, Float32},
                                                 {true, 2e-10, 8, Float64}})
        expectFrames(*FrameFile::open(folder.write(
                         "a.ser", serBytes(wide, 2, edge, static_cast<std::uint16_t>(code), type))),
                     {.pixelSize = edge == 2e-10 ? 0 : 4e7, .count = 2});
    folder.write("a_001.tvips", tvipsFrames(1, 2));
    const auto recording = FrameFile::open(folder.write("a_000.tvips", tvipsHeader() + tvipsFrames(0, 0)));
    expectFrames(*recording, {.firstTilt = -1, .kilovolts = 200});
    EXPECT_EQ(recording->parts(), std::vector<std::filesystem::path>{folder / "a_001.tvips"});
    std::string bytes = tvipsHeader(1, 8, 200000);  // with short records, which say no tilt
    for (int frame = 0; frame < 2; ++frame)
        bytes += std::string(12, '\0') + rawFrame<std::uint8_t>(frame);
    expectFrames(*FrameFile::open(folder.write("old.tvips", bytes)), {.kilovolts = 200, .count = 2});
}

TEST(BinaryReaders, TruncatedStacksKeepTheirCompleteFrames) {
    const TemporaryFolder folder;
    const std::string dm = dmBytes({});
    const std::string ser = serBytes(true, 3);
    const std::string tvips = tvipsHeader() + tvipsFrames(0, 2);
    for (const auto& [name, bytes, pixelSize, kilovolts] :
         {std::tuple{"a.ser", ser, 4e7, 0.0}, {"a.tvips", tvips, 0.0, 200.0}}) {
        const auto file = FrameFile::open(folder.write(name, bytes.substr(0, bytes.size() - 1)));
        expectFrames(*file, {.firstTilt = pixelSize == 0 ? -1.0 : 99.0,
                             .pixelSize = pixelSize,
                             .kilovolts = kilovolts,
                             .count = 2});
        EXPECT_NE(file->damage().find("truncated"), std::string::npos) << file->damage();
        folder.write(name, bytes);
        EXPECT_TRUE(failureOf([&] { file->read(0); }).says("changed while"));
        EXPECT_THROW(FrameFile::open(folder.write(name, bytes.substr(0, 90))), vrk::Failure);
    }
    for (const auto& [name, bytes, reason] :
         {std::tuple{"a.dm3", dm.substr(0, dm.size() / 2), "tags are damaged"},
          {"a.dm3", dmBytes({.kind = 3}), "no image of grey values"},
          {"a.dm3", dmBytes({.sizes = {5, 4, 0}}), "it has no frames"},
          {"a.dm3", dmBytes({.sizes = {5, 4, 1, 2}}), "four dimensions"},
          {"a.ser", serBytes(true, 2, 4e7, 9), "complex"},
          {"a.ser", serBytes(false, 0), "it holds no images"},
          {"a.ser", ser.substr(0, 57), "the list of its 3 images is not there"},
          {"a.ser", ser.substr(0, 58), "0 of its 3 images are there"},
          {"a.ser", serBytes(true, 2, 4e7, 7, vrk::PixelType::Float32, 0x4120), "spectra"},
          {"a.tvips", tvipsHeader(2, 32) + tvipsFrames(0, 1), "32 bits"}})
        EXPECT_TRUE(failureOf([&, name = name, bytes = bytes] {
                        FrameFile::open(folder.write(name, bytes));
                    }).says(reason))
            << reason;
}

}  // namespace
