#include "VoxCore/IO/VoxMRCFileHandler.h"

#include <rapidcheck.h>

#include "processing/SeriesFactory.h"
#include "support/MRCBytes.h"
#include "support/Testing.h"

namespace {

std::unique_ptr<VoxMRCData> readFile(const std::string& path) {
    return std::unique_ptr<VoxMRCData>(VoxMRCFileHandler().readMRCFile(path));
}

std::vector<std::int16_t> voxels(const VoxMRCData& data) {
    std::vector<std::int16_t> all;
    for (unsigned z = 0; z < data.GetChunkCount(); ++z)
        all.insert(all.end(), data.GetChunkPointer(z), data.GetChunkPointer(z) + data.GetChunkSize());
    return all;
}

}  // namespace

TEST(VoxMRCFileHandler, ReadsEveryFieldFromItsPlace) {
    MRCBytes file(5, 3, 2);
    for (std::size_t offset = 12; offset < 40; offset += 4)
        MRCBytes::put(file.header, offset, static_cast<std::int32_t>(offset));
    for (const std::size_t offset : std::initializer_list<std::size_t>{
             40, 44, 48, 52, 56, 60, 76, 80, 84, 172, 176, 180, 184, 188, 192, 196, 200, 204, 216})
        MRCBytes::put(file.header, offset, static_cast<float>(offset) + 0.5F);
    for (const std::size_t offset :
         std::initializer_list<std::size_t>{64, 68, 72, 98, 102, 106, 110, 114, 118, 122, 126, 130, 220})
        MRCBytes::put(file.header, offset, static_cast<std::int32_t>(offset));
    for (const std::size_t offset : std::initializer_list<std::size_t>{88, 90, 96, 162, 164, 166, 168, 170})
        MRCBytes::put(file.header, offset, static_cast<std::int16_t>(offset));
    file.header.replace(134, 28, std::string(27, 'u') + "U");
    file.header.replace(208, 8, "MAP DD\x01\x02");
    file.header.replace(224, 800, std::string(799, 'l') + "L");
    for (int z = 0; z < 2; ++z)
        for (int k = 1; k <= 17; ++k)
            file.putSliceValue(z, k, k == 12 ? 2.5e8F : static_cast<float>(100 * z + k));

    const TemporaryFolder folder;
    const std::unique_ptr<VoxMRCData> data = readFile(folder.write("a.mrc", file.bytes()));
    ASSERT_TRUE(data);
    const mrcH& h = data->m_Header;
    EXPECT_EQ((std::vector<int>{h.nx, h.ny, h.nz, h.mode, h.nxstart, h.nystart, h.nzstart, h.mx, h.my, h.mz}),
              (std::vector<int>{5, 3, 2, 12, 16, 20, 24, 28, 32, 36}));
    EXPECT_EQ((std::vector<float>{h.xlen, h.ylen, h.zlen, h.alpha, h.beta, h.gamma, h.amin, h.amax, h.amean,
                                  h.tiltangles[0], h.tiltangles[5], h.xorgin, h.yorgin, h.zorgin, h.rms}),
              (std::vector<float>{40.5, 44.5, 48.5, 52.5, 56.5, 60.5, 76.5, 80.5, 84.5, 172.5, 192.5, 196.5,
                                  200.5, 204.5, 216.5}));
    EXPECT_EQ((std::vector<int>{h.mapc, h.mapr, h.maps, h.ispg, h.nsymbt, h.next, h.idtype, h.lens, h.nd1,
                                h.vd1, h.vd2, h.nlabl}),
              (std::vector<int>{64, 68, 72, 88, 90, 288, 162, 164, 166, 168, 170, 220}));
    EXPECT_EQ((std::vector<long>{h.extraShort, h.extraWords[0], h.extraWords[8], h.creatid, h.nint, h.nreal,
                                 h.nd2}),
              (std::vector<long>{96, 98, 130, 0, 0, 0, 0}));
    const auto textOf = [](const auto& field) { return std::string(field.data(), field.size()); };
    EXPECT_EQ(textOf(h.cmap) + textOf(h.stamp), "MAP DD\x01\x02");
    EXPECT_EQ(textOf(h.unused2) + textOf(h.labl), std::string(27, 'u') + "U" + std::string(799, 'l') + "L");

    for (int k = 1; k <= 17; ++k)
        EXPECT_EQ(h.value(static_cast<SliceValue>(k - 1), 1), k == 12 ? 2.5e8F : static_cast<float>(100 + k));
    EXPECT_EQ((std::vector{h.tilt(1), h.value(SliceValue::TiltAxis, 0), h.value(SliceValue::HighTension, 0),
                           h.m_pixelsize}),
              (std::vector{101.0F, 9.0F, 16.0F, 2.5e8F}));
    EXPECT_EQ(h.type, MRCType::TILT_SERIES);
    EXPECT_EQ(voxels(*data), file.data);
    EXPECT_EQ(std::pair(data->GetWidth(), data->GetHeight()), std::pair(5U, 3U));
}

