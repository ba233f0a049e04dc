#include "indexing/ReflectionPositions.h"

#include <gtest/gtest.h>

#include <Eigen/Core>
#include <numbers>
#include <random>

#include "processing/SamplingGeometry.h"
#include "reflections/ReflexOnGrid.h"
#include "reflections/ReflexVector.h"
#include "reflections/TestVolume.h"
#include "reflections/VolumeMath.h"
#include "support/RecordingLogObserver.h"

namespace {

using Eigen::Vector3d;
using Eigen::Vector4d;

/// Place and tilt of a weight at every voxel: those of its samples, relative to the axis.
class PlainSums {
public:
    explicit PlainSums(const SamplingGeometry& geometry) : m_geometry(geometry) {}
    void add(int x, double y, int z, double weight) {
        const auto sample = m_geometry.sample(static_cast<unsigned>(x), static_cast<unsigned>(z));
        if (!sample.inside()) return;
        const double r = m_geometry.meanRadius(sample), t = m_geometry.meanTilt(sample);
        m_sum += weight * Vector4d(r * std::cos(t), y, r * std::sin(t), t);
        m_voxels += weight * Vector4d(x, y, z, 0);
        m_weight += weight;
    }
    Vector4d samples() const { return m_sum / m_weight; }
    Vector4d voxels() const { return m_voxels / m_weight; }

private:
    const SamplingGeometry& m_geometry;
    Vector4d m_sum = Vector4d::Zero(), m_voxels = Vector4d::Zero();
    double m_weight = 0;
};

TEST(ReflectionPositions, AreThoseOfTheSamples) {
    const std::vector<float> tilts = {-41, -20.5F, -3, 4, 19, 40};
    const unsigned width = 40, depth = SamplingGeometry::depthOf(width, tilts);
    const SamplingGeometry geometry(width, tilts, depth);
    const Vector4d centre(19.5, 0, 0.5 * (depth - 1.0), 0);
    const auto volume = makeVolume({30, width, depth});
    VolumeMath::setZeroCompareValue(1);
    std::mt19937 random(5);
    for (const auto& [x, y, z] : {std::array{33, 12, 17}, {6, 20, 15}, {31, 5, 6}})
        for (int i = 0; i < 27; ++i)
            setVoxel(*volume, static_cast<unsigned>(x + i % 3), static_cast<unsigned>(y + i / 3 % 3),
                     static_cast<unsigned>(z + i / 9), static_cast<short>(1 + random() % 500));
    ReflexVectorPtr list(new ReflexVector);
    for (const auto& [x, y, z] : {std::array{33, 12, 17}, {6, 20, 15}, {31, 5, 6}})
        list->push_back(new ReflexOnGrid(x, y, z, volume.get(), false, nullptr));
    list->push_back(nullptr);
    list->push_back(new Reflex(8.25, 11, 13.5));
    list->back()->setHKL(1, -2, 3);
    list->back()->setIntensity(70);

    std::vector<double> tilt;
    const ReflexVectorPtr exact(ReflectionPositions::fromSamples(list.get(), geometry, &tilt));
    std::vector<double> tiltOfCentre;
    const ReflexVectorPtr near(ReflectionPositions::fromCenters(list.get(), 1, geometry, &tiltOfCentre));
    ASSERT_EQ(exact->size(), 5U);
    const auto expectAt = [](Reflex& found, const Vector4d& place, double seen) {
        for (int axis = 0; axis < 3; ++axis)
            EXPECT_NEAR(found.getCenter(axis), place[axis], 1e-9) << axis;
        EXPECT_NEAR(seen, place[3], 1e-9);
    };
    for (const std::size_t i : {0U, 1U, 2U, 4U}) {
        SCOPED_TRACE(i);
        Reflex& reflex = *(*list)[i];
        PlainSums own(geometry), around(geometry);
        if (i < 3)
            for (const int index : *reflex.getPoints()) {
                const int y = index % 30, x = index / 30 % 40, z = index / 1200;
                own.add(x, y, z, volume->GetChunkPointer(static_cast<unsigned>(z))[x * 30 + y]);
            }
        const Vector4d at(reflex.getCenter(0, 1), reflex.getCenter(1, 1), reflex.getCenter(2, 1), 0);
        for (int x = static_cast<int>(std::lround(at[0])) - 2, i25 = 0; i25 < 25; ++i25) {
            const int u = x + i25 / 5, w = static_cast<int>(std::lround(at[2])) - 2 + i25 % 5;
            around.add(u, 0, w, std::exp(-0.5 * (std::pow(u - at[0], 2) + std::pow(w - at[2], 2))));
        }
        const Vector4d straight(at[0], at[1], at[2], std::atan((at[2] - centre[2]) / (at[0] - centre[0])));
        expectAt(*(*exact)[i], i < 3 ? own.samples() + centre : straight, tilt[i]);
        expectAt(*(*near)[i], at + around.samples() + centre - around.voxels(), tiltOfCentre[i]);
    }
    EXPECT_EQ((*exact)[3], nullptr);
    EXPECT_EQ(tilt[3], 0);
    EXPECT_EQ((*exact)[4]->getK(), -2);
    EXPECT_EQ((*exact)[4]->getIntensity(), 70);
    const double origin[3] = {8.25, 0, 12.5};
    const ReflexVectorPtr copies(ReflectionPositions::copies(list.get(), 2, origin, &tilt));
    expectAt(*(*copies)[4], {8.25, 11, 13.5, std::numbers::pi / 2}, tilt[4]);
    RecordingLogObserver log;
    EXPECT_EQ(ReflectionPositions::copies(nullptr, 2, origin, &tilt), nullptr);
    EXPECT_TRUE(tilt.empty());
    EXPECT_TRUE(log.has("there is no list of reflections", VRK::Error));
}

}  // namespace
