#include <opencv2/imgcodecs.hpp>
#include <regex>

#include "ExpectedFrames.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "pipeline/base/NumberText.h"
#include "pipeline/frames/FrameCollection.h"
#include "pipeline/frames/SeriesHeader.h"
#include "pipeline/frames/SeriesImport.h"
#include "support/FailureOf.h"
#include "support/MRCBytes.h"

namespace {

using vrk::ImportSettings;

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
           rawFrame<std::uint16_t>(frame);
}

template <class Number>
std::string mrc(
    int frames, std::int32_t mode, const std::string& extended,
    const std::function<void(std::string&)>& change = [](std::string&) {}) {
    std::string bytes(1024, '\0');
    const std::int32_t fields[] = {kFrameWidth, kFrameHeight, frames, mode};
    std::memcpy(bytes.data(), fields, sizeof fields);
    MRCBytes::put(bytes, 92, static_cast<std::int32_t>(extended.size()));
    MRCBytes::put(bytes, 84, 255.0F);
    std::memcpy(bytes.data() + 208, "MAP ", 4);
    MRCBytes::put(bytes, 212, std::int32_t{0x4144});
    change(bytes);
    bytes += extended;
    for (int i = 0; i < frames; ++i)
        bytes += rawFrame<Number>(i);
    return bytes;
}

/// Three records of an extended header: the n-th states the tilt n - 1 degrees, in parts of a degree, at a
/// place, and other values at theirs.
template <class Number>
std::string records(std::size_t size, char fill, std::size_t tiltPlace, int parts = 1,
                    const std::vector<std::pair<std::size_t, std::string>>& values = {}) {
    std::string extended;
    for (const int tilt : {-1, 0, 1}) {
        std::string record(size, fill);
        MRCBytes::put(record, tiltPlace, static_cast<Number>(parts * tilt));
        for (const auto& [place, bytes] : values)
            record.replace(place, bytes.size(), bytes);
        extended += record;
    }
    return extended;
}

/// Of float values, the tilt first.
std::string floatRecords(std::size_t size, const std::vector<std::pair<std::size_t, float>>& values) {
    std::vector<std::pair<std::size_t, std::string>> bytes;
    for (const auto& [place, value] : values)
        bytes.emplace_back(4 * place, rawBytes(value));
    return records<float>(size, '\0', 0, 1, bytes);
}

std::string feiRecords(std::int32_t size, double pixelSize) {
    return records<double>(
        static_cast<std::size_t>(size), '\0', 100, 1,
        {{0, rawBytes(size)}, {84, rawBytes(300e3)}, {140, rawBytes(84.5)}, {156, rawBytes(pixelSize)}});
}

struct Imported {
    vrk::ImportResult result;
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
    EXPECT_EQ(imported.result.series->GetChunkCount(), 3U);
    EXPECT_TRUE(imported.header().nx == kFrameWidth && imported.header().ny == kFrameHeight);
    EXPECT_EQ(imported.header().type, MRCType::TILT_SERIES);
    for (int z = 0; z < 3; ++z) {
        EXPECT_NEAR(imported.header().tilt(z), z - 1, 1e-5);
        for (int i = 0; i < kFramePixels; ++i)
            ASSERT_EQ(imported.at(z, i), countAt(z, i)) << z << ' ' << i;
    }
    expectWarnings(imported, told);
}

struct Import : testing::Test {
    void add(const std::string& name, const std::string& bytes) {
        settings.files.push_back(folder.write(name, bytes));
    }

    TemporaryFolder folder;
    ImportSettings settings;
};

TEST_F(Import, SmvFramesCarryTheirGeometry) {
    // Descending, and neither in the order of the names.
    for (const int frame : {2, 0, 1})
        add(vrk::formatted("f%d.img", 9 - frame), smv(frame, frame - 1.25));
    settings.axis = 49;
    const Imported imported = import(settings);
    expectThreeFrames(imported);
    EXPECT_EQ(imported.header().value(SliceValue::TiltAxis, 2), 49);
    EXPECT_NEAR(imported.header().m_pixelsize, 0.05 / (200 * 0.0251) * 1e10, 20);
    EXPECT_NEAR(imported.header().value(SliceValue::HighTension, 2), 199.7, 0.1);
    EXPECT_FLOAT_EQ(imported.header().amean, 129.5F);
}

