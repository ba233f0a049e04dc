#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>

#include "processing/FineCalibrationImport.h"
#include "support/RecordingLogObserver.h"

namespace {

/// A file of the given text, removed at the end.
class TemporaryFile {
public:
    explicit TemporaryFile(const std::string& text) : m_path(testing::TempDir() + "fine_calibration.txt") {
        std::ofstream(m_path, std::ios::binary) << text;
    }
    ~TemporaryFile() { std::remove(m_path.c_str()); }
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;
    const std::string& path() const { return m_path; }

private:
    std::string m_path;
};

}  // namespace

TEST(FineCalibration, ReadsPairsAndFindsTheOneOfASeries) {
    const TemporaryFile file("# stated calibrated\n8.38e7\t8.2e7  # 0.8 m\r\n\n  1e8 1.02e8");
    int count = -1;
    const std::unique_ptr<double[]> table(FineCalibrationImport::initFineCalibration(file.path(), &count));
    ASSERT_EQ(count, 4);
    EXPECT_DOUBLE_EQ(table[0], 8.38e7);
    EXPECT_DOUBLE_EQ(table[3], 1.02e8);

    struct Case {
        double stated, calibrated;
    };
    for (const Case& c : {Case{8.38e7, 8.2e7}, Case{static_cast<double>(8.38e7F), 8.2e7},
                          Case{16.76e7, 16.4e7}, Case{8e8, 8.16e8}, Case{8.5e7, 0}, Case{0, 0}})
        EXPECT_DOUBLE_EQ(FineCalibrationImport::calibratedPixelSize(table.get(), count, c.stated),
                         c.calibrated);
    EXPECT_EQ(FineCalibrationImport::calibratedPixelSize(nullptr, 0, 8e7), 0);
}

TEST(FineCalibration, NamesWhatIsWrong) {
    struct Case {
        const char* text;
        const char* message;
    };
    const std::vector<Case> cases = {
        {"# nothing\n", "holds no calibration"},
        {"1e8 1e8\n1e8\n", "line 2: expected two numbers"},
        {"1e8 1e8 1e8\n", "line 1: expected two numbers"},
        {"1e8 -1e8\n", "'-1e8' is not a positive number"},
        {"1e8 nan\n", "'nan' is not a positive number"},
        {"1e8 1e8m\n", "'1e8m' is not a positive number"},
        {"1e8 0.01\n", "factor of 2"},
        {"1e8 1e8\n1.0001e8 1.1e8\n", "line 2: the stated pixel size 1.0001e8 occurs twice"},
    };
    for (const Case& c : cases) {
        const TemporaryFile file(c.text);
        RecordingLogObserver log;
        int count = 7;
        EXPECT_EQ(FineCalibrationImport::initFineCalibration(file.path(), &count), nullptr) << c.text;
        EXPECT_EQ(count, 0);
        EXPECT_TRUE(log.has(c.message, VRK::Error)) << c.message;
        EXPECT_EQ(log.messages.size(), 1U);
    }
    RecordingLogObserver log;
    int count = 7;
    EXPECT_EQ(FineCalibrationImport::initFineCalibration(testing::TempDir() + "no such file", &count),
              nullptr);
    EXPECT_TRUE(log.has("Error while opening file. Fine calibration file does not exist.", VRK::Error));
    EXPECT_EQ(FineCalibrationImport::initFineCalibration(testing::TempDir(), &count), nullptr);
}
