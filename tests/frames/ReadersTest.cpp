#include <sys/resource.h>

#include "ExpectedFrames.h"
#include "pipeline/frames/FileContent.h"
#include "pipeline/frames/PixelDecoder.h"
#include "pipeline/frames/detail/SeparateProcess.h"
#include "pipeline/frames/detail/Unpacking.h"
#include "pipeline/simulation/SimulationRandom.h"
#include "support/FailureOf.h"
#include "support/TiffBytes.h"

namespace {

using vrk::FrameFile;
using vrk::FrameSource;
using namespace std::string_literals;

const std::filesystem::path kFolder = VRK_FRAMES;  // written by write_files.py

std::shared_ptr<const std::string> contents(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return std::make_shared<const std::string>(std::istreambuf_iterator<char>(file),
                                               std::istreambuf_iterator<char>());
}

TEST(Readers, FilesOfOtherProgramsFromDiskAndFromMemory) {
    const double perPixel = 75e-6 / (0.8 * 0.0251e-10);
    // Of a counting detector, with a dead pixel and large counts.
    const std::map<int, float> counted = {{1, NAN}, {5, 70000.0F}, {12, 1000.0F}};
    // Masked in the master, marked in the data.
    const std::map<int, float> masked = {{2, NAN}, {6, NAN}, {22, NAN}, {42, NAN}};
    for (const Expected& expected :
         {Expected{"uint32.tif"}, Expected{"float64_big_endian.tif"}, Expected{"deflate_bigtiff.tif"},
          Expected{"tiled.tif"}, Expected{.name = "strips.tif", .white = 65535}, Expected{"half.mrc"},
          Expected{"half.mrc.bz2"}, Expected{"uint16.mrc"},
          Expected{"nexus_master.h5", -0.75, perPixel, 199.717, 30, 0.5, 0.1, 0, 3, 0, masked},
          Expected{"frame.cbf", -0.75, perPixel, 199.717, 0, 0.5, 0.095, 0, 1, 1, counted},
          Expected{"frame.cbf.gz", -0.75, perPixel, 199.717, 0, 0.5, 0.095, 0, 1, 1, counted},
          Expected{"angles_last.emd", -1, 5e7}, Expected{"velox.emd", -1, 5e7, 200}, Expected{"plain.h5"},
          Expected{"plain.h5:/scan/counts"}}) {
        SCOPED_TRACE(expected.name);
        const auto file = FrameFile::open(kFolder / expected.name);
        expectFrames(*file, expected);
        EXPECT_EQ(file->damage(), "");
        if (expected.name.find(':') == std::string::npos)
            expectFrames(
                *FrameFile::open(FrameSource(kFolder / expected.name, contents(kFolder / expected.name))),
                expected);
    }
    const std::string whole = *contents(kFolder / "uint16.mrc");
    const FrameSource cut("cut.mrc", std::make_shared<const std::string>(whole.substr(0, whole.size() - 1)));
    expectFrames(*FrameFile::open(cut), {.count = 2});
    // Numbers the other way round, which the file may say or not.
    for (const char mark : {'\x11', '\0'}) {
        std::string turned = whole;
        for (std::size_t at = 0; at < 224; at += 4)
            std::reverse(turned.begin() + static_cast<long>(at), turned.begin() + static_cast<long>(at) + 4);
        for (auto pixel = turned.begin() + 1024; pixel != turned.end(); pixel += 2)
            std::swap(pixel[0], pixel[1]);
        turned.replace(208, 6, std::string("MAP ") + mark + mark);
        expectFrames(*FrameFile::open({"turned.mrc", std::make_shared<const std::string>(turned)}), {});
    }
    EXPECT_EQ(FrameFile::open(kFolder / "nexus_master.h5")->parts().size(), 2U);
    EXPECT_THROW(FrameFile::open(kFolder / "plain.h5:/nothing"), vrk::Failure);
}

/// Files whose units, numbers or marks are others of the same length.
TEST(Readers, UnitsAndMarksAreUnderstood) {
    using Changes = std::vector<std::array<std::string, 2>>;
    using Case = std::tuple<const char*, Changes, double, double, const char*>;
    const double pixel = 75e-6 / (0.8 * 0.0251e-10), radian = 180 / M_PI;
    for (const auto& [name, changes, tiltStep, pixelSize, reason] : std::vector<Case>{
             {"nexus_master.h5", {{"deg", "rad"}}, radian, pixel, ""},
             {"nexus_master.h5", {{"\0um"s, "\0mm"s}}, 1, 1e3 * pixel, ""},
             {"nexus_master.h5", {{"\0um"s, "\0nm"s}}, 1, 1e-3 * pixel, ""},
             {"nexus_master.h5",  // a longer word at its place, and its length in two places
              {{"\3\0\0\0\0\0\0\0deg\0\0\0"s, "\6\0\0\0\0\0\0\0radian"s},
               {"\3\0\0\0\xe8$\0\0\0\0\0\0\3\0\0\0"s, "\6\0\0\0\xe8$\0\0\0\0\0\0\3\0\0\0"s}},
              radian,
              pixel,
              ""},
             {"nexus_master.h5", {{"omega_increment_set", "omega_end\0\0\0\0\0\0\0\0\0\0"s}}, 0.5, pixel, ""},
             {"angles_last.emd", {{"[deg]", "[rad]"}}, radian, 5e7, ""},
             {"angles_last.emd", {{"[n_m^-1]", " [A^-1] "}}, 1, 5e8, ""},
             {"angles_last.emd", {{"[n_m^-1]", " [m^-1] "}}, 1, 0.05, ""},
             {"angles_last.emd", {{"[n_m^-1]", "  [1/A] "}}, 1, 5e8, ""},
             {"frame.cbf", {{"Start_angle", "Phi        "}, {"0.8 m", "0.4 m"}}, 0, 2 * pixel, ""},
             {"frame.cbf", {{"x-CBF_BYTE_OFFSET", "x-CBF_CANONICAL  "}}, 0, 0, "packed in a way"},
             {"frame.cbf", {{"signed 32-bit integer", "complex 64-bit number"}}, 0, 0, "of the type"},
             {"frame.cbf", {{"Second-Dimension: 4", "Second-Dimension: 9"}}, 0, 0, "cannot lie in"},
             {"frame.cbf", {{"X-Binary-Size: 36", "X-Binary-Size: 35"}}, 0, 0, "packed pixels are damaged"},
             {"frame.cbf", {{"\xff\x10\1\0"s, "\0\0\0\x80"s}}, 0, 0, "packed pixels are damaged"},
         }) {
        SCOPED_TRACE(name + changes[0][1]);
        std::string changed = *contents(kFolder / name);
        for (const auto& [from, to] : changes) {
            ASSERT_NE(changed.find(from), std::string::npos);
            for (std::size_t at = 0; (at = changed.find(from, at)) != std::string::npos; at += to.size())
                changed.replace(at, from.size(), to);
        }
        std::unique_ptr<FrameFile> file;
        const FrameSource source(kFolder / name, std::make_shared<const std::string>(changed));
        const Refusal refusal = failureOf([&] { (file = FrameFile::open(source))->read(0); });
        EXPECT_TRUE(refusal.says(reason)) << refusal.text;
        ASSERT_EQ(refusal.text.empty(), !*reason);
        if (*reason) continue;
        EXPECT_NEAR(file->info(0).pixelSize.value_or(0), pixelSize, 1e-6 * pixelSize);
        if (file->count() > 1) {
            EXPECT_NEAR(*file->info(1).tilt - *file->info(0).tilt, tiltStep, 1e-6);
        }
    }
}

TEST(Readers, PagesThatCannotBeReadAreNamed) {
    const TemporaryFolder folder;
    const std::string whole = *contents(kFolder / "strips.tif");
    const auto write = [&](std::size_t place, char value) {  // of the second page, low byte first
        std::string changed = whole;
        changed[place] = value;
        return folder.write("a.tif", changed);
    };
    for (const auto& [place, value, message] :
         {std::tuple{387U, '\3', "is truncated: its pixels need 6184 bytes, the whole file has 724"},
          {410U, '\x18', "has pixels of 24 bits"},
          {434U, '\2', "has colours"}})
        EXPECT_TRUE(
            says(failureOf([&, place = place, value = value] { FrameFile::open(write(place, value)); }).text,
                 std::string("page 2 of the TIFF ") + message));
    const auto file = FrameFile::open(write(386, '\5'));
    EXPECT_EQ(file->count(), 3);
    write(386, '\6');
    EXPECT_TRUE(failureOf([&] { file->read(1); }).says("page 2 of the TIFF changed while"));
    folder.write("a.tif", whole.substr(0, 380));
    EXPECT_TRUE(failureOf([&] { file->read(1); }).says("page 2 of the TIFF cannot be read"));
}

TEST(Readers, FilesAreKnownByTheirFirstBytes) {
    const TemporaryFolder folder;
    using Content = vrk::FileContent;
    const auto expect = [&](const std::string& start, Content::Kind kind, const char* name) {
        const Content content = Content::of(folder.write("x", start));
        EXPECT_TRUE(content.kind == kind && content.name == name) << start << content.name;
    };
    for (const auto& [start, name] : {std::pair("\xff\xd8\xff", "a JPEG picture"),
                                      {"\x89PNG", "a PNG picture"},
                                      {"BM", "a BMP picture"},
                                      {"%PDF", "a PDF file"}})
        expect(start, Content::Kind::Picture, name);
    for (const char* text : {"a\tb \r\n\xc3\xa4", "\n", "\r", "\t", " "})
        expect(text, Content::Kind::OtherText, "a text");
    for (const std::string& other : {"a\0"s, "a\x1f"s, std::string()})
        expect(other, Content::Kind::Unknown, "");
    // What those say who want a series, peaks or a cell.
    for (const auto& [start, series, peaks, cell] :
         {std::tuple{"#VRKPEAKSVERSION", " is a peak file, not an MRC", "", " is a peak file, not a cell"},
          {"#VRKCELLVERSION", " is a cell file, not an MRC", " is a cell file, not a list", ""},
          {"GIF8", ", which has no counts", " is a GIF picture, not a list", " is a GIF picture, not a cell"},
          {"{HEADER_BYTES", " is an SMV file as", " is an SMV file, not a list",
           " is an SMV file, not a cell"},
          {"text", " is a text, not an MRC", "", ""}}) {
        folder.write("x", start);
        for (const auto& [refuse, reason] : {std::pair(&vrk::refuseUnlessMrc, series),
                                             {&vrk::refuseUnlessPeaks, peaks},
                                             {&vrk::refuseUnlessCell, cell}}) {
            const Refusal refusal = failureOf([&, &refuse = refuse] { refuse(folder / "x"); });
            EXPECT_TRUE(refusal.says(reason) && refusal.text.empty() == !*reason) << start << refusal.text;
        }
    }
}

#if !defined(__SANITIZE_ADDRESS__)  // which opens pipes to look at types
TEST(Readers, SayWhenAFileCannotBeOpened) {
    const TemporaryFolder folder;
    const FrameSource source(folder.write("x.mrc", "1234"));
    rlimit files{};
    getrlimit(RLIMIT_NOFILE, &files);
    const rlimit none = {0, files.rlim_max};
    setrlimit(RLIMIT_NOFILE, &none);
    const Refusal refusal = failureOf([&] { source.open(); });
    setrlimit(RLIMIT_NOFILE, &files);
    EXPECT_TRUE(refusal.says("it cannot be read; check its permissions"));
}
#endif

TEST(Readers, DeadPixelsAndHalvesOfAnySizeAreKnown) {
    const std::string set(4, '\xff');
    EXPECT_TRUE(std::isnan(vrk::decodePixels(set, vrk::PixelType::UInt32, false)[0]));
    EXPECT_EQ(vrk::decodePixels(set, vrk::PixelType::UInt16, false)[0], 65535);
    EXPECT_EQ(vrk::decodePixels(set, vrk::PixelType::Int32, true)[0], -1);
    const std::string halves("\x00\x3c\x00\xc0\xff\x7b\x00\x04\xff\x03\x01\x80", 12);
    const std::vector<float> expected = {1, -2, 65504, 0x1p-14F, 1023 * 0x1p-24F, -0x1p-24F};
    EXPECT_EQ(vrk::decodePixels(halves, vrk::PixelType::Float16, false), expected);
}

TEST(Readers, UnpackingStopsAtItsLimitAndTellsDamage) {
    using namespace vrk::detail;
    const std::string packed = *contents(kFolder / "frame.cbf.gz");
    const std::string plain = *contents(kFolder / "frame.cbf");
    const auto unpack = [](const std::string& bytes, std::uint64_t most, std::string& reason) {
        std::string unpacked;
        return gunzip(chunksOf(bytes), most, BeyondLimit::Refuse, unpacked, reason) ? unpacked : "";
    };
    std::string reason;
    EXPECT_EQ(unpack(packed, plain.size(), reason), plain);
    EXPECT_EQ(unpack(packed + packed + std::string(7, '\0'), 1 << 20, reason), plain + plain);
    EXPECT_EQ(reason, "");
    EXPECT_EQ(unpack(packed, plain.size() - 1, reason), "");
    EXPECT_NE(reason.find("unpacks to more"), std::string::npos);
    EXPECT_EQ(unpack(packed.substr(0, packed.size() - 9), 1 << 20, reason), "");
    EXPECT_NE(reason.find("truncated"), std::string::npos);
    EXPECT_EQ(unpack("\x1f\x8b no more than the mark", 99, reason), "");
    EXPECT_TRUE(says(reason, "damaged"));
    EXPECT_EQ(FrameSource(kFolder / "frame.cbf.gz").beginning(77), plain.substr(0, 77));
    std::array<char, 3> end{};
    for (const FrameSource& source :
         {FrameSource(kFolder / "frame.cbf"), FrameSource("x", std::make_shared<const std::string>(plain))}) {
        const auto all = source.open();
        EXPECT_TRUE(all->read(plain.size() - 3, end) && end[2] == plain.back());
        EXPECT_FALSE(all->read(plain.size() - 2, end) || all->read(plain.size() + 1, {}));
    }
}

TEST(Readers, SmallFilesDoNotUnpackToLargeOnes) {
    const auto refused = [](const char* name, const std::string& bytes) {
        return failureOf([&] {
            const FrameSource source(name, std::make_shared<const std::string>(bytes));
            source.open();
            FrameFile::open(source);
        });
    };
    // 70 MiB of zeros.
    const std::string hex =
        "425a68393141592653590e09e2df015f8e4000c0000008200030804d4642a025a90a809731415926535933f2afee00d2a3c1"
        "00c00040000008200030cc0529a6a84912d811244bc5dc914e14240bf85a9400";
    std::string bomb;
    for (std::size_t i = 0; i < hex.size(); i += 2)
        bomb += static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16));
    EXPECT_TRUE(refused("x.mrc.bz2", bomb).says("unpacks to more than 64 MiB"));
    EXPECT_TRUE(refused("x.tif", emptyTiff(16384)).says("frames of 268435456 pixels"));
}