TEST(VoxMRCFileHandler, TypeAndPixelSizeFollowFromTheSliceValues) {
    struct Case {
        const char* name;
        MRCBytes file;
        MRCType type;
        float pixelSize;
    };
    std::vector<Case> cases;
    const auto add = [&](const char* name, const MRCBytes& file, MRCType type, float pixelSize) -> MRCBytes& {
        cases.push_back({name, file, type, pixelSize});
        return cases.back().file;
    };
    using enum MRCType;
    const MRCBytes three(4, 3, 3);
    MRCBytes volume(4, 3, 5, 0);
    MRCBytes::put(volume.header, 40, 1.0F);
    add("no extended header", volume, MRCVOLUME, 0.25F);
    add("a negative extended header", volume, MRCVOLUME, 0.25F).next = -144;
    add("more layers than records", MRCBytes(2, 2, 400, 0), MRCVOLUME, 0.0F);
    add("tilted in the middle only", three, MRCVOLUME, 0.0F).putSliceValue(1, 1, 10.0F);
    add("one pixel size", three, TILT_SERIES, 3e7F).putTilts(-1, 1, 3e7F);
    add("two pixel sizes", cases.back().file, TILT_SERIES, 0.0F).putSliceValue(2, 12, 3.1e7F);
    add("the most slices there may be", MRCBytes(1, 1, 300), TILT_SERIES, 1e8F).putTilts(0, 0.25F);
    MRCBytes& roomy = add("room behind the records", three, TILT_SERIES, 1e8F);
    roomy.putTilts(-1, 1);
    roomy.next += 1000;
    roomy.extended.append(1000, 'x');
    MRCBytes& late = add("as long as records of 128 bytes", MRCBytes(1, 1, 8), TILT_SERIES, 0.0F);
    late.putTilts(-4, 1, 0);
    late.putSliceValue(5, 12, 1e8F);
    late.next += 128;
    late.extended.append(128, '\0');
    constexpr float kNan = std::numeric_limits<float>::quiet_NaN(), kInfinity = INFINITY;
    MRCBytes& strange = add("no numbers", three, TILT_SERIES, 0.0F);  // no NaN equals another
    strange.putTilts(kNan, kInfinity, kNan);
    MRCBytes::put(strange.header, 40, kInfinity);

    const TemporaryFolder folder;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        RecordingLogObserver log;
        const std::unique_ptr<VoxMRCData> data = readFile(folder.write("a.mrc", c.file.bytes()));
        ASSERT_TRUE(data);
        EXPECT_EQ(data->m_Header.type, c.type);
        EXPECT_EQ(data->m_Header.m_pixelsize, c.pixelSize);
        EXPECT_EQ(voxels(*data), c.file.data);
        EXPECT_TRUE(log.has(" Byte count correkt.", VRK::Normal));
        EXPECT_EQ(log.has("ERROR: Pixelsize in the Extended MRC Header is not the same!!", VRK::Warning),
                  c.type == MRCType::TILT_SERIES && c.pixelSize == 0.0F);
        EXPECT_EQ(log.has("is negative (-144)", VRK::Warning), c.file.next < 0);

        const std::unique_ptr<mrcH> header(VoxMRCFileHandler().readMRCFile_onlyHeader(folder / "a.mrc"));
        ASSERT_TRUE(header);
        EXPECT_EQ(std::memcmp(&header->sliceValues, &data->m_Header.sliceValues, sizeof header->sliceValues),
                  0);
        EXPECT_EQ(header->type, c.type);
    }
}

