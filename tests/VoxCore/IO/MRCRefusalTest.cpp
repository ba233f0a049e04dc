// What the file handler says to files that are damaged, cut, of another kind, or impossible.
#include <sys/resource.h>

#include <stdexcept>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "support/MRCBytes.h"
#include "support/Testing.h"

namespace {

MRCBytes series(std::int32_t slices = 3) {
    MRCBytes file(4, 3, slices);
    file.putTilts(-1, 1);
    return file;
}

std::string withSizes(std::int32_t nx, std::int32_t ny, std::int32_t nz) {
    MRCBytes file(4, 3, 3, 0);
    file.nx = nx;
    file.ny = ny;
    file.nz = nz;
    return file.bytes();
}

std::string withNext(std::int32_t next, std::int32_t nz = 3) {
    MRCBytes file = series();
    file.next = next;
    file.nz = nz;
    return file.bytes();
}

std::string with128ByteRecords() {
    MRCBytes file(4, 3, 3);
    file.next = 1024 * 128;
    file.extended.assign(1024 * 128, '\0');
    for (std::size_t z = 0; z < 3; ++z) {
        MRCBytes::put(file.extended, z * 128, static_cast<float>(z));
        MRCBytes::put(file.extended, z * 128 + 44, 1e8F);
    }
    return file.bytes();
}

}  // namespace

TEST(MRCRefusal, OfFilesThatCannotBeRead) {
    const std::int32_t most = std::numeric_limits<std::int32_t>::max();
    struct Case {
        const char* name;
        std::string bytes;
        const char* message;
        bool headerIsGood = false;
        bool throws = false;  ///< and the message is that of the exception
    };
    const Case cases[] = {
        {"empty", "", "has 0 bytes"},
        {"a byte short of a header", std::string(1023, '\0'), "has 1023 bytes"},
        {"nothing but zeros", std::string(4096, '\0'), "announces 0 x 0 x 0", true, true},
        {"nx zero", withSizes(0, 3, 3), "announces 0 x 3 x 3", true, true},
        {"ny negative", withSizes(4, -3, 3), "announces 4 x -3 x 3", true, true},
        {"nz as low as can be", withSizes(4, 3, -most - 1), "announces 4 x 3 x -2147483648", true, true},
        {"nz negative, with records", withNext(144, -1), "announces 4 x 3 x -1", true, true},
        {"product beyond 64 bits", withSizes(most, most, most), "more than a data set holds", true, true},
        {"product beyond 32 bits", withSizes(65536, 65536, 1), "more than a data set holds", true, true},
        {"far more voxels than the file has", withSizes(1000, 1000, 10), "but it has only 1096", true},
        {"next far beyond the end", withNext(most), "a file of 2147484743 bytes", true},
        {"next smaller than the records", withNext(2 * 144), "no room"},
        {"records of another size", with128ByteRecords(), "128 bytes"},
        {"more slices than records", series(301).bytes(), "301 slices"},
    };
    const TemporaryFolder folder;
    VoxMRCFileHandler handler;
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = folder.write("bad.mrc", c.bytes);
        RecordingLogObserver log;
        const auto expectFailure = [&](auto read, int nth) {
            try {
                EXPECT_EQ(read(), nullptr);
                EXPECT_FALSE(c.throws);
                EXPECT_TRUE(log.has(path + ": ", VRK::Error) && log.has(c.message, VRK::Error));
            } catch (const std::exception& error) {
                EXPECT_TRUE(c.throws);
                EXPECT_NE(std::string(error.what()).find(c.message), std::string::npos) << error.what();
                EXPECT_EQ(log.count("Read data ...", VRK::Normal), nth);
                EXPECT_EQ(log.count("ERROR: Could not creat data set. Maybe the mrc-file is corrupted!",
                                    VRK::Error),
                          nth);
            }
            EXPECT_EQ(log.count("", VRK::Error), nth);
        };
        expectFailure([&] { return handler.readMRCFile(path); }, 1);
        expectFailure([&] { return handler.readMRCFile_asVolumeData(path, 2); }, 2);
        const std::unique_ptr<mrcH> header(handler.readMRCFile_onlyHeader(path));
        EXPECT_EQ(header != nullptr, c.headerIsGood);
    }
}

TEST(MRCRefusal, OfPathsThatAreNoFile) {
    const TemporaryFolder folder;
    for (const std::string& path :
         {folder / "missing.mrc", folder / "", std::string("/dev/zero"), std::string()}) {
        SCOPED_TRACE(path);
        RecordingLogObserver log;
        RecordingProgressObserver progress;
        VoxMRCFileHandler handler;
        handler.registerObserver(&progress);
        EXPECT_EQ(handler.readMRCFile(path), nullptr);
        EXPECT_EQ(handler.readMRCFile_onlyHeader(path), nullptr);
        EXPECT_EQ(log.count("ERROR: Error while opening file " + path, VRK::Error), 2);
        EXPECT_EQ(progress.messages, std::vector<std::string>(2, "Error while opening file"));
        EXPECT_EQ(progress.messageTypes, std::vector<Vox::MessageType>(2, Vox::Error));
    }
}