TEST_F(Import, PixelsInEveryTypeAndByteOrder) {
    for (const bool big : {false, true})
        for (const auto& [smvType, cbfType, pixels] :
             {std::tuple("unsigned_char", "unsigned 8-bit integer", rawFrame<std::uint8_t>(1, big)),
              {"unsigned_short", "unsigned 16-bit integer", rawFrame<std::uint16_t>(1, big)},
              {"short", "signed 16-bit integer", rawFrame<std::int16_t>(1, big)},
              {"long", "signed 32-bit integer", rawFrame<std::int32_t>(1, big)},
              {"unsigned_long", "unsigned 32-bit integer", rawFrame<std::uint32_t>(1, big)},
              {"float", "signed 32-bit real IEEE", rawFrame<float>(1, big)}}) {
            SCOPED_TRACE(smvType);
            const std::string keys = std::string("PHI=3;\nTIME=2;\nTYPE=") + smvType +
                                     (big ? ";\nBYTE_ORDER=big_endian;\n" : ";\nBYTE_ORDER=little_endian;\n");
            expectFrames(*vrk::FrameFile::open(folder.write("t.img", smvHeader(keys) + pixels)),
                         {.firstTilt = 3, .exposure = 2, .count = 1, .first = 1});
            const std::string cbf =
                "###CBF: VERSION 1.5\r\n#Omega: 3,\r\nconversions=\"x-CBF_NONE\"\r\nX-Binary-Size: " +
                std::to_string(pixels.size()) + "\r\nX-Binary-Element-Type: \"" + cbfType +
                "\"\r\nX-Binary-Element-Byte-Order: " + (big ? "BIG" : "LITTLE") +
                "_ENDIAN\r\nX-Binary-Size-Fastest-Dimension: 5\r\nX-Binary-Size-Second-Dimension: "
                "4\r\n\r\n\x0c\x1a\x04\xd5" +
                pixels;
            expectFrames(*vrk::FrameFile::open(folder.write("t.cbf", cbf)),
                         {.firstTilt = 3, .count = 1, .first = 1});
            settings.files = {folder.write("t.cbf", cbf.substr(0, cbf.size() - 1))};
            EXPECT_TRUE(says(failure(settings), "it is truncated: its pixels"));
        }
}

TEST_F(Import, TiffPagesAndFiles) {
    for (const int depth : {CV_8U, CV_8S, CV_16U, CV_16S, CV_32F}) {
        const bool isShort = depth == CV_8U || depth == CV_8S;
        std::vector<cv::Mat> pages(3);
        ImportSettings single, multi;
        multi.files = {folder / "m.tif"};
        for (std::size_t frame = 0; frame < 3; ++frame) {
            cv::Mat_<int> counts(kFrameHeight, kFrameWidth);
            for (int i = 0; i < kFramePixels; ++i)
                counts.begin()[i] = isShort ? i - 5 : countAt(static_cast<int>(frame), i);
            counts.convertTo(pages[frame], depth);
            single.files.push_back(folder / ("s" + std::to_string(frame) + ".tif"));
            ASSERT_TRUE(cv::imwrite(single.files.back().string(), pages[frame]));
        }
        ASSERT_TRUE(cv::imwrite(multi.files[0].string(), pages));
        for (ImportSettings* given : {&single, &multi}) {
            EXPECT_TRUE(says(failure(*given), "--tilts"));
            given->tilts = "-1:1";
            const Imported imported = import(*given);
            if (isShort)
                EXPECT_EQ(imported.at(1, 2), depth == CV_8S ? -3 : 0);
            else
                expectThreeFrames(imported);
        }
    }
}

