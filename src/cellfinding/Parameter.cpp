#include "cellfinding/Parameter.h"

#include <limits>
#include <sstream>

#include "foundation/VRKLogger.h"

namespace {

/// Towards zero; values beyond the range of int end at its bounds.
int truncated(double value) {
    constexpr int lowest = std::numeric_limits<int>::min();
    constexpr int highest = std::numeric_limits<int>::max();
    if (value >= highest) return highest;
    return value > lowest ? static_cast<int>(value) : lowest;
}

}  // namespace

Parameter::Parameter() = default;

Parameter::Parameter(bool showReflexes, bool showDiffVectorsWithoutClusters, bool showDiffVectorsWithClusters,
                     bool showOnlyClusters)
    : m_showReflexes(showReflexes),
      m_showDiffVectorsWithoutClusters(showDiffVectorsWithoutClusters),
      m_showDiffVectorsWithClusters(showDiffVectorsWithClusters),
      m_showOnlyClusters(showOnlyClusters) {
    VRKLogger* logger = VRKLogger::getInstance();
    logger->log(">> constructor Parameter", VRK::Debug, VRK::ObjectControl);
    logger->log("<< constructor Parameter", VRK::Debug, VRK::ObjectControl);
}

void Parameter::setDefaultValues() {
    *this = Parameter();
}

void Parameter::setDefaultFindPeaksValues() {
    m_threshold = m_storedDefaults.threshold;
    m_minCountOfVoxel = m_storedDefaults.minCountOfVoxel;
    m_maxCountOfVoxel = m_storedDefaults.maxCountOfVoxel;
    m_minDistToZeroBeam = m_storedDefaults.minDistToZeroBeam;
    m_limitOfResolution = m_storedDefaults.limitOfResolution;
    m_cutOffZeroBeam = true;
    m_limitResolution = false;
    m_reflexOptionsChanged = true;
}

void Parameter::setDefaultDetermineCellValues() {
    const Parameter start;
    m_minLength = m_storedDefaults.minLength;
    m_maxLength = m_storedDefaults.maxLength;
    m_DBSCANEps = m_storedDefaults.DBSCANEps;
    m_DBSCANMinPts = truncated(m_storedDefaults.DBSCANMinPts);
    m_diffVectorCutOff = start.m_diffVectorCutOff;
    m_diffVectorLimitResolution = start.m_diffVectorLimitResolution;
    m_useHalfDiffVectorSpace = start.m_useHalfDiffVectorSpace;
    m_useDBSCAN = start.m_useDBSCAN;
    m_whichReflectionMiddleShouldUsed = start.m_whichReflectionMiddleShouldUsed;
    m_angleA = start.m_angleA;
    m_angleB = start.m_angleB;
    m_detLimit = start.m_detLimit;
    m_gridSizeNiggliCell = start.m_gridSizeNiggliCell;
    m_clusterRefinementPercent = start.m_clusterRefinementPercent;
    m_refineCluster = start.m_refineCluster;
    setDiffVectorOptionsChanged(true);
}

void Parameter::initDefaultValues(double minDistToZeroBeam, double limitOfResolution, int minCountOfVoxel,
                                  int maxCountOfVoxel, double threshold, double minLength, double maxLength,
                                  double DBSCANEps, double DBSCANMinPts) {
    m_storedDefaults = {.minCountOfVoxel = minCountOfVoxel,
                        .maxCountOfVoxel = maxCountOfVoxel,
                        .threshold = threshold,
                        .minDistToZeroBeam = minDistToZeroBeam,
                        .limitOfResolution = limitOfResolution,
                        .minLength = minLength,
                        .maxLength = maxLength,
                        .DBSCANEps = DBSCANEps,
                        .DBSCANMinPts = DBSCANMinPts};
}

void Parameter::loadDefaultValues() {
    m_storedDefaults = StoredDefaults{};
}

void Parameter::setReflexOptionsChanged(bool changed) {
    m_reflexOptionsChanged = changed;
    setDiffVectorOptionsChanged(true);
}

void Parameter::setDiffVectorOptionsChanged(bool changed) {
    m_diffVectorOptionsChanged = changed;
    setClusterOptionsChanged(true);
}

void Parameter::setClusterOptionsChanged(bool changed) {
    m_clusterOptionsChanged = changed;
    setCellOptionsChanged(true);
}

void Parameter::setCellOptionsChanged(bool changed) {
    m_cellOptionsChanged = changed;
}

void Parameter::setLoadedReflections(bool loaded) {
    m_reflectionLoaded = loaded;
    setReflexOptionsChanged(true);
}

void Parameter::setLoadedDiffVectors(bool loaded) {
    m_diffVectorsLoaded = loaded;
}

void Parameter::setMinCountOfVoxel(int count) {
    m_minCountOfVoxel = count;
    setReflexOptionsChanged(true);
}

void Parameter::setMaxCountOfVoxel(int count) {
    m_maxCountOfVoxel = count;
    setReflexOptionsChanged(true);
}