TEST(Readers, SmallFilesThatAskForMuchAreRefused) {
    for (const auto& [name, reason] : {std::pair{"many.h5", "no tilt series has so many"},
                                       {"pieces.h5", "lies in 250000 pieces"},
                                       {"stored.h5", "frame 1 cannot be read"},
                                       {"deep.h5", "too deep in each other"},
                                       {"itself.h5", "gathers its frames from itself"}}) {
        const Refusal refusal = failureOf([&, name = name] { FrameFile::open(kFolder / name)->read(0); });
        EXPECT_TRUE(refusal.says(reason)) << name << refusal.text;
    }
}

TEST(Readers, WhatLiesInOtherFoldersIsReadWhenAllowedOnly) {
    const TemporaryFolder folder;
    std::filesystem::create_directory(folder / "in");
    folder.write("plain.h5", *contents(kFolder / "plain.h5"));
    for (const char* name : {"gathered.h5", "gathered_linked.h5", "raw.h5"})
        folder.write(std::string("in/") + name, *contents(kFolder / name));
    std::string master = *contents(kFolder / "nexus_master.h5");
    for (const std::string number : {"000001.h5", "000002.h5"}) {
        folder.write("us_data_" + number, *contents(kFolder / ("nexus_data_" + number)));
        master.replace(master.find("nexus_data_" + number), 11, "../us_data_");
    }
    folder.write("in/nexus_master.h5", master);
    for (const char* name : {"nexus_master.h5", "gathered.h5", "gathered_linked.h5", "raw.h5"}) {
        const std::filesystem::path path = folder / (std::string("in/") + name);
        const Refusal refusal = failureOf([&] { FrameFile::open(path); });
        EXPECT_TRUE(refusal.says("outside its folder; vrk import --allow-outside")) << name << refusal.text;
        const vrk::Frame frame = FrameFile::open(path, true)->read(1);
        if (std::string(name) != "raw.h5") {
            EXPECT_EQ(frame.pixels[7], countAt(1, 7)) << name;
        }
    }
}