TEST(VoxMRCFileHandler, ReportsWhatItReads) {
    MRCBytes file(2, 2, 2);
    file.putTilts(-10.5F, 21.0F, 0);
    file.data = {12000, 11000, 32767, 10001, 12000, 11000, 12000, 20000};
    const TemporaryFolder folder;
    const std::string path = folder.write("a.mrc", file.bytes());
    RecordingLogObserver log;
    ASSERT_TRUE(readFile(path));
    for (const std::string text :
         {" --------------------  read MRC file --------------- ", "----", " file length: 1328",
          " Read MRC header ...", " Read extended header ...", "   next value is288",
          "MRCHeader->m_pixelsize was set to0", "... MRC header read into.", " tilting from-10.5 to10.5",
          "###### MRC file TYPE:1", "Read data ...", " Volume: Min value: 10000  max value: 32767",
          " Create histogram on data ... ", " ... done.", " stream end pos: 1328", " file length   : 1328",
          " Byte count correkt.", "VoxMRCFileHandler:readMRCFile() Completed in "})
        EXPECT_TRUE(log.has(text, VRK::Normal)) << text;
    EXPECT_TRUE(log.has("   emtyExHeader size is0", VRK::Debug));
    EXPECT_EQ(log.messages.size(), 35U);
    EXPECT_TRUE(std::unique_ptr<mrcH>(VoxMRCFileHandler().readMRCFile_onlyHeader(path)));
    EXPECT_EQ(log.count(" actual stream pos: 0", VRK::Debug), 1);

    file.data.assign(8, -5);
    folder.write("a.mrc", file.bytes());
    ASSERT_TRUE(readFile(path));
    EXPECT_TRUE(log.has(" Volume: Min value: -5  max value: 0", VRK::Normal));
}

TEST(VoxMRCFileHandler, HistogramIsThatOfItsVoxels) {
    const TemporaryFolder folder;
    EXPECT_TRUE(rc::check("histogram", [&folder](const std::vector<std::int16_t>& values) {
        MRCBytes file(3, 2, static_cast<std::int32_t>(values.size() / 6 + 1), 0);
        std::copy(values.begin(), values.end(), file.data.begin());
        const std::unique_ptr<VoxMRCData> data = readFile(folder.write("h.mrc", file.bytes()));
        RC_ASSERT(data != nullptr);
        RC_ASSERT(hasItsHistogram(*data));
    }));
}

TEST(VoxMRCFileHandler, WritesBackWhatItHasReadByteForByte) {
    const TemporaryFolder folder;
    EXPECT_TRUE(rc::check("same bytes", [&folder] {
        const int slices = *rc::gen::inRange(1, 4);
        MRCBytes file(*rc::gen::inRange(1, 5), *rc::gen::inRange(1, 5), slices,
                      *rc::gen::element(0, 144, 288));
        file.header = *rc::gen::container<std::string>(1024, rc::gen::arbitrary<char>());
        if (file.next > 0) {
            const auto values = *rc::gen::container<std::vector<std::uint32_t>>(
                static_cast<std::size_t>(17 * slices), rc::gen::arbitrary<std::uint32_t>());
            for (int i = 0; i < 17 * slices; ++i)
                MRCBytes::put(file.extended, static_cast<std::size_t>(i / 17 * 144 + i % 17 * 4),
                              values[static_cast<std::size_t>(i)]);
            file.putSliceValue(0, 1, 1.0F);  // a series, whatever the rest says
        }
        const std::unique_ptr<VoxMRCData> data = readFile(folder.write("a.mrc", file.bytes()));
        RC_ASSERT(data != nullptr);
        RC_ASSERT(VoxMRCFileHandler().writeMRCFile(data.get(), folder / "b.mrc"));
        RC_ASSERT(folder.read("b.mrc") == file.bytes());
    }));
}

