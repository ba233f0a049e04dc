#include "VoxCore/IO/DummyCrystal.h"

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "support/Testing.h"

using VRK::DummyCrystal;

// Every node that comes close to a pattern's plane is a maximum there, at the place that its vector says.
TEST(DummyCrystal, SpotsLieWhereTheLatticeVectorsSay) {
    const std::unique_ptr<VoxMRCData> data(VoxMRCFileHandler().createTestDummyMRCFile());
    ASSERT_TRUE(data);
    const auto &a = DummyCrystal::kReciprocalVectors[0], &b = DummyCrystal::kReciprocalVectors[1],
               &c = DummyCrystal::kReciprocalVectors[2];
    int spots = 0;
    for (int z = 0; z < DummyCrystal::kSlices; ++z) {
        const double tilt = data->m_Header.tilt(z) * std::numbers::pi / 180;
        const short* pattern = data->GetChunkPointer(static_cast<unsigned>(z));
        const auto at = [pattern](double x, double y) {
            return pattern[std::lround(y) * DummyCrystal::kWidth + std::lround(x)];
        };
        forEachIndex(3, 3, 3, [&](int h, int k, int l) {
            const double gx = h * a[0] + k * b[0] + l * c[0];
            const double gy = h * a[1] + k * b[1] + l * c[1];
            const double gz = h * a[2] + k * b[2] + l * c[2];
            const double above = gz * std::cos(tilt) - gx * std::sin(tilt);
            if (std::abs(above) > 0.5 || std::hypot(gx, gy, gz) > DummyCrystal::kLastSpot) return;
            const double x = (DummyCrystal::kWidth - 1) / 2.0 + gx * std::cos(tilt) + gz * std::sin(tilt);
            const double y = (DummyCrystal::kHeight - 1) / 2.0 + gy;
            ++spots;
            EXPECT_GT(at(x, y), 120) << "slice " << z << " node " << h << ' ' << k << ' ' << l;
            for (double angle = 0; angle < 6; angle += 1)
                EXPECT_LT(2 * at(x + 4 * std::cos(angle), y + 4 * std::sin(angle)), at(x, y));
        });
    }
    EXPECT_GT(spots, 150);
}

TEST(DummyCrystal, IsASeriesThatReadsBackAsItWasMade) {
    const std::unique_ptr<VoxMRCData> data(VoxMRCFileHandler().createTestDummyMRCFile());
    const std::unique_ptr<VoxMRCData> again(VoxMRCFileHandler().createTestDummyMRCFile());
    EXPECT_TRUE(*data == *again);
    EXPECT_EQ(data->m_Header.type, MRCType::TILT_SERIES);
    EXPECT_EQ(data->m_Header.next, 61 * 144);
    EXPECT_EQ(std::pair(data->m_Header.tilt(0), data->m_Header.tilt(60)), std::pair(-60.0F, 60.0F));
    EXPECT_EQ(data->m_Header.value(SliceValue::PixelSize, 30), data->m_Header.m_pixelsize);
    ASSERT_NE(data->m_Histogram, nullptr);
    EXPECT_EQ(data->m_Header.amax, data->m_Histogram->m_MaxValue);
}