TEST(Readers, AProcessThatNeverAnswersIsEnded) {
    using vrk::detail::SeparateProcess;
    SeparateProcess process([](const std::string& request, const SeparateProcess::Reply& reply) {
        if (request == "forever") SeparateProcess::allowSeconds(0.1);
        for (volatile int count = 0; request == "forever";)
            count = 1 - count;
        reply(request);
    });
    EXPECT_EQ(process.ask("once", 4), "once");
    EXPECT_FALSE(process.ask("forever", 100));
    EXPECT_FALSE(process.ask("once", 4));
    SeparateProcess silent([](const std::string&, const SeparateProcess::Reply&) { pause(); }, 20);
    EXPECT_FALSE(silent.ask("once", 4));
}

/// Of kinds that are no frames for themselves, or lead to other files.
TEST(Readers, DamagedFilesAreReadOrRefused) {
    vrk::SimulationRandom random(5);
    int refused = 0;
    for (const char* name :
         {"nexus_master.h5", "angles_last.emd", "velox.emd", "gathered.h5", "half.mrc.bz2"})
        for (int round = 0; round < 8; ++round) {
            std::string bytes = *contents(kFolder / name);
            for (int i = random.index(6); i >= 0; --i)
                bytes[static_cast<std::size_t>(random.index(static_cast<int>(bytes.size())))] = '\xff';
            const FrameSource source(kFolder / name, std::make_shared<const std::string>(bytes));
            const Refusal refusal = failureOf([&] { FrameFile::open(source)->read(0); });
            EXPECT_TRUE(refusal.text.empty() || refusal.says(name)) << refusal.text;
            refused += refusal.text.empty() ? 0 : 1;
        }
    EXPECT_GT(refused, 8);
    EXPECT_LT(refused, 40);
}

}  // namespace