void Parameter::setThreshold(double threshold) {
    m_threshold = threshold;
    setReflexOptionsChanged(true);
}

void Parameter::setLimitOfResolution(double radius) {
    m_limitOfResolution = radius;
}

void Parameter::setCutOffZeroBeam(bool cutOff) {
    m_cutOffZeroBeam = cutOff;
    setReflexOptionsChanged(true);
}

void Parameter::setLimitResolution(bool limit) {
    m_limitResolution = limit;
    setReflexOptionsChanged(true);
}

void Parameter::setMinDistToZeroBeam(double radius) {
    if (!(radius > 0.0)) return;
    m_minDistToZeroBeam = radius;
    setReflexOptionsChanged(true);
}

void Parameter::setDiffVectorCutOff(bool cutOff) {
    if (cutOff == m_diffVectorCutOff) return;
    m_diffVectorCutOff = cutOff;
    setDiffVectorOptionsChanged(true);
}

void Parameter::setDiffVectorLimitResolution(bool limit) {
    if (limit == m_diffVectorLimitResolution) return;
    m_diffVectorLimitResolution = limit;
    setDiffVectorOptionsChanged(true);
}

void Parameter::setUseHaldDiffVectorSpace(bool half) {
    m_useHalfDiffVectorSpace = half;
    setDiffVectorOptionsChanged(true);
}

void Parameter::setWhichReflectionMiddleShouldUsed(int centerType) {
    if (centerType < 1 || centerType > 3) return;
    m_whichReflectionMiddleShouldUsed = centerType;
    setDiffVectorOptionsChanged(true);
}

void Parameter::setMinLength(double length) {
    if (!(length >= 0.0)) return;
    m_minLength = length;
    setDiffVectorOptionsChanged(true);
}

void Parameter::setMaxLength(double length) {
    if (!(length > 0.0)) return;
    m_maxLength = length;
    setDiffVectorOptionsChanged(true);
}

void Parameter::setUseDBSCAN(bool use) {
    if (!use) return;
    m_useDBSCAN = true;
    setClusterOptionsChanged(true);
}

void Parameter::setDBSCANMinPts(int count) {
    if (count > 0) m_DBSCANMinPts = count;
    setClusterOptionsChanged(true);
}

void Parameter::setDBSCANEps(double eps) {
    if (eps > 0.0) m_DBSCANEps = eps;
    setClusterOptionsChanged(true);
}

void Parameter::setRefineCluster(bool refine) {
    m_refineCluster = refine;
    setClusterOptionsChanged(true);
}

void Parameter::setClusterRefinementPercent(double percent) {
    if (percent >= 0.0 && percent <= 100.0) m_clusterRefinementPercent = percent;
    setClusterOptionsChanged(true);
}

void Parameter::setAngleA(double limit) {
    m_angleA = limit;
    setCellOptionsChanged(true);
}

void Parameter::setAngleB(double limit) {
    m_angleB = limit;
    setCellOptionsChanged(true);
}

void Parameter::setDetLimit(double limit) {
    m_detLimit = limit;
    setCellOptionsChanged(true);
}

void Parameter::setGridSizeNiggliCell(int size) {
    m_gridSizeNiggliCell = size;
    setCellOptionsChanged(true);
}

void Parameter::print() const {
    std::ostringstream text;
    text << "Reflexfindungsparameter: \n"
         << "Minimale Anzahl an Voxel pro Reflex: " << m_minCountOfVoxel << '\n'
         << "Maximale Anzahl an Voxel pro Reflex: " << m_maxCountOfVoxel << '\n'
         << "Threshold: " << m_threshold << '\n'
         << "Mittelpunkt herausschneiden: " << m_cutOffZeroBeam << '\n'
         << "Min. Distanz zur Mitte: " << m_minDistToZeroBeam << '\n'
         << "Zellfindungsparameter: \n"
         << "Use half difference vector space: " << m_useHalfDiffVectorSpace << '\n'
         << "Min. length: " << m_minLength << '\n'
         << "Max. length: " << m_maxLength << '\n'
         << "Benutze DBSCAN Clustering: " << m_useDBSCAN << '\n'
         << "Minimum an Punkten: " << m_DBSCANMinPts << '\n'
         << "Epsilon: " << m_DBSCANEps << '\n'
         << "Winkel A: " << m_angleA << '\n'
         << "Winkel B: " << m_angleB << '\n'
         << "Det. Limit: " << m_detLimit << '\n'
         << "Gittergroesse: " << m_gridSizeNiggliCell << '\n'
         << "Visualisierungsoptionen: \n"
         << "Gefundene Reflexe anzeigen: " << m_showReflexes << '\n'
         << "Differenzvektoren ohne Cluster anzeigen: " << m_showDiffVectorsWithoutClusters << '\n'
         << "Differenzvektoren mit Cluster anzeigen: " << m_showDiffVectorsWithClusters << '\n'
         << "Nur die Cluster anzeigen: " << m_showOnlyClusters << '\n';
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}
