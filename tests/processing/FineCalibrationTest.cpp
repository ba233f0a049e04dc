#include <cstdio>

#include "processing/FineCalibrationImport.h"
#include "support/Testing.h"

namespace {

const TemporaryFolder kFolder;

std::unique_ptr<double[]> tableOf(const std::string& text, int* count) {
    return std::unique_ptr<double[]>(
        FineCalibrationImport::initFineCalibration(kFolder.write("table.txt", text), count));
}

}  // namespace

TEST(FineCalibration, ReadsPairsAndFindsTheOneOfASeries) {
    int count = -1;
    const auto table = tableOf("# stated calibrated\n8.38e7\t8.2e7  # 0.8 m\r\n\n  1e8 1.02e8", &count);
    ASSERT_EQ(count, 4);
    EXPECT_DOUBLE_EQ(table[0], 8.38e7);
    EXPECT_DOUBLE_EQ(table[3], 1.02e8);

    for (const auto& [stated, calibrated] : {std::pair{8.38e7, 8.2e7},
                                             {static_cast<double>(8.38e7F), 8.2e7},
                                             {16.76e7, 16.4e7},
                                             {8e8, 8.16e8},
                                             {8.5e7, 0.0},
                                             {0.0, 0.0}})
        EXPECT_DOUBLE_EQ(FineCalibrationImport::calibratedPixelSize(table.get(), count, stated), calibrated);
    EXPECT_EQ(FineCalibrationImport::calibratedPixelSize(nullptr, 0, 8e7), 0);
}

TEST(FineCalibration, NamesWhatIsWrong) {
    const std::vector<std::pair<const char*, const char*>> cases = {
        {"# nothing\n", "holds no calibration"},
        {"1e8 1e8\n1e8\n", "line 2: expected two numbers"},
        {"1e8 1e8 1e8\n", "line 1: expected two numbers"},
        {"1e8 -1e8\n", "'-1e8' is not a positive number"},
        {"1e8 nan\n", "'nan' is not a positive number"},
        {"1e8 1e8m\n", "'1e8m' is not a positive number"},
        {"1e8 0.01\n", "factor of 2"},
        {"1e8 1e8\n1.0001e8 1.1e8\n", "line 2: the stated pixel size 1.0001e8 occurs twice"},
    };
    for (const auto& [text, message] : cases) {
        RecordingLogObserver log;
        int count = 7;
        EXPECT_EQ(tableOf(text, &count), nullptr) << text;
        EXPECT_EQ(count, 0);
        EXPECT_TRUE(log.has(message, VRK::Error)) << message;
        EXPECT_EQ(log.messages.size(), 1U);
    }
    RecordingLogObserver log;
    int count = 7;
    EXPECT_EQ(FineCalibrationImport::initFineCalibration(testing::TempDir() + "no such file", &count),
              nullptr);
    EXPECT_TRUE(log.has("Error while opening file. Fine calibration file does not exist.", VRK::Error));
    EXPECT_EQ(FineCalibrationImport::initFineCalibration(testing::TempDir(), &count), nullptr);
}
