#include <opencv2/imgcodecs.hpp>

#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "app/RunVrk.h"
#include "pipeline/frames/FrameCollection.h"
#include "pipeline/frames/FrameFile.h"
#include "pipeline/frames/SeriesHeader.h"
#include "pipeline/frames/SeriesImport.h"
#include "support/FailureOf.h"
#include "support/MRCBytes.h"

namespace {

using vrk::ImportResult;
using vrk::ImportSettings;

constexpr int kWidth = 5;
constexpr int kHeight = 4;

/// "f3.img" and the like.
std::string numbered(const char* stem, int number, const char* extension) {
    return std::string(stem).append(std::to_string(number)).append(extension);
}

/// Pixel i of frame number f in every file that these tests write.
int pixel(int frame, int i) {
    return 100 * frame + 3 * i + 1;
}

template <class Number>
std::string pixels(int frame, bool bigEndian = false) {
    std::string bytes;
    for (int i = 0; i < kWidth * kHeight; ++i) {
        const auto value = static_cast<Number>(pixel(frame, i));
        char raw[sizeof(Number)];
        std::memcpy(raw, &value, sizeof raw);
        if (bigEndian) std::reverse(raw, raw + sizeof raw);
        bytes.append(raw, sizeof raw);
    }
    return bytes;
}

std::string smvHeader(const std::string& keys) {
    std::string header = "{\nHEADER_BYTES=  512;\nDIM=2;\nSIZE1=5;\nSIZE2=4;\n" + keys + "}\n";
    header.resize(512, ' ');
    return header;
}

std::string smv(int frame, double start, double range = 0.5) {
    return smvHeader(
               "BYTE_ORDER=little_endian;\nTYPE=unsigned_short;\nPIXEL_SIZE=0.05;\nDISTANCE=200;\n"
               "WAVELENGTH=0.0251;\nTIME=0.5;\nPHI=99;\nOSC_START=" +
               std::to_string(start) + ";\nOSC_RANGE=" + std::to_string(range) + ";\n") +
           pixels<std::uint16_t>(frame);
}

template <class Number>
std::string mrc(
    int frames, std::int32_t mode, const std::string& extended,
    const std::function<void(std::string&)>& change = [](std::string&) {}) {
    std::string bytes(1024, '\0');
    const std::int32_t fields[] = {kWidth, kHeight, frames, mode};
    std::memcpy(bytes.data(), fields, sizeof fields);
    MRCBytes::put(bytes, 92, static_cast<std::int32_t>(extended.size()));
    MRCBytes::put(bytes, 84, 255.0F);
    std::memcpy(bytes.data() + 208, "MAP ", 4);
    MRCBytes::put(bytes, 212, std::int32_t{0x4144});
    change(bytes);
    bytes += extended;
    for (int i = 0; i < frames; ++i)
        bytes += pixels<Number>(i);
    return bytes;
}

/// Records of float values, the tilts -1, 0, 1, ... degrees first.
std::string floatRecords(int frames, std::size_t recordBytes,
                         const std::vector<std::pair<int, float>>& values, std::size_t totalBytes = 0) {
    std::string extended(static_cast<std::size_t>(frames) * recordBytes, '\0');
    for (int i = 0; i < frames; ++i) {
        const std::size_t start = static_cast<std::size_t>(i) * recordBytes;
        MRCBytes::put(extended, start, static_cast<float>(i - 1));
        for (const auto& [place, value] : values)
            MRCBytes::put(extended, start + 4 * static_cast<std::size_t>(place), value);
    }
    if (totalBytes > extended.size()) extended.resize(totalBytes, '\0');
    return extended;
}

std::string feiRecords(int frames, std::int32_t size, double pixelSize) {
    std::string extended(static_cast<std::size_t>(frames * size), '\0');
    for (int i = 0; i < frames; ++i) {
        const auto start = static_cast<std::size_t>(i * size);
        MRCBytes::put(extended, start, size);
        MRCBytes::put(extended, start + 84, 300e3);
        MRCBytes::put(extended, start + 100, static_cast<double>(i - 1));
        MRCBytes::put(extended, start + 140, 84.5);
        MRCBytes::put(extended, start + 156, pixelSize);
    }
    return extended;
}

/// Records that count their numbers in the header, or say with flags what they hold: the tilt is a 16-bit
/// integer in hundredths of a degree at the front, or the first real number behind the integers.
std::string shortRecords(int frames, int recordBytes, int integers) {
    std::string extended(static_cast<std::size_t>(frames * recordBytes), '\x07');
    for (int i = 0; i < frames; ++i) {
        const auto start = static_cast<std::size_t>(i * recordBytes);
        if (integers < 0)
            MRCBytes::put(extended, start, static_cast<std::int16_t>(100 * (i - 1)));
        else
            MRCBytes::put(extended, start + 4 * static_cast<std::size_t>(integers),
                          static_cast<float>(i - 1));
    }
    return extended;
}

struct Imported {
    ImportResult result;
    std::vector<std::string> warnings;