TEST(MRCRefusal, StopsWhereTheDataCanBeSaved) {
    MRCBytes file = series();
    file.data.assign(file.data.size(), 7);
    const std::string whole = file.bytes();
    const std::size_t start = 1024 + 3 * 144;
    // A voxel that lost one of its two bytes counts as there; its upper byte is 0.
    const std::tuple<std::size_t, int, const char*> cases[] = {
        {whole.size() + 1, 36, "1 bytes behind the data"},
        {whole.size() - 1, 36, "cut in slice 2 of 0 ... 2"},
        {start + 2 * 18, 18, "cut in slice 1 of 0 ... 2"},
        {start + 2 * 12, 12, "cut in slice 1 of 0 ... 2"},
        {start + 2 * 3, 3, "cut in slice 0 of 0 ... 2"},
        {start, 0, "cut before its data"},
        {1024 + 150, 0, "cut before its data"}};
    const TemporaryFolder folder;
    for (const auto& [length, voxelsThere, message] : cases) {
        SCOPED_TRACE(length);
        std::string bytes = whole;
        bytes.resize(length, '\0');
        RecordingLogObserver log;
        VoxMRCFileHandler handler;
        const std::unique_ptr<VoxMRCData> data(handler.readMRCFile(folder.write("cut.mrc", bytes)));
        ASSERT_TRUE(data);
        EXPECT_TRUE(log.has(" ERROR: Byte count incorrekt!!!", VRK::Error));
        EXPECT_TRUE(log.has(message, VRK::Warning));
        EXPECT_EQ(data->m_Header.tilt(0), -1.0F);
        for (int i = 0; i < 36; ++i)
            EXPECT_EQ(data->GetValueByChunk(static_cast<unsigned>(i / 12), static_cast<unsigned>(i % 12)),
                      i < voxelsThere ? 7 : 0);
    }
}

TEST(MRCRefusal, OfTargetsThatCannotBeWritten) {
    const TemporaryFolder folder;
    std::unique_ptr<VoxMRCData> data(VoxMRCData::Create3D(64, 64, 3));
    data->m_Header.type = MRCType::TILT_SERIES;
    using Case = std::tuple<std::string, std::int32_t, unsigned, const char*>;
    const Case cases[] = {
        {folder / "missing/a.mrc", 0, 3,
         "VoxMRCFileHandler::saveMRCFile()  Error while opening file to write in ..."},
        {folder / "", 0, 3, "VoxMRCFileHandler::saveMRCFile()  Error while opening file to write in ..."},
        {"/dev/full", 432, 3, "/dev/full: could not be written to the end"},
        {"/dev/full", 0, 3, "/dev/full: could not be written to the end"},
        {folder / "a.mrc", 432, 301, "a series of 301 slices cannot be written"},
    };
    for (const auto& [path, next, slices, message] : cases) {
        SCOPED_TRACE(path);
        if (slices != 3) data.reset(VoxMRCData::Create3D(1, 1, slices));
        data->m_Header.type = MRCType::TILT_SERIES;
        data->m_Header.next = next;
        RecordingLogObserver log;
        EXPECT_FALSE(VoxMRCFileHandler().writeMRCFile(data.get(), path));
        EXPECT_TRUE(log.has(message, VRK::Error));
    }
    RecordingLogObserver log;
    EXPECT_FALSE(VoxMRCFileHandler().writeMRCFile(static_cast<VoxMRCData*>(nullptr), folder / "a.mrc"));
    VoxMRCData empty;
    EXPECT_FALSE(VoxMRCFileHandler().writeMRCFile(&empty, folder / "a.mrc"));
    EXPECT_EQ(log.count("no data to write", VRK::Error), 2);
    EXPECT_FALSE(std::filesystem::exists(folder / "a.mrc"));
}

// The sanitizers' own memory does not fit under the limit.
#if !defined(__SANITIZE_ADDRESS__)
TEST(MRCRefusalDeathTest, ThrowsWhenTheDataSetDoesNotFitIntoMemory) {
    const TemporaryFolder folder;
    const std::string path = folder.write("big.mrc", withSizes(32768, 1024, 30));
    std::filesystem::resize_file(path, 1024 + 2LL * 32768 * 1024 * 30);  // occupies no disk space
    const auto read = [&path] {
        const rlimit limit = {1U << 30, 1U << 30};
        setrlimit(RLIMIT_AS, &limit);
        RecordingLogObserver log;
        int code = 1;
        try {
            VoxMRCFileHandler().readMRCFile(path);
        } catch (const std::runtime_error& error) {
            const bool logged =
                log.has("ERROR: Could not creat data set. Maybe the mrc-file is corrupted!", VRK::Error);
            const bool told = std::string(error.what()).find("32768 x 1024 x 30") != std::string::npos;
            code = logged && told ? 0 : 2;
        }
        std::_Exit(code);
    };
    EXPECT_EXIT(read(), testing::ExitedWithCode(0), "");
}
#endif
