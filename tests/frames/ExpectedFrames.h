/// \file
/// Frames of five by four pixels, of which pixel i of frame f holds 100 f + 3 i + 1, and what is said about
/// them.
#pragma once

#include "pipeline/frames/FrameFile.h"
#include "support/Testing.h"

constexpr int kFrameWidth = 5;
constexpr int kFrameHeight = 4;
constexpr int kFramePixels = kFrameWidth * kFrameHeight;

inline int countAt(int frame, int i) {
    return 100 * frame + 3 * i + 1;
}

/// The bytes of a number.
template <class Number>
std::string rawBytes(Number value, bool bigEndian = false) {
    std::string raw(sizeof value, '\0');
    std::memcpy(raw.data(), &value, sizeof value);
    if (bigEndian) std::reverse(raw.begin(), raw.end());
    return raw;
}

/// The bytes of the pixels of a frame.
template <class Number>
std::string rawFrame(int frame, bool bigEndian = false) {
    std::string raw;
    for (int i = 0; i < kFramePixels; ++i)
        raw += rawBytes(static_cast<Number>(countAt(frame, i)), bigEndian);
    return raw;
}

/// What a reader must find in a file.
struct Expected {
    std::string name = {};
    double firstTilt = 99;  ///< the others follow in steps of one degree; 99: not stated
    double pixelSize = 0;
    double kilovolts = 0;
    double axis = 0;
    double rotation = 0;
    double exposure = 0;
    float white = 0;  ///< not 0: this minus the usual pixels
    int count = 3;
    int first = 0;                     ///< number of the first
    std::map<int, float> others = {};  ///< values that are other than usual, by their place in all frames
};

inline void expectFrames(const vrk::FrameFile& file, const Expected& expected) {
    ASSERT_EQ(file.count(), expected.count);
    for (int frame = expected.count - 1; frame >= 0; --frame) {
        const vrk::FrameInfo& info = file.info(frame);
        EXPECT_NEAR(info.tilt.value_or(99 + frame), expected.firstTilt + frame, 1e-9);
        EXPECT_NEAR(info.pixelSize.value_or(0), expected.pixelSize, 1e-6 * expected.pixelSize);
        EXPECT_NEAR(info.kilovolts.value_or(0), expected.kilovolts, 0.01);
        EXPECT_NEAR(info.axis.value_or(0), expected.axis, 1e-9);
        EXPECT_NEAR(info.rotation.value_or(0), expected.rotation, 1e-9);
        EXPECT_EQ(info.exposure.value_or(0), expected.exposure);
        const vrk::Frame read = file.read(frame);
        ASSERT_EQ(read.width, kFrameWidth);
        ASSERT_EQ(read.pixels.size(), std::size_t{kFramePixels});
        for (int i = 0; i < kFramePixels; ++i) {
            const float found = read.pixels[static_cast<std::size_t>(i)];
            const auto usual = static_cast<float>(countAt(frame + expected.first, i));
            const auto other = expected.others.find(frame * kFramePixels + i);
            if (other != expected.others.end())
                EXPECT_TRUE(found == other->second || (std::isnan(found) && std::isnan(other->second))) << i;
            else
                EXPECT_EQ(found, expected.white > 0 ? expected.white - usual : usual) << frame << ' ' << i;
        }
    }
}