TEST_F(Import, MrcModesAndExtendedHeaders) {
    using Case = std::tuple<const char*, std::string, double, double, double>;
    const auto counted = [](const std::string& text, int first, int second) {
        return [=](std::string& header) {
            std::memcpy(header.data() + 104, text.data(), text.size());
            MRCBytes::put(header, 128, static_cast<std::int16_t>(first));
            MRCBytes::put(header, 130, static_cast<std::int16_t>(second));
        };
    };
    auto oldRecords = floatRecords(128, {{11, 5e7F}, {13, 300e3F}, {10, 84.5F}});
    oldRecords.resize(1024 * 128);
    for (const auto& [name, bytes, pixelSize, kilovolts, axis] : std::vector<Case>{
             {"128-byte records", mrc<std::int16_t>(3, 1, oldRecords), 5e7, 300, 0},
             {"128-byte records of an image", mrc<std::int16_t>(3, 1, floatRecords(128, {{11, 2e-10F}})), 0,
              0, 0},
             {"128-byte records without a pixel size", mrc<std::int16_t>(3, 1, floatRecords(128, {})), 0, 0,
              0},
             {"144-byte records", mrc<float>(3, 2, floatRecords(144, {{11, 5e7F}, {15, 120}, {8, 33}})), 5e7,
              120, 33},
             {"SerialEM",
              mrc<std::int16_t>(3, 1, records<std::int16_t>(8, '\x07', 0, 100), counted("SERI", 8, 1)), 0, 0,
              0},
             {"SerialEM, not marked",
              mrc<std::int16_t>(3, 1, records<std::int16_t>(34, '\x07', 0, 100), counted("", 34, 2047)), 0, 0,
              0},
             {"integers and reals",
              mrc<std::int16_t>(3, 1, records<float>(20, '\x07', 8), counted("AGAR", 2, 3)), 0, 0, 0},
             {"FEI1", mrc<std::uint16_t>(3, 6, feiRecords(768, 4e7), counted("FEI1", 0, 0)), 4e7, 300, 0},
             {"FEI2", mrc<std::int16_t>(3, 1, feiRecords(888, 2e-10), counted("FEI2", 0, 0)), 0, 300, 0},
         }) {
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
    for (const auto& [largest, stamp, flags, value] : {std::tuple{100.0F, 0, 0, -98.0F},
                                                       {200.0F, 0, 1, 158.0F},
                                                       {200.0F, 1146047817, 1, -98.0F},
                                                       {100.0F, 1146047817, 0, 158.0F}}) {
        std::string bytes = mrc<std::uint8_t>(2, 0, "");
        MRCBytes::put(bytes, 80, largest);
        MRCBytes::put(bytes, 152, stamp);
        MRCBytes::put(bytes, 156, flags);
        EXPECT_EQ(vrk::FrameFile::open(folder.write("b.mrc", bytes))->read(1).pixels[19], value);
    }
}

TEST_F(Import, TiltListsAndFrameLists) {
    settings.files = {folder.write("stack.mrc", mrc<std::int16_t>(3, 1, ""))};
    settings.kilovolts = 200;
    for (const std::string& list : {folder.write("a.tlt", " -1.00\n  0.00\n\n1.0\n"), std::string("-1:1")}) {
        settings.tilts = list;
        expectThreeFrames(import(settings));
    }
    for (int frame = 0; frame < 3; ++frame)
        folder.write(vrk::formatted("0000%d.mrc", frame),
                     mrc<std::int16_t>(1, 1, "").substr(0, 1024) + rawFrame<std::int16_t>(frame));
    ImportSettings listed;
    listed.files = {
        folder.write("1.ed3d",
                     "WAVELENGTH 0.02508\nROTATIONAXIS 139\nCCDPIXELSIZE 0.00426\nFILELIST\n"
                     "FILE 00000.mrc -1 0 0\nFILE 00001.mrc 0 0 0\nFILE .\\00002.mrc 1\nENDFILELIST\n")};
    const Imported imported = import(listed);
    expectThreeFrames(imported);
    std::filesystem::create_directory(folder / "lists");
    const std::string outside = std::regex_replace(folder.read("1.ed3d"), std::regex("FILE "), "FILE ../");
    settings = {};
    settings.files = {folder.write("p.pts",
                                   "geometry precession\nphi 1.1\nomega 100\nimagelist\n00000.mrc -1 0\n"
                                   "00001.mrc 0 0\n00002.mrc 1 0\nendimagelist\n")};
    const Imported cone = import(settings);
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
        add(vrk::formatted("f%d.img", static_cast<int>(i)), smv(static_cast<int>(i), starts[i]));
    settings.sum = 2;
    const Imported imported = import(settings);
    ASSERT_EQ(imported.header().nz, 5);
    const std::vector<float> tilts = {0.5F, 1.5F, 2.25F, 3.5F, 4.25F};
    for (int z = 0; z < 5; ++z)
        EXPECT_FLOAT_EQ(imported.header().tilt(z), tilts[static_cast<std::size_t>(z)]);
    EXPECT_EQ(imported.at(1, 7), countAt(2, 7) + countAt(3, 7));
    EXPECT_EQ(imported.at(4, 7), countAt(7, 7));
    EXPECT_EQ(imported.header().value(SliceValue::ExposureTime, 1), 1) << "seconds add up, too";
    expectWarnings(imported, {"2 slices hold fewer than 2 frames"});
}

TEST_F(Import, DropsEmptyAndRepeatedFramesWithAWarning) {
    for (const auto& [name, frame, start] :
         {std::tuple("a.img", 0, -1.25), {"b.img", 5, -1.25}, {"c.img", 1, -0.25}, {"d.img", 2, 0.75}})
        add(name, smv(frame, start));
    add("e.img", smv(0, 1.75).substr(0, 512) + std::string(2 * kFramePixels, '\0'));
    const Imported imported = import(settings);
    EXPECT_TRUE(imported.result.duplicates == 1 && imported.result.empty == 1);
    expectThreeFrames(imported, {"1 frames left out whose tilt", "1 empty frames left out, at tilts 2"});
    EXPECT_TRUE(says(imported.warnings[0], "b.img at -1 degrees"));
}

TEST_F(Import, ClipsWithACountAndBins) {
    const auto wide = [](const std::string& keys) {
        return smvHeader("TYPE=unsigned_short;\nDISTANCE=200;\nWAVELENGTH=0.0251;\n" + keys);
    };
    std::string bright;
    for (int i = 0; i < kFramePixels; ++i)
        bright += i == 6 ? std::string("\xff\xff") : std::string("\1\0", 2);
    add("a.img", wide("PHI=1;\nPIXEL_SIZE=0.05;\n") + bright);
    add("b.img", wide("PHI=2;\nPIXEL_SIZE=0.05;\n") + bright);
    Imported imported = import(settings);
    EXPECT_EQ(imported.result.clipped, 2);
    EXPECT_EQ(imported.at(0, 6), 32767);
    expectWarnings(imported, {"2 pixels in 2 slices"});
    EXPECT_TRUE(says(imported.warnings[0], "the largest was 65535; --scale 0.49 keeps"));

    settings.scale = 0.5;
    settings.bin = 2;
    imported = import(settings);
    EXPECT_TRUE(imported.header().nx == 2 && imported.header().ny == 2);
    // The last column is left out; columns 0 and 1, rows 0 and 1 make the first pixel.
    EXPECT_EQ(imported.result.clipped, 2);
    EXPECT_EQ(imported.at(0, 1), 2);
    EXPECT_NEAR(imported.header().m_pixelsize, 2 * 0.05 / (200 * 0.0251) * 1e10, 20);

    // Of five columns and four rows, three in the middle and the first three; files that say different
    // things.
    settings = {};
    add("c.img", smv(0, 0));
    add("d.img", wide("PHI=2;\nPIXEL_SIZE=0.05;\n") + bright);
    add("e.img", wide("PHI=3;\nPIXEL_SIZE=0.06;\n") + rawFrame<std::uint16_t>(2));
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
    settings.bin = 1;
    for (std::optional<double>* number : {&settings.scale, &settings.pixelSize}) {
        *number = 0;
        EXPECT_TRUE(says(failure(settings), " takes a positive "));
        number->reset();
    }
}

TEST_F(Import, MoreFramesThanSlicesAreSummed) {
    add("s.mrc", mrc<std::int16_t>(301, 1, ""));
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
        folder.write(vrk::formatted("f%d.img", frame + 9), smv(frame, frame - 1.25));
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

    // A list that is given with --tilts holds before the headers.
    settings.tilts = folder / "XDS.INP";
    imported = import(settings);
    EXPECT_NEAR(imported.header().value(SliceValue::HighTension, 1), 100, 1);
    EXPECT_EQ(imported.header().tilt(0), 0.5);

    // Names are ordered by their numbers.
    for (const auto& [one, next] : {std::pair("f_2.img", "f_10.img"), {"f_002.img", "f_10.img"}, {"a", "ab"}})
        EXPECT_TRUE(vrk::naturallyBefore(one, next) && !vrk::naturallyBefore(next, one)) << next;
    EXPECT_FALSE(vrk::naturallyBefore("f_10.img", "f_10.img"));
}

TEST_F(Import, TiltsBeyondAQuarterTurnAreCountedFromTheirMiddle) {
    for (const auto& [middle, told] : {std::pair{150.75, "151 is subtracted"},
                                       {-91.25, "-91 is subtracted"},
                                       {90.75, "91 is subtracted"}}) {
        settings = {};
        for (const int frame : {0, 1, 2})
            add(vrk::formatted("f%d.img", frame), smv(frame, middle + frame - 1));
        expectThreeFrames(import(settings), {told});
        // All the way round there is no middle.
        settings.tilts = "-100:100";
        EXPECT_EQ(import(settings).header().tilt(0), -100);
    }
}

TEST_F(Import, FramesThatCannotBeReadAreNamedOrSkipped) {
    const std::string stack = mrc<std::int16_t>(4, 1, "");
    ImportSettings& frames = settings;
    add("a0.img", smv(0, 0));
    add("a1.img", "{\nHEADER_BYTES=512;\n");
    add("a2.img", smv(1, 0));
    add("a3.img", smv(0, 0).substr(0, 530));
    add("a4.img", smv(2, 0));
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
        std::string bytes = smvHeader("TYPE=float;\nPHI=" + std::to_string(frame - 1) + ";\n");
        for (int i = 0; i < kFramePixels; ++i)
            bytes += rawBytes(static_cast<float>(0.01 * countAt(frame, i)));
        add(vrk::formatted("f%d.img", frame), bytes);
    }
    const Imported imported = import(settings);
    expectWarnings(imported, {"multiplied by"});
    EXPECT_GT(imported.result.scale, 100);
    EXPECT_EQ(imported.result.clipped, 0);
    for (const int i : {0, 7, 19})
        EXPECT_NEAR(imported.at(2, i), 0.01 * countAt(2, i) * imported.result.scale, 0.51);
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
        {"mode.mrc", garbled(stack, 12, 404), "-1:1", "mode 404"},
        {"size.mrc", garbled(stack, 4, 1 << 30), "-1:1", "pixels"},
        {"narrow.mrc", garbled(stack, 0, 0), "-1:1", "0 x 4 pixels"},
        {"count.mrc", garbled(stack, 8, -1), "-1:1", "frames"},
        {"next.mrc", garbled(stack, 92, 0x7fffff00), "-1:1", "truncated"},
        {"fei.mrc",
         mrc<std::int16_t>(3, 1, std::string(3 * 768, '\xff'),
                           [](std::string& header) { std::memcpy(header.data() + 104, "FEI1", 4); }),
         "", "record of frame 1"},
        {"untilted.mrc", stack, "", "--tilts"},
        {"turned.mrc", mrc<std::int16_t>(3, 1, records<float>(128, '\0', 0, 361)), "", "--tilts"},
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
    settings.files = {folder.write("a.img", good), folder.write("b.mrc", MRCBytes(8, 8, 1).bytes())};
    settings.tilts = "0:1";
    EXPECT_TRUE(says(failure(settings), "different sizes"));
}

