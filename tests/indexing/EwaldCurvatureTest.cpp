#include "indexing/EwaldCurvature.h"

#include "support/Testing.h"

namespace {

constexpr double kPixelSize = 5.0e7;
constexpr double kPerVoxel = kPixelSize * 1e-10;  // 1/Angstrom

TEST(EwaldCurvatureTest, KnowsWavelengthAndStep) {
    // Tables of electron wavelengths, in Angstrom.
    EXPECT_NEAR(EwaldCurvature::wavelength(100.0), 0.037014, 1e-6);
    EXPECT_NEAR(EwaldCurvature::wavelength(200.0), 0.025079, 1e-6);
    EXPECT_NEAR(EwaldCurvature::wavelength(300.0), 0.019687, 1e-6);
    EXPECT_EQ(EwaldCurvature::wavelength(0.0), 0.0);
    for (const double kiloVolts : {1.0, 80.0, 200.0, 300.0})
        EXPECT_NEAR(EwaldCurvature::kiloVolts(EwaldCurvature::wavelength(kiloVolts)), kiloVolts, 1e-10);
    EXPECT_EQ(EwaldCurvature::kiloVolts(0.0), 0.0);
    const EwaldCurvature curvature(0.02508, kPixelSize);
    const double far[3] = {0.0, 240.0, 0.0};  // 1.2 per Angstrom
    EXPECT_NEAR(curvature.step(far), 1.2 * 1.2 * 0.02508 / 2.0 / kPerVoxel, 1e-9);
    const double onAxis[3] = {0.0, 7.0, 0.0};
    EXPECT_EQ(EwaldCurvature::tiltOf(onAxis), 0.0);
}

}  // namespace
