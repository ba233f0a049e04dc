#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "pipeline/base/Failure.h"
#include "pipeline/frames/FrameFile.h"
#include "support/TemporaryFolder.h"

namespace {

using vrk::FrameFile;
using vrk::FrameSource;

constexpr int kWidth = 5;
constexpr int kHeight = 4;

int pixel(int frame, int i) {
    return 100 * frame + 3 * i + 1;
}

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
        for (int i = 0; i < kWidth * kHeight; ++i)
            add(static_cast<Number>(pixel(frame, i)));
        return *this;
    }
};

/// A DM3 or DM4 file of a thumbnail and a stack of three frames.
class DmBytes {
public:
    explicit DmBytes(int version) : m_wide(version == 4) {
        m_file.add(std::int32_t{version}, true);
        length(0);
        m_file.add(std::int32_t{1}, true);  // values are little-endian
        group(1);
        begin("ImageList", 2);
        begin("", 1);
        begin("ImageData", 1);
        array("Data", 2, 2, 4);  // a thumbnail
        begin("", 2);
        begin("ImageData", 4);
        begin("Calibrations", 1);
        begin("Dimension", 3);
        calibration(0.05F, "1/nm", 0);
        calibration(0.05F, "1/nm", 0);
        calibration(1, "\xb0", 1);
        array("Data", 3, 4, 3 * kWidth * kHeight);
        number("DataType", 3, std::int32_t{7});
        begin("Dimensions", 3);
        for (const int size : {kWidth, kHeight, 3})
            number("", 5, std::uint32_t(size));
        begin("ImageTags", 1);
        begin("Microscope Info", 1);
        number("Voltage", 6, 200e3F);
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
    void array(const std::string& text, std::int64_t type, int bytesEach, int count) {
        description(text, {20, type, count});
        for (int i = 0; i < count; ++i) {
            if (bytesEach == 4)
                m_file.add(std::int32_t{pixel(i / (kWidth * kHeight), i % (kWidth * kHeight))});
            else
                m_file.add(std::int16_t{7});
        }
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
std::string serBytes(bool wide, int valid) {
    Bytes file;
    const auto place = [&](std::uint64_t value) {
        if (wide)
            file.add(value);
        else
            file.add(static_cast<std::uint32_t>(value));
    };
    file.add(std::uint16_t{0x4949}).add(std::uint16_t{0x0197}).add(std::uint16_t(wide ? 0x220 : 0x210));
    file.add(std::uint32_t{0x4122})
        .add(std::uint32_t{0x4152})
        .add(std::uint32_t{3})
        .add(std::uint32_t(valid));
    const std::size_t list = file.text.size() + (wide ? 12 : 8);
    place(list);
    file.add(std::uint32_t{0});
    const std::size_t elementBytes = 50 + 4 * kWidth * kHeight;
    const std::size_t first = list + 3 * (wide ? 8U : 4U);
    for (std::size_t i = 0; i < 3; ++i)
        place(first + i * elementBytes);
    for (int frame = 0; frame < valid; ++frame) {
        file.add(0.0).add(4e7).add(std::uint32_t{0}).add(0.0).add(4e7).add(std::uint32_t{0});
        file.add(std::uint16_t{7}).add(std::uint32_t{kWidth}).add(std::uint32_t{kHeight});
        file.addPixels<float>(frame);
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
    for (const int value : {256, version, kWidth, kHeight, bits, 0, 0, 1, 1, 15600, volts, 0, 48})
        file.add(std::uint32_t(value));
    file.text.resize(256, 'x');
    return file.text;
}

void expectFrames(const FrameFile& file, int count, bool tilted, double pixelSize, double kilovolts) {
    ASSERT_EQ(file.count(), count);
    for (int frame = count - 1; frame >= 0; --frame) {
        EXPECT_EQ(file.info(frame).tilt.value_or(99), tilted ? frame - 1 : 99);
        EXPECT_NEAR(file.info(frame).pixelSize.value_or(0), pixelSize, 10);
        EXPECT_EQ(file.info(frame).kilovolts.value_or(0), kilovolts);
        const vrk::Frame read = file.read(frame);
        ASSERT_EQ(read.width, kWidth);
        ASSERT_EQ(read.pixels.size(), static_cast<std::size_t>(kWidth * kHeight));
        for (int i = 0; i < kWidth * kHeight; ++i)
            ASSERT_EQ(read.pixels[static_cast<std::size_t>(i)], pixel(frame, i)) << frame << ' ' << i;
    }
}

TEST(BinaryReaders, StacksWithWhatTheirHeadersSay) {
    const TemporaryFolder folder;
    for (const int version : {3, 4})
        expectFrames(
            *FrameFile::open(folder.write("a.dm" + std::to_string(version), DmBytes(version).bytes())), 3,
            true, 5e7, 200);
    for (const bool wide : {false, true})
        expectFrames(*FrameFile::open(folder.write("a.ser", serBytes(wide, 2))), 2, false, 4e7, 0);
    folder.write("a_001.tvips", tvipsFrames(2, 2));
    const auto recording = FrameFile::open(folder.write("a_000.tvips", tvipsHeader() + tvipsFrames(0, 1)));
    expectFrames(*recording, 3, true, 0, 200);
    EXPECT_EQ(recording->parts(), std::vector<std::filesystem::path>{folder / "a_001.tvips"});
    Bytes old;  // with short records, which say no tilt
    for (int frame = 0; frame < 2; ++frame)
        old.add(std::uint64_t{0}).add(std::uint32_t{0}).addPixels<std::uint8_t>(frame);
    const std::string bytes = tvipsHeader(1, 8, 200000) + old.text;
    expectFrames(*FrameFile::open(folder.write("old.tvips", bytes)), 2, false, 0, 200);
}

TEST(BinaryReaders, TruncatedStacksKeepTheirCompleteFrames) {
    const TemporaryFolder folder;
    const std::string dm = DmBytes(3).bytes();
    const std::string ser = serBytes(true, 3);
    const std::string tvips = tvipsHeader() + tvipsFrames(0, 2);
    for (const auto& [name, bytes, pixelSize, kilovolts] :
         {std::tuple{"a.ser", ser, 4e7, 0}, std::tuple{"a.tvips", tvips, 0.0, 200}}) {
        const auto file = FrameFile::open(folder.write(name, bytes.substr(0, bytes.size() - 1)));
        expectFrames(*file, 2, pixelSize == 0, pixelSize, kilovolts);
        EXPECT_NE(file->damage().find("truncated"), std::string::npos) << file->damage();
        EXPECT_THROW(FrameFile::open(folder.write(name, bytes.substr(0, 90))), vrk::Failure);
    }
    EXPECT_THROW(FrameFile::open(folder.write("a.dm3", dm.substr(0, dm.size() / 2))), vrk::Failure);
}

}  // namespace