    const mrcH& header() const { return result.series->m_Header; }
    short at(int slice, int i) const {
        return result.series->GetChunkPointer(static_cast<unsigned>(slice))[i];
    }
};

Imported import(const ImportSettings& settings) {
    Imported imported;
    imported.result = vrk::importSeries(settings, nullptr,
                                        [&](const std::string& text) { imported.warnings.push_back(text); });
    return imported;
}

/// The text of the failure, empty when there was none.
std::string failure(const ImportSettings& settings) {
    return failureOf([&] { import(settings); }).text;
}

/// The warnings say these things in turn, and at last that there is no pixel size where there is none.
void expectWarnings(const Imported& imported, std::vector<std::string> told) {
    if (imported.header().m_pixelsize == 0) told.emplace_back("do not state the pixel size");
    ASSERT_EQ(imported.warnings.size(), told.size()) << testing::PrintToString(imported.warnings);
    for (std::size_t i = 0; i < told.size(); ++i)
        EXPECT_TRUE(says(imported.warnings[i], told[i]));
}

/// Slices are the frames 0, 1, 2 with the tilts -1, 0, 1, and the warnings are these.
void expectThreeFrames(const Imported& imported, const std::vector<std::string>& told = {}) {
    ASSERT_NE(imported.result.series, nullptr);
    ASSERT_EQ(imported.header().nz, 3);
    EXPECT_EQ(imported.header().nx, kWidth);
    EXPECT_EQ(imported.header().ny, kHeight);
    EXPECT_EQ(imported.header().type, MRCType::TILT_SERIES);
    for (int z = 0; z < 3; ++z) {
        EXPECT_NEAR(imported.header().tilt(z), z - 1, 1e-5);
        for (int i = 0; i < kWidth * kHeight; ++i)
            ASSERT_EQ(imported.at(z, i), pixel(z, i)) << z << ' ' << i;
    }
    expectWarnings(imported, told);
}

struct Import : testing::Test {
    TemporaryFolder folder;
    ImportSettings settings;
};

TEST_F(Import, SmvFramesCarryTheirGeometry) {
    // Descending, and neither in the order of the names.
    for (const int frame : {2, 0, 1})
        settings.files.push_back(folder.write(numbered("f", 9 - frame, ".img"), smv(frame, frame - 1.25)));
    settings.axis = 49;
    const Imported imported = import(settings);
    expectThreeFrames(imported);
    EXPECT_EQ(imported.header().value(SliceValue::TiltAxis, 2), 49);
    EXPECT_NEAR(imported.header().m_pixelsize, 0.05 / (200 * 0.0251) * 1e10, 20);
    EXPECT_NEAR(imported.header().value(SliceValue::HighTension, 2), 199.7, 0.1);
    EXPECT_FLOAT_EQ(imported.header().amean, 129.5F);
}

TEST_F(Import, SmvPixelsInEveryTypeAndByteOrder) {
    const std::vector<std::pair<std::string, std::function<std::string(bool)>>> types = {
        {"unsigned_char", [](bool big) { return pixels<std::uint8_t>(1, big); }},
        {"unsigned_short", [](bool big) { return pixels<std::uint16_t>(1, big); }},
        {"short", [](bool big) { return pixels<std::int16_t>(1, big); }},
        {"long", [](bool big) { return pixels<std::int32_t>(1, big); }},
        {"unsigned_long", [](bool big) { return pixels<std::uint32_t>(1, big); }},
        {"float", [](bool big) { return pixels<float>(1, big); }}};
    for (const auto& [type, bytes] : types)
        for (const bool big : {false, true}) {
            const std::string order = big ? "big_endian" : "little_endian";
            const std::string path = folder.write(
                "t.img",
                smvHeader("PHI=3;\nTIME=2;\nTYPE=" + type + ";\nBYTE_ORDER=" + order + ";\n") + bytes(big));
            const std::unique_ptr<vrk::FrameFile> file = vrk::FrameFile::open(path);
            EXPECT_EQ(file->info(0).tilt, 3);
            EXPECT_EQ(file->info(0).exposure, 2);
            EXPECT_FALSE(file->info(0).pixelSize);
            for (int i = 0; i < kWidth * kHeight; ++i)
                ASSERT_EQ(file->read(0).pixels[static_cast<std::size_t>(i)], pixel(1, i)) << type << order;
        }
}

TEST_F(Import, TiffPagesAndFiles) {
    for (const int depth : {CV_8U, CV_8S, CV_16U, CV_16S, CV_32F}) {
        std::vector<cv::Mat> stack;
        ImportSettings single;
        for (int frame = 0; frame < 3; ++frame) {
            cv::Mat page(kHeight, kWidth, CV_32S);
            for (int i = 0; i < kWidth * kHeight; ++i)
                page.at<int>(i / kWidth, i % kWidth) =
                    depth == CV_8S || depth == CV_8U ? i - 5 : pixel(frame, i);
            cv::Mat converted;
            page.convertTo(converted, depth);
            stack.push_back(converted);
            single.files.push_back(folder / numbered("s", frame, ".tif"));
            ASSERT_TRUE(cv::imwrite(single.files.back().string(), converted));
        }
        ASSERT_TRUE(cv::imwrite(folder / "m.tif", stack));
        ImportSettings multi;
        multi.files = {folder / "m.tif"};
        for (ImportSettings* pages : {&single, &multi}) {
            EXPECT_TRUE(says(failure(*pages), "--tilts"));
            pages->tilts = "-1:1";
            const Imported imported = import(*pages);
            if (depth == CV_8S || depth == CV_8U)
                EXPECT_EQ(imported.at(1, 2), depth == CV_8S ? -3 : 0);
            else
                expectThreeFrames(imported);
        }
    }
}

TEST_F(Import, MrcModesAndExtendedHeaders) {
    using Case = std::tuple<const char*, std::string, double, double, double>;
    const auto kind = [](const char* text) {
        return [text](std::string& header) { std::memcpy(header.data() + 104, text, 4); };
    };
    const auto counted = [](const std::string& text, int first, int second) {
        return [=](std::string& header) {
            std::memcpy(header.data() + 104, text.data(), text.size());
            MRCBytes::put(header, 128, static_cast<std::int16_t>(first));
            MRCBytes::put(header, 130, static_cast<std::int16_t>(second));
        };
    };
    const auto oldRecords = floatRecords(3, 128, {{11, 5e7F}, {13, 300e3F}, {10, 84.5F}}, 1024 * 128);
    const std::vector<Case> cases = {
        {"128-byte records", mrc<std::int16_t>(3, 1, oldRecords), 5e7, 300, 0},
        {"128-byte records of an image", mrc<std::int16_t>(3, 1, floatRecords(3, 128, {{11, 2e-10F}})), 0, 0,
         0},
        {"144-byte records", mrc<float>(3, 2, floatRecords(3, 144, {{11, 5e7F}, {15, 120}, {8, 33}})), 5e7,
         120, 33},
        {"SerialEM", mrc<std::int16_t>(3, 1, shortRecords(3, 8, -1), counted("SERI", 8, 1)), 0, 0, 0},
        {"SerialEM, not marked", mrc<std::int16_t>(3, 1, shortRecords(3, 12, -1), counted("", 12, 7)), 0, 0,
         0},
        {"integers and reals", mrc<std::int16_t>(3, 1, shortRecords(3, 20, 2), counted("AGAR", 2, 3)), 0, 0,
         0},
        {"FEI1", mrc<std::uint16_t>(3, 6, feiRecords(3, 768, 4e7), kind("FEI1")), 4e7, 300, 0},
        {"FEI2", mrc<std::int16_t>(3, 1, feiRecords(3, 888, 2e-10), kind("FEI2")), 0, 300, 0},
    };
    for (const auto& [name, bytes, pixelSize, kilovolts, axis] : cases) {
        SCOPED_TRACE(name);
        settings.files = {folder.write("stack.mrc", bytes)};
        const Imported imported = import(settings);
        expectThreeFrames(imported);
        EXPECT_NEAR(imported.header().m_pixelsize, pixelSize, 10);
        EXPECT_NEAR(imported.header().value(SliceValue::HighTension, 0), kilovolts, 1e-3);
        EXPECT_EQ(imported.header().value(SliceValue::TiltAxis, 1), axis);
    }
}

TEST_F(Import, MrcBytesAreSignedUnlessTheFileSaysOtherwise) {
    const auto value = [&](const std::function<void(std::string&)>& change) {
        const std::string path = folder.write("b.mrc", mrc<std::uint8_t>(2, 0, "", change));
        return vrk::FrameFile::open(path)->read(1).pixels[19];  // 158 or -98
    };
    EXPECT_EQ(value([](std::string& header) { MRCBytes::put(header, 80, 100.0F); }), -98);
    EXPECT_EQ(value([](std::string& header) { MRCBytes::put(header, 80, 200.0F); }), 158);
    const auto flagged = [](int flags) {
        return [flags](std::string& header) {
            MRCBytes::put(header, 152, std::int32_t{1146047817});
            MRCBytes::put(header, 156, std::int32_t{flags});
        };
    };
    EXPECT_EQ(value(flagged(1)), -98);
    EXPECT_EQ(value(flagged(0)), 158);
}

TEST_F(Import, TiltListsAndFrameLists) {
    settings.files = {folder.write("stack.mrc", mrc<std::int16_t>(3, 1, ""))};
    settings.kilovolts = 200;
    for (const std::string& list : {folder.write("a.tlt", " -1.00\n  0.00\n\n1.0\n"), std::string("-1:1")}) {
        settings.tilts = list;
        expectThreeFrames(import(settings));
    }
    for (int frame = 0; frame < 3; ++frame)
        folder.write(numbered("0000", frame, ".mrc"),
                     mrc<std::int16_t>(1, 1, "").substr(0, 1024) + pixels<std::int16_t>(frame));
    ImportSettings listed;
    listed.files = {
        folder.write("1.ed3d",
                     "WAVELENGTH    0.025080\nROTATIONAXIS    139\nCCDPIXELSIZE    0.004260\n"
                     "GONIOTILTSTEP    1.0\n\nFILELIST\nFILE 00000.mrc    -1.0000    0    -1.0000\n"
                     "FILE 00001.mrc    0    0    0\nFILE .\\00002.mrc  1.0 0 1.0\nENDFILELIST\n")};
    const Imported imported = import(listed);
    expectThreeFrames(imported);
    std::filesystem::create_directory(folder / "lists");
    std::string outside = folder.read("1.ed3d");
    for (std::size_t at = 0; (at = outside.find("FILE ", at)) != std::string::npos; at += 8)
        outside.insert(at + 5, "../");
    ImportSettings precessed;
    precessed.files = {folder.write("p.pts",
                                    "geometry precession\nphi 1.1\nomega 100\nimagelist\n00000.mrc -1 0\n"
                                    "00001.mrc 0 0\n00002.mrc 1 0\nendimagelist\n")};
    const Imported cone = import(precessed);
    expectWarnings(cone, {});
    const std::optional<vrk::StatedMotion> motion = vrk::statedMotion(cone.header());
    ASSERT_TRUE(motion);
    EXPECT_NEAR(motion->precession, 1.1, 1e-6);
    EXPECT_EQ(motion->rotation, 0);
    listed.files = {folder.write("lists/1.ed3d", outside)};
    listed.allowOutside = true;
    expectThreeFrames(import(listed));
    EXPECT_NEAR(imported.header().m_pixelsize, 4.26e7, 10);
    EXPECT_NEAR(imported.header().value(SliceValue::TiltAxis, 0), 49, 1e-4);
    EXPECT_NEAR(imported.header().value(SliceValue::HighTension, 0), 200, 0.05);
}

TEST_F(Import, SumsNeighboursButNotAcrossGaps) {
    const std::vector<double> starts = {0, 0.5, 1, 1.5, 2, 3, 3.5, 4};
    for (std::size_t i = 0; i < starts.size(); ++i)
        settings.files.push_back(
            folder.write(numbered("f", static_cast<int>(i), ".img"), smv(static_cast<int>(i), starts[i])));
    settings.sum = 2;
    const Imported imported = import(settings);
    ASSERT_EQ(imported.header().nz, 5);
    const std::vector<float> tilts = {0.5F, 1.5F, 2.25F, 3.5F, 4.25F};
    for (int z = 0; z < 5; ++z)
        EXPECT_FLOAT_EQ(imported.header().tilt(z), tilts[static_cast<std::size_t>(z)]);
    EXPECT_EQ(imported.at(1, 7), pixel(2, 7) + pixel(3, 7));
    EXPECT_EQ(imported.at(4, 7), pixel(7, 7));
    EXPECT_EQ(imported.header().value(SliceValue::ExposureTime, 1), 1) << "seconds add up, too";
    expectWarnings(imported, {"2 slices hold fewer than 2 frames"});
}

TEST_F(Import, DropsEmptyAndRepeatedFramesWithAWarning) {
    settings.files = {
        folder.write("a.img", smv(0, -1.25)), folder.write("b.img", smv(5, -1.25)),
        folder.write("c.img", smv(1, -0.25)), folder.write("d.img", smv(2, 0.75)),
        folder.write("e.img", smv(0, 1.75).substr(0, 512) + std::string(2 * kWidth * kHeight, '\0'))};
    const Imported imported = import(settings);
    EXPECT_EQ(imported.result.duplicates, 1);
    EXPECT_EQ(imported.result.empty, 1);
    expectThreeFrames(imported, {"1 frames left out whose tilt", "1 empty frames left out, at tilts 2"});
    EXPECT_TRUE(says(imported.warnings[0], "b.img at -1 degrees"));
}

TEST_F(Import, ClipsWithACountAndBins) {
    const auto wide = [](std::string keys) {
        return smvHeader("TYPE=unsigned_short;\nPIXEL_SIZE=0.05;\nDISTANCE=200;\nWAVELENGTH=0.0251;\n" +
                         keys);
    };
    std::string bright;
    for (int i = 0; i < kWidth * kHeight; ++i)
        bright += i == 6 ? std::string("\xff\xff") : std::string("\1\0", 2);
    settings.files = {folder.write("a.img", wide("PHI=1;\n") + bright),
                      folder.write("b.img", wide("PHI=2;\n") + bright)};
    Imported imported = import(settings);
    EXPECT_EQ(imported.result.clipped, 2);
    EXPECT_EQ(imported.at(0, 6), 32767);
    expectWarnings(imported, {"2 pixels in 2 slices"});
    EXPECT_TRUE(says(imported.warnings[0], "the largest was 65535; --scale 0.49 keeps"));

    settings.scale = 0.5;
    settings.bin = 2;
    imported = import(settings);
    EXPECT_EQ(imported.header().nx, 2);
    EXPECT_EQ(imported.header().ny, 2);
    // The last column is left out; columns 0 and 1, rows 0 and 1 make the first pixel.
    EXPECT_EQ(imported.result.clipped, 2);
    EXPECT_EQ(imported.at(0, 1), 2);
    EXPECT_NEAR(imported.header().m_pixelsize, 2 * 0.05 / (200 * 0.0251) * 1e10, 20);

    // Of five columns and four rows, three in the middle and the first three; files that say different
    // things.
    settings = {};
    settings.files = {folder.write("c.img", smv(0, 0)), folder.write("d.img", wide("PHI=2;\n") + bright),
                      folder.write("e.img", smvHeader("PHI=3;\nTYPE=unsigned_short;\nPIXEL_SIZE=0.06;\n"
                                                      "DISTANCE=200;\nWAVELENGTH=0.0251;\n") +
                                                pixels<std::uint16_t>(2))};
    settings.bin = 3;
    settings.scale = 0.4;
    imported = import(settings);
    EXPECT_EQ(imported.header().nx, 1);
    EXPECT_EQ(imported.at(0, 0), std::lround(0.4 * 198));
    expectWarnings(imported, {"different pixel sizes, 9.96016e+07 and 1.19522e+08 1/m"});
    for (const auto& [bin, reason] : {std::pair{5, "--bin 5 leaves nothing"}, {65, "--bin takes 1 to 64"}}) {
        settings.bin = bin;
        EXPECT_TRUE(says(failure(settings), reason));
    }
}

TEST_F(Import, MoreFramesThanSlicesAreSummed) {
    settings.files = {folder.write("s.mrc", mrc<std::int16_t>(301, 1, ""))};
    settings.tilts = "-30:0.1";
    const Imported imported = import(settings);
    EXPECT_EQ(imported.header().nz, 151);
    EXPECT_EQ(imported.result.framesUsed, 301);
    EXPECT_TRUE(says(imported.warnings.front(), "--sum 2"));
    for (const auto& [sum, reason] : {std::pair(1, "--sum 2"), {600, "to one slice"}}) {
        settings.sum = sum;
        EXPECT_TRUE(says(failure(settings), reason));
    }
}

TEST_F(Import, AFolderStandsForItsFrames) {
    for (const int frame : {0, 1, 2})
        folder.write(numbered("f", frame + 9, ".img"), smv(frame, frame - 1.25));
    folder.write("preview.mrc", MRCBytes(8, 8, 1).bytes());
    folder.write("notes.txt", "nothing");
    settings.files = {folder / ""};
    Imported imported = import(settings);
    expectThreeFrames(imported, {"the 3 SMV files are taken; left out are 1 MRC"});

    // One that is called a frame and is none is not left out in silence.
    folder.write("f10.img", "");
    EXPECT_TRUE(says(failure(settings), "f10.img"));
    folder.write("f10.img", smv(1, -0.25));

    // What the headers do not say comes from the one list beside the frames.
    folder.write("XDS.INP",
                 "OSCILLATION_RANGE= 1\nROTATION_AXIS= 1 0 0\nX-RAY_WAVELENGTH= 0.0370\nDATA_RANGE= 9 11\n"
                 "NAME_TEMPLATE_OF_DATA_FRAMES= f??.img\n");
    imported = import(settings);
    EXPECT_EQ(imported.header().value(SliceValue::TiltAxis, 1), -90);
    EXPECT_NEAR(imported.header().value(SliceValue::HighTension, 1), 199.7, 0.1);
    EXPECT_EQ(imported.header().tilt(0), -1);

    // A list that is given with --tilts holds before the headers. Frame 10 is named f10, frame 9 is not
    // there.
    settings.tilts = folder / "XDS.INP";
    imported = import(settings);
    EXPECT_NEAR(imported.header().value(SliceValue::HighTension, 1), 100, 1);
    EXPECT_EQ(imported.header().tilt(0), 0.5);
}

TEST_F(Import, TiltsBeyondAQuarterTurnAreCountedFromTheirMiddle) {
    for (const auto& [middle, told] : {std::pair{150.75, "151 is subtracted"},
                                       {-91.25, "-91 is subtracted"},
                                       {90.75, "91 is subtracted"}}) {
        settings = {};
        for (const int frame : {0, 1, 2})
            settings.files.push_back(
                folder.write(numbered("f", frame, ".img"), smv(frame, middle + frame - 1)));
        expectThreeFrames(import(settings), {told});
        // All the way round there is no middle.
        settings.tilts = "-100:100";
        EXPECT_EQ(import(settings).header().tilt(0), -100);
    }
}

TEST_F(Import, FramesThatCannotBeReadAreNamedOrSkipped) {
    const std::string stack = mrc<std::int16_t>(4, 1, "");
    ImportSettings& frames = settings;
    for (const int frame : {0, 1, 2})
        frames.files.push_back(folder.write(numbered("a", 2 * frame, ".img"), smv(frame, 0)));
    frames.files.push_back(folder.write("a1.img", "{\nHEADER_BYTES=512;\n"));
    frames.files.push_back(folder.write("a3.img", smv(0, 0).substr(0, 530)));
    std::sort(frames.files.begin(), frames.files.end());
    frames.tilts = "-1:0.5";  // bad frames keep their place
    ImportSettings cut;
    cut.files = {folder.write("cut.mrc", stack.substr(0, stack.size() - 3))};
    cut.tilts = folder.write("cut.tlt", "-1\n0\n1\n");
    for (const auto& [given, name, bad] :
         {std::tuple{&frames, "a1.img", 2}, std::tuple{&cut, "cut.mrc", 1}}) {
        given->pixelSize = 5e7;
        EXPECT_TRUE(says(failure(*given), {name, "--skip-bad"}));
        given->skipBad = true;
        const Imported imported = import(*given);
        EXPECT_EQ(imported.result.bad, bad);
        expectThreeFrames(imported, {name});
    }
    frames.files = {folder / "a1.img", folder / "a3.img"};
    EXPECT_TRUE(says(failure(frames), "none of the 2 frames"));
}

TEST_F(Import, CountsBeyondSixteenBitsGetAFactorThatIsTold) {
    for (const int frame : {0, 1, 2}) {
        std::string bytes =
            smvHeader("TYPE=float;\nPIXEL_SIZE=0.05;\nDISTANCE=200;\nWAVELENGTH=0.0251;\nPHI=" +
                      std::to_string(frame - 1) + ";\n");
        for (int i = 0; i < kWidth * kHeight; ++i) {
            const auto value = static_cast<float>(0.01 * pixel(frame, i));
            bytes.append(reinterpret_cast<const char*>(&value), 4);
        }
        settings.files.push_back(folder.write(numbered("f", frame, ".img"), bytes));
    }
    const Imported imported = import(settings);
    expectWarnings(imported, {"multiplied by"});
    EXPECT_GT(imported.result.scale, 100);
    EXPECT_EQ(imported.result.clipped, 0);
    for (const int i : {0, 7, 19})
        EXPECT_NEAR(imported.at(2, i), 0.01 * pixel(2, i) * imported.result.scale, 0.51);
    EXPECT_TRUE(says(std::string(imported.header().labl.data(), 80), "counts x"));
}

TEST_F(Import, DamagedInputIsRefusedWithAReason) {
    const std::string good = smv(1, 0);
    const std::string stack = mrc<std::int16_t>(3, 1, "");
    const auto garbled = [](std::string bytes, std::size_t offset, std::int32_t value) {
        MRCBytes::put(bytes, offset, value);
        return bytes;
    };
    using Case = std::tuple<std::string, std::string, std::string, std::string>;
    const std::vector<Case> cases = {
        {"empty.img", "", "", "none of the kinds"},
        {"truncated.img", good.substr(0, good.size() - 1), "", "truncated"},
        {"header.img", good.substr(0, 40), "", "does not end"},
        {"keys.img", "{\nHEADER_BYTES=512;\n}", "", "SIZE1"},
        {"size.img", "{\nHEADER_BYTES=512;\nSIZE1=-5;\nSIZE2=1000000;\n}", "", "pixels"},
        {"huge.img", "{\nHEADER_BYTES=1e300;\nSIZE1=5;\nSIZE2=4;\n}", "", "HEADER_BYTES"},
        {"words.img", "{\nHEADER_BYTES=many;\nSIZE1=5;\nSIZE2=4;\n}", "", "not a number"},
        {"type.img", smvHeader("TYPE=complex;\n"), "", "TYPE"},
        {"garbage.tif", std::string("II*\0", 4) + std::string(500, 'x'), "-1:1", "TIFF"},
        {"text.mrc", std::string(4000, 'x'), "", "none of the kinds"},
        {"short.mrc", stack.substr(0, stack.size() - 1), "-1:1", "2 are there"},
        {"mode.mrc", garbled(stack, 12, 4), "-1:1", "mode 4"},
        {"size.mrc", garbled(stack, 0, 1 << 30), "-1:1", "pixels"},
        {"count.mrc", garbled(stack, 8, -1), "-1:1", "frames"},
        {"next.mrc", garbled(stack, 92, 0x7fffff00), "-1:1", "truncated"},
        {"fei.mrc",
         mrc<std::int16_t>(3, 1, std::string(3 * 768, '\xff'),
                           [](std::string& header) { std::memcpy(header.data() + 104, "FEI1", 4); }),
         "", "record of frame 1"},
        {"untilted.mrc", stack, "", "--tilts"},
        {"single.mrc", mrc<std::int16_t>(1, 1, ""), "1:1", "only one frame"},
        {"constant.mrc", stack, "constant.tlt", "the tilt"},
        {"count.mrc", stack, "two.tlt", "2 tilts"},
        {"words.mrc", stack, "words.tlt", "line 2"},
        {"missing.mrc", stack, "nothing.tlt", "neither a file"},
        {"range.mrc", stack, "1:2:3", "START:STEP"},
        {"empty.ed3d", "FILELIST\nENDFILELIST\n", "", "lists no frames"},
        {"above.ed3d", "FILELIST\nFILE x/../../lost.mrc 0 0 0\n", "", "outside its folder; --allow-outside"},
        {"root.ed3d", "FILELIST\nFILE /etc/passwd 0 0 0\n", "", "outside its folder"},
        {"within.ed3d", "FILELIST\nFILE x/../lost.mrc 0 0 0\n", "", "no such file"},
        {"lost.ed3d", "FILELIST\nFILE lost.mrc 0 0 0\n", "", "no such file"},
        {"a.tlt", "1\n2\n", "-1:1", "none of the kinds"},
        {"tilt.ed3d", "FILELIST\nFILE lost.mrc\n", "", "line 2"},
        {"zeros.mrc", stack.substr(0, 1024) + std::string(stack.size() - 1024, '\0'), "-1:1", "empty"}};
    folder.write("constant.tlt", "5\n5\n5\n");
    folder.write("two.tlt", "5\n6\n");
    folder.write("words.tlt", "5\nsix\n7\n");
    for (const auto& [name, bytes, tilts, reason] : cases) {
        settings.files = {folder.write(name, bytes)};
        settings.tilts = tilts.ends_with(".tlt") ? folder / tilts : tilts;
        EXPECT_TRUE(says(failure(settings), reason)) << name << ": ";
    }
    ImportSettings mixed;
    mixed.files = {folder.write("a.img", good), folder.write("b.mrc", MRCBytes(8, 8, 1).bytes())};
    EXPECT_TRUE(says(failure(mixed), "--tilts"));
    mixed.tilts = "0:1";
    EXPECT_TRUE(says(failure(mixed), "different sizes"));
}

TEST_F(Import, NamesWithNumbersAreOrderedByThem) {
    EXPECT_TRUE(vrk::naturallyBefore("f_2.img", "f_10.img"));
    EXPECT_TRUE(vrk::naturallyBefore("f_002.img", "f_10.img"));
    EXPECT_TRUE(vrk::naturallyBefore("a", "ab"));
    EXPECT_FALSE(vrk::naturallyBefore("f_10.img", "f_2.img"));
    EXPECT_FALSE(vrk::naturallyBefore("f_10.img", "f_10.img"));
}

TEST_F(Import, KeepsHowTheCrystalTurnedDuringAFrame) {
    using Row = std::tuple<double, int, std::optional<double>, const char*>;
    for (const auto& [range, sum, rotation, warning] :
         {Row{0.5, 1, 0.5, ""}, Row{1, 1, 1.0, ""}, Row{0.9, 3, 2.9, ""}, Row{0, 2, 0.0, ""},
          Row{2, 1, std::nullopt, "turns by 2 degrees, but their tilts are 1 apart"}}) {
        SCOPED_TRACE(range);
        for (int frame = 0; frame < 6; ++frame)
            settings.files.push_back(
                folder.write(numbered("f", frame, ".img"), smv(frame, frame - range / 2, range)));
        settings.sum = sum;
        const Imported imported = import(settings);
        const std::optional<vrk::StatedMotion> motion = vrk::statedMotion(imported.header());
        ASSERT_EQ(motion.has_value(), rotation.has_value());
        const std::string told = imported.warnings.empty() ? "" : imported.warnings.back();
        EXPECT_TRUE(says(told, warning));
        if (!motion) continue;
        EXPECT_NEAR(motion->rotation, *rotation, 1e-5);
        // The series is a file of frames as well.
        ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(imported.result.series.get(), folder / "s.mrc"));
        EXPECT_EQ(vrk::FrameFile::open(folder / "s.mrc")->info(1).rotation, motion->rotation);
    }
}

}  // namespace
