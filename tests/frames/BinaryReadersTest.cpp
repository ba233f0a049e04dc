#include "ExpectedFrames.h"
#include "pipeline/frames/PixelDecoder.h"
#include "support/FailureOf.h"

namespace {

using vrk::FrameFile;
using vrk::FrameSource;

/// Bytes of a file in the making.
struct Bytes {
    std::string text;

    template <class Number>
    Bytes& add(Number value, bool bigEndian = false) {
        char raw[sizeof value];
        std::memcpy(raw, &value, sizeof value);
        if (bigEndian) std::reverse(raw, raw + sizeof value);
        text.append(raw, sizeof value);
        return *this;
    }
    template <class Number>
    Bytes& addPixels(int frame) {
        for (int i = 0; i < kFramePixels; ++i)
            add(static_cast<Number>(countAt(frame, i)));
        return *this;
    }
    Bytes& addPixelsAs(vrk::PixelType type, int frame) {
        using enum vrk::PixelType;
        return type == UInt8     ? addPixels<std::uint8_t>(frame)
               : type == Int16   ? addPixels<std::int16_t>(frame)
               : type == UInt16  ? addPixels<std::uint16_t>(frame)
               : type == Int32   ? addPixels<std::int32_t>(frame)
               : type == UInt32  ? addPixels<std::uint32_t>(frame)
               : type == Float64 ? addPixels<double>(frame)
                                 : addPixels<float>(frame);
    }
};

struct DmContents {
    int version = 3;
    std::string unit = "1/nm";
    int frames = 3;
    std::string third = "\xb0";  ///< unit of the third dimension
    int kind = 7;                ///< of the data: complex, coloured ...
    std::int64_t code = 3;       ///< of a pixel in the array, and what it stands for
    vrk::PixelType type = vrk::PixelType::Int32;
};

/// A DM3 or DM4 file of a coloured thumbnail and frames, taken with the stage at -1 degrees.
class DmBytes {
public:
    explicit DmBytes(const DmContents& contents) : m_wide(contents.version == 4) {
        m_file.add(std::int32_t{contents.version}, true);
        length(0x1234567);
        m_file.add(std::int32_t{1}, true);  // values are little-endian
        group(1);
        begin("ImageList", 2);
        begin("", 1);
        begin("ImageData", 2);
        array("Data", 3, vrk::PixelType::Int32, 1);
        number("DataType", 3, std::int32_t{23});
        begin("", 2);
        begin("ImageData", 4);
        begin("Calibrations", 1);
        begin("Dimension", 3);
        calibration(-0.05F, contents.unit, 0);
        calibration(0.07F, contents.unit, 0);
        calibration(1, contents.third, 1);
        array("Data", contents.code, contents.type, contents.frames);
        number("DataType", 3, std::int32_t{contents.kind});
        begin("Dimensions", 3);
        for (const int size : {kFrameWidth, kFrameHeight, contents.frames})
            number("", 5, std::uint32_t(size));
        begin("ImageTags", 2);
        begin("DataBar", 1);
        number("Exposure Time (s)", 7, 0.5);
        begin("Microscope Info", 2);
        number("Voltage", 6, 200e3F);
        begin("Stage Position", 1);
        number("Stage Alpha", 6, -1.0F);
    }
    const std::string& bytes() const { return m_file.text; }

private:
    void length(std::int64_t value) {
        if (m_wide)
            m_file.add(value, true);
        else
            m_file.add(static_cast<std::int32_t>(value), true);
    }
    void group(std::int64_t tags) {
        m_file.add(std::int16_t{0});
        length(tags);
    }
    void name(char kind, const std::string& text) {
        m_file.add(kind).add(static_cast<std::int16_t>(text.size()), true);
        m_file.text += text;
        if (m_wide) m_file.add(std::int64_t{0}, true);
    }
    void begin(const std::string& text, std::int64_t tags) {
        name(20, text);
        group(tags);
    }
    void description(const std::string& text, std::initializer_list<std::int64_t> numbers) {
        name(21, text);
        m_file.text += "%%%%";
        length(static_cast<std::int64_t>(numbers.size()));
        for (const std::int64_t value : numbers)
            length(value);
    }
    template <class Number>
    void number(const std::string& text, std::int64_t type, Number value) {
        description(text, {type});
        m_file.add(value);
    }
    void array(const std::string& text, std::int64_t code, vrk::PixelType type, int frames) {
        description(text, {20, code, frames * kFramePixels});
        for (int frame = 0; frame < frames; ++frame)
            m_file.addPixelsAs(type, frame);
    }
    void calibration(float scale, const std::string& unit, float origin) {
        begin("", 3);
        number("Scale", 6, scale);
        number("Origin", 6, origin);
        description("Units", {20, 4, static_cast<std::int64_t>(unit.size())});
        for (const char c : unit)
            m_file.add(std::uint16_t{static_cast<unsigned char>(c)});
    }