TEST_F(Import, KeepsHowTheCrystalTurnedDuringAFrame) {
    using Row = std::tuple<double, int, std::optional<double>, const char*>;
    for (const auto& [range, sum, rotation, warning] :
         {Row{0.5, 1, 0.5, ""}, Row{1, 1, 1.0, ""}, Row{0.9, 3, 2.9, ""}, Row{0, 2, 0.0, ""},
          Row{2, 1, std::nullopt, "turns by 2 degrees, but their tilts are 1 apart"}}) {
        SCOPED_TRACE(range);
        for (int frame = 0; frame < 6; ++frame)
            add(vrk::formatted("f%d.img", frame), smv(frame, frame - range / 2, range));
        settings.sum = sum;
        const Imported imported = import(settings);
        const std::optional<vrk::StatedMotion> motion = vrk::statedMotion(imported.header());
        ASSERT_EQ(motion.has_value(), rotation.has_value());
        EXPECT_TRUE(says(imported.warnings.empty() ? "" : imported.warnings.back(), warning));
        if (!motion) continue;
        EXPECT_NEAR(motion->rotation, *rotation, 1e-5);
        // The series is a file of frames as well.
        ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(imported.result.series.get(), folder / "s.mrc"));
        EXPECT_EQ(vrk::FrameFile::open(folder / "s.mrc")->info(1).rotation, motion->rotation);
    }
}

}  // namespace
