#include "indexing/ReflectionPositions.h"

#include <Eigen/Core>

#include "processing/SamplingGeometry.h"
#include "reflections/ReflexOnGrid.h"
#include "reflections/ReflexVector.h"
#include "reflections/TestVolume.h"
#include "reflections/VolumeMath.h"

namespace {

using Eigen::Vector4d;  // a place and a tilt

TEST(ReflectionPositions, AreThoseOfTheSamples) {
    const std::vector<float> tilts = {-41, -20.5F, -3, 4, 19, 40};
    const unsigned width = 40, depth = SamplingGeometry::depthOf(width, tilts);
    const SamplingGeometry geometry(width, tilts, depth);
    const Vector4d centre(19.5, 0, 0.5 * (depth - 1.0), 0);
    const auto volume = makeVolume({30, width, depth});
    VolumeMath::setZeroCompareValue(1);
    std::mt19937 random(5);
    const std::vector<std::array<int, 3>> corners = {{33, 12, 17}, {6, 20, 15}, {31, 5, 6}};
    const ReflexVectorPtr list(new ReflexVector);
    for (const auto& [x, y, z] : corners) {
        for (int i = 0; i < 27; ++i)
            setVoxel(*volume, static_cast<unsigned>(x + i % 3), static_cast<unsigned>(y + i / 3 % 3),
                     static_cast<unsigned>(z + i / 9), static_cast<short>(1 + random() % 500));
        list->push_back(new ReflexOnGrid(x, y, z, volume.get(), false, nullptr));
    }
    list->push_back(nullptr);
    list->push_back(new Reflex(8.25, 11, 13.5));
    list->back()->setHKL(1, -2, 3);
    list->back()->setIntensity(70);

    std::vector<double> tilt, tiltOfCentre;
    const ReflexVectorPtr exact(ReflectionPositions::fromSamples(list.get(), geometry, &tilt));
    const ReflexVectorPtr near(ReflectionPositions::fromCenters(list.get(), 1, geometry, &tiltOfCentre));
    const auto expectAt = [](Reflex& found, double seen, const Vector4d& place) {
        const Vector4d at(found.getCenter(0), found.getCenter(1), found.getCenter(2), seen);
        EXPECT_LT((at - place).norm(), 1e-9) << at << "\n\n" << place;
    };
    for (const std::size_t i : {0U, 1U, 2U, 4U}) {
        Reflex& reflex = *(*list)[i];
        const auto add = [&](Vector4d& sum, double& all, int x, int y, int z, double weight, bool voxel) {
            const auto sample = geometry.sample(static_cast<unsigned>(x), static_cast<unsigned>(z));
            if (!sample.inside()) return;
            const double r = geometry.meanRadius(sample), t = geometry.meanTilt(sample);
            sum += weight * (Vector4d(r * std::cos(t), y, r * std::sin(t), t) + centre);
            if (voxel) sum -= weight * Vector4d(x, y, z, 0);
            all += weight;
        };
        const Vector4d at(reflex.getCenter(0, 1), reflex.getCenter(1, 1), reflex.getCenter(2, 1), 0);
        Vector4d own = Vector4d::Zero(), around = own;
        double ownSum = 0, sum = 0;
        for (int n = 0; i < 3 && n < 27; ++n) {
            const int x = corners[i][0] + n % 3, y = corners[i][1] + n / 3 % 3, z = corners[i][2] + n / 9;
            add(own, ownSum, x, y, z, volume->GetChunkPointer(static_cast<unsigned>(z))[x * 30 + y], false);
        }
        for (int n = 0; n < 25; ++n) {
            const int x = int(std::lround(at[0])) + n / 5 - 2, z = int(std::lround(at[2])) + n % 5 - 2;
            add(around, sum, x, 0, z, std::exp(-std::pow(std::hypot(x - at[0], z - at[2]), 2) / 2), true);
        }
        const Vector4d tilted(0, 0, 0, std::atan((at[2] - centre[2]) / (at[0] - centre[0])));
        expectAt(*(*exact)[i], tilt[i], i < 3 ? Vector4d(own / ownSum) : Vector4d(at + tilted));
        expectAt(*(*near)[i], tiltOfCentre[i], at + around / sum);
    }
    EXPECT_EQ((*exact)[3], nullptr);
    EXPECT_EQ(tilt[3], 0);
    EXPECT_EQ((*exact)[4]->getK(), -2);
    EXPECT_EQ((*exact)[4]->getIntensity(), 70);
    const double origin[3] = {8.25, 0, 12.5};
    const ReflexVectorPtr copies(ReflectionPositions::copies(list.get(), 2, origin, &tilt));
    expectAt(*(*copies)[4], tilt[4], {8.25, 11, 13.5, std::numbers::pi / 2});
    RecordingLogObserver log;
    EXPECT_EQ(ReflectionPositions::copies(nullptr, 2, origin, &tilt), nullptr);
    EXPECT_TRUE(tilt.empty() && log.has("there is no list of reflections", VRK::Error));
}

}  // namespace