    bool m_wide;
    Bytes m_file;
};

/// A SER file with places of four or eight bytes for three images, of which the first \p valid were taken.
std::string serBytes(bool wide, int valid, double edge = 4e7, std::uint16_t code = 7,
                     vrk::PixelType type = vrk::PixelType::Float32, std::uint32_t kind = 0x4122) {
    Bytes file;
    const auto place = [&](std::uint64_t value) {
        if (wide)
            file.add(value);
        else
            file.add(static_cast<std::uint32_t>(value));
    };
    file.add(std::uint16_t{0x4949}).add(std::uint16_t{0x0197}).add(std::uint16_t(wide ? 0x220 : 0x210));
    file.add(kind).add(std::uint32_t{0x4152}).add(std::uint32_t{3}).add(std::uint32_t(valid));
    const std::size_t list = file.text.size() + (wide ? 12 : 8);
    place(list);
    file.add(std::uint32_t{0});
    const std::size_t elementBytes = 50 + vrk::bytesOf(type) * kFramePixels;
    const std::size_t first = list + 3 * (wide ? 8U : 4U);
    for (std::size_t i = 0; i < 3; ++i)
        place(first + i * elementBytes);
    for (int frame = 0; frame < valid; ++frame) {
        file.add(0.0).add(edge).add(std::uint32_t{0}).add(0.0).add(5e7).add(std::uint32_t{0});
        file.add(code)
            .add(std::uint32_t{kFrameWidth})
            .add(std::uint32_t{kFrameHeight})
            .addPixelsAs(type, frame);
    }
    return file.text;
}

std::string tvipsFrames(int first, int last) {
    Bytes file;
    for (int frame = first; frame <= last; ++frame) {
        for (int i = 0; i < 10; ++i)
            file.add(std::uint32_t{0});
        file.add(static_cast<float>(frame - 1)).add(0.0F);  // the stage's angles
        file.addPixels<std::uint16_t>(frame);
    }
    return file.text;
}

std::string tvipsHeader(int version = 2, int bits = 16, int volts = 200) {
    Bytes file;
    for (const int value : {256, version, kFrameWidth, kFrameHeight, bits, 0, 0, 1, 1, 15600, volts, 0, 48})
        file.add(std::uint32_t(value));
    file.text.resize(256, 'x');
    return file.text;
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
        const auto file = FrameFile::open(folder.write("a.dm", DmBytes(contents).bytes()));
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
    Bytes old;  // with short records, which say no tilt
    for (int frame = 0; frame < 2; ++frame)
        old.add(std::uint64_t{0}).add(std::uint32_t{0}).addPixels<std::uint8_t>(frame);
    const std::string bytes = tvipsHeader(1, 8, 200000) + old.text;
    expectFrames(*FrameFile::open(folder.write("old.tvips", bytes)), {.kilovolts = 200, .count = 2});
}

TEST(BinaryReaders, TruncatedStacksKeepTheirCompleteFrames) {
    const TemporaryFolder folder;
    const std::string dm = DmBytes({}).bytes();
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
        EXPECT_THROW(FrameFile::open(folder.write(name, bytes.substr(0, 90))), vrk::Failure);
    }
    for (const auto& [name, bytes, reason] :
         {std::tuple{"a.dm3", dm.substr(0, dm.size() / 2), "tags are damaged"},
          {"a.dm3", DmBytes({.kind = 3}).bytes(), "no image of grey values"},
          {"a.ser", serBytes(true, 2, 4e7, 9), "complex"},
          {"a.ser", serBytes(false, 0), "it holds no images"},
          {"a.ser", ser.substr(0, 45), "the list of its 3 images is not there"},
          {"a.ser", serBytes(true, 2, 4e7, 7, vrk::PixelType::Float32, 0x4120), "spectra"},
          {"a.tvips", tvipsHeader(2, 32) + tvipsFrames(0, 1), "32 bits"}})
        EXPECT_TRUE(failureOf([&] { FrameFile::open(folder.write(name, bytes)); }).says(reason)) << reason;
}

}  // namespace