TEST(VoxMRCFileHandler, HeaderOnDiskAgreesWithWhatFollowsIt) {
    const TemporaryFolder folder;
    MRCBytes file(4, 3, 2);
    file.putTilts(-1, 2, 7e7F);
    const std::string path = folder.write("a.mrc", file.bytes());
    std::unique_ptr<VoxMRCData> data = readFile(path);
    ASSERT_TRUE(data);

    // A volume keeps its pixel size but has no extended header, whatever the series it came from had.
    data->m_Header.type = MRCType::MRCVOLUME;
    ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(data.get(), path));
    EXPECT_EQ(data->m_Header.next, 288);
    EXPECT_EQ(folder.read("a.mrc").size(), 1024 + 2 * file.data.size());
    const std::unique_ptr<VoxMRCData> volume = readFile(path);
    ASSERT_TRUE(volume);
    EXPECT_EQ(volume->m_Header.next, 0);
    EXPECT_EQ(volume->m_Header.m_pixelsize, 7e7F);
    EXPECT_EQ(voxels(*volume), file.data);

    // An unknown one does not become that of the frames' edge, as it was before.
    data->m_Header.m_pixelsize = 0;
    data->m_Header.xlen = 512;
    ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(data.get(), path));
    EXPECT_EQ(readFile(path)->m_Header.m_pixelsize, 0.0F);
    EXPECT_EQ(data->m_Header.xlen, 512);
    data->m_Header.xlen = 0;

    // Sizes that the data do not have, and too small an extended header.
    data->m_Header.type = MRCType::TILT_SERIES;
    data->m_Header.nx = 400;
    data->m_Header.next = 1;
    ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(data.get(), path));
    EXPECT_EQ(folder.read("a.mrc"), file.bytes());

    RecordingLogObserver log;
    data->m_Header.next = 0;
    ASSERT_TRUE(VoxMRCFileHandler().writeMRCFile(data.get(), path));
    EXPECT_TRUE(log.has("tilt angles are not written", VRK::Warning));
}

TEST(VoxMRCFileHandler, ReportsProgressAndStopsOnRequest) {
    const TemporaryFolder folder;
    const std::string path = folder.write("a.mrc", MRCBytes(2, 2, 4, 0).bytes());
    RecordingLogObserver log;
    VoxMRCFileHandler handler;
    RecordingProgressObserver whole;
    handler.registerObserver(&whole);
    const std::unique_ptr<VoxMRCData> data(handler.readMRCFile(path));
    ASSERT_TRUE(data);
    EXPECT_TRUE(handler.writeMRCFile(data.get(), path));
    EXPECT_EQ(whole.updates, (std::vector<int>{0, 1, 2, 3, 0, 1, 2, 3}));
    EXPECT_EQ(whole.titles, (std::vector<std::string>{" ", " "}));

    RecordingProgressObserver stopping(3);
    handler.registerObserver(&stopping);
    EXPECT_EQ(handler.readMRCFile(path), nullptr);
    EXPECT_EQ(stopping.updates.size(), 3U);
    EXPECT_FALSE(handler.writeMRCFile(data.get(), path));
    EXPECT_EQ(log.messages.size(), 68U);
    EXPECT_TRUE(log.has(" readMRCFile() canceled ...", VRK::Normal));
    EXPECT_TRUE(log.has(" writeMRCFile() canceled ...", VRK::Normal));
}
