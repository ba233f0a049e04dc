#include "cellfinding/Parameter.h"

#include "support/Testing.h"

#include <type_traits>

namespace {

/// The raised change flags by letters: reflections R, difference vectors D, clusters C, cell Z.
std::string raised(const Parameter& p) {
    return std::string(p.getReflexOptionsChanged() ? "R" : "") +
           (p.getDiffVectorOptionsChanged() ? "D" : "") + (p.getClusterOptionsChanged() ? "C" : "") +
           (p.getCellOptionsChanged() ? "Z" : "");
}

/// A parameter set without a raised flag, as after a run of all stages.
Parameter settled() {
    Parameter p;
    p.setReflexOptionsChanged(false);
    p.setDiffVectorOptionsChanged(false);
    p.setClusterOptionsChanged(false);
    p.setCellOptionsChanged(false);
    return p;
}

struct ParameterCase {
    std::function<void(Parameter&)> set;
    std::function<double(const Parameter&)> get;
    double value;  ///< after the setter
    std::string flags;
};

template <typename T>
ParameterCase after(void (Parameter::*set)(T), std::type_identity_t<T> argument, T (Parameter::*get)() const,
                    double value, const char* flags) {
    return {[=](Parameter& p) { (p.*set)(argument); },
            [=](const Parameter& p) { return static_cast<double>((p.*get)()); }, value, flags};
}

TEST(Parameter, SettersStoreOrRefuseAndRaiseTheStagesDownstream) {
    using P = Parameter;
    constexpr double nan = std::numeric_limits<double>::quiet_NaN();
    const ParameterCase cases[] = {
        after(&P::setMinCountOfVoxel, -7, &P::getMinCountOfVoxel, -7, "RDCZ"),
        after(&P::setMaxCountOfVoxel, 7, &P::getMaxCountOfVoxel, 7, "RDCZ"),
        after(&P::setThreshold, -1.5, &P::getThreshold, -1.5, "RDCZ"),
        after(&P::setCutOffZeroBeam, false, &P::getCutOffZeroBeam, 0, "RDCZ"),
        after(&P::setLimitResolution, true, &P::getLimitResolution, 1, "RDCZ"),
        after(&P::setLimitOfResolution, 5.0, &P::getLimitOfResolution, 5, ""),
        after(&P::setMinDistToZeroBeam, 0.5, &P::getMinDistToZeroBeam, 0.5, "RDCZ"),
        after(&P::setMinDistToZeroBeam, 0.0, &P::getMinDistToZeroBeam, 25, ""),
        after(&P::setMinLength, 0.0, &P::getMinLength, 0, "DCZ"),
        after(&P::setMinLength, -1.0, &P::getMinLength, 3, ""),
        after(&P::setMinLength, nan, &P::getMinLength, 3, ""),
        after(&P::setMaxLength, 1.0, &P::getMaxLength, 1, "DCZ"),
        after(&P::setMaxLength, 0.0, &P::getMaxLength, 30, ""),
        after(&P::setDiffVectorCutOff, true, &P::getDiffVectorCutOff, 1, ""),
        after(&P::setDiffVectorCutOff, false, &P::getDiffVectorCutOff, 0, "DCZ"),
        after(&P::setDiffVectorLimitResolution, true, &P::getDiffVectorLimitResolution, 1, ""),
        after(&P::setDiffVectorLimitResolution, false, &P::getDiffVectorLimitResolution, 0, "DCZ"),
        after(&P::setWhichReflectionMiddleShouldUsed, 3, &P::getWhichReflectionMiddleShouldUsed, 3, "DCZ"),
        after(&P::setWhichReflectionMiddleShouldUsed, 0, &P::getWhichReflectionMiddleShouldUsed, 2, ""),
        after(&P::setWhichReflectionMiddleShouldUsed, 4, &P::getWhichReflectionMiddleShouldUsed, 2, ""),
        after(&P::setUseHaldDiffVectorSpace, true, &P::useHalfDiffVectorSpace, 1, "DCZ"),
        after(&P::setUseDBSCAN, false, &P::useDBSCAN, 1, ""),
        after(&P::setUseDBSCAN, true, &P::useDBSCAN, 1, "CZ"),
        after(&P::setDBSCANMinPts, 4, &P::getDBSCANMinPts, 4, "CZ"),
        after(&P::setDBSCANMinPts, 0, &P::getDBSCANMinPts, 20, "CZ"),
        after(&P::setDBSCANEps, 0.5, &P::getDBSCANEps, 0.5, "CZ"),
        after(&P::setDBSCANEps, nan, &P::getDBSCANEps, 3, "CZ"),
        after(&P::setRefineCluster, true, &P::getRefineCluster, 1, "CZ"),
        after(&P::setClusterRefinementPercent, 100.0, &P::getClusterRefinementPercent, 100, "CZ"),
        after(&P::setClusterRefinementPercent, 100.5, &P::getClusterRefinementPercent, 15, "CZ"),
        after(&P::setAngleA, 0.5, &P::getAngleA, 0.5, "Z"),
        after(&P::setAngleB, 0.5, &P::getAngleB, 0.5, "Z"),
        after(&P::setDetLimit, 0.5, &P::getDetLimit, 0.5, "Z"),
        after(&P::setGridSizeNiggliCell, 2, &P::getGridSizeNiggliCell, 2, "Z"),
        after(&P::setReflexOptionsChanged, false, &P::getReflexOptionsChanged, 0, "DCZ"),
        after(&P::setDiffVectorOptionsChanged, false, &P::getDiffVectorOptionsChanged, 0, "CZ"),
        after(&P::setClusterOptionsChanged, false, &P::getClusterOptionsChanged, 0, "Z"),
        after(&P::setCellOptionsChanged, true, &P::getCellOptionsChanged, 1, "Z"),
        after(&P::setLoadedReflections, true, &P::reflectionLoaded, 1, "RDCZ"),
    };
    for (std::size_t i = 0; i < std::size(cases); ++i) {
        Parameter p = settled();
        ASSERT_EQ(raised(p), "");
        cases[i].set(p);
        EXPECT_EQ(cases[i].get(p), cases[i].value) << "row " << i;
        EXPECT_EQ(raised(p), cases[i].flags) << "row " << i;
    }
}

TEST(Parameter, GoesBackToTheStoredDefaultsByGroups) {
    Parameter p = settled();
    EXPECT_EQ(p.getMinCountOfVoxel(), 3);
    EXPECT_EQ(p.getLimitOfResolution(), 1024.0);
    p.setDefaultFindPeaksValues();
    EXPECT_EQ(raised(p), "R");
    EXPECT_EQ(p.getMinCountOfVoxel(), 5);
    EXPECT_EQ(p.getLimitOfResolution(), 512.0);

    p = settled();
    p.initDefaultValues(1, 2, 3, 4, 5, 6, 7, 8, 9.9);
    p.setWhichReflectionMiddleShouldUsed(1);
    p.setDiffVectorCutOff(false);
    p.setDefaultFindPeaksValues();
    p.setDefaultDetermineCellValues();
    const std::array<double, 9> values = {p.getMinDistToZeroBeam(),
                                          p.getLimitOfResolution(),
                                          1.0 * p.getMinCountOfVoxel(),
                                          1.0 * p.getMaxCountOfVoxel(),
                                          p.getThreshold(),
                                          p.getMinLength(),
                                          p.getMaxLength(),
                                          p.getDBSCANEps(),
                                          1.0 * p.getDBSCANMinPts()};
    EXPECT_EQ(values, (std::array<double, 9>{1, 2, 3, 4, 5, 6, 7, 8, 9}));
    EXPECT_EQ(p.getWhichReflectionMiddleShouldUsed(), 2);
    EXPECT_TRUE(p.getDiffVectorCutOff());

    p.loadDefaultValues();
    p.setDefaultDetermineCellValues();
    EXPECT_EQ(p.getMaxLength(), 30.0);
    p.setM(4);
    p.setDefaultValues();
    EXPECT_EQ(p.getM(), 0.0);
    EXPECT_EQ(p.getMinCountOfVoxel(), 3);
}

TEST(Parameter, TakesVisualisationFlagsAndTracesItself) {
    RecordingLogObserver log;
    const Parameter p(true, false, true, false);
    EXPECT_TRUE(p.getShowReflexes() && p.getShowDiffVectorsWithClusters());
    EXPECT_FALSE(p.getShowDiffVectorsWithoutClusters() || p.getShowOnlyClusters());
    EXPECT_EQ(raised(p), "RDCZ");
    ASSERT_EQ(log.messages.size(), 2U);
    EXPECT_EQ(log.messages[1].text, "<< constructor Parameter");
    p.print();
    EXPECT_TRUE(log.has("Reflexfindungsparameter: \n", VRK::Normal));
    EXPECT_TRUE(log.has("\nThreshold: 25\n", VRK::Normal));
    EXPECT_TRUE(log.has("\nNur die Cluster anzeigen: 0\n", VRK::Normal));
}

}  // namespace
