/// \file
/// The settings of the reflection search and the cell finding, with flags that say what an edit makes stale.
#pragma once

#include "VRKCoreExport.h"

/// Settings of the stages from reflection search to cell.
///
/// The stages build on each other: reflections, difference vectors, clusters, cell. Each has a change flag
/// that says whether it must run again. A setter raises the flags of the stages that its value enters, and
/// the flag setters raise those of all stages downstream. Setters that test their value ignore one that is
/// out of range; most then raise nothing, the exceptions are noted.
///
/// Lengths and distances are in voxels of the reciprocal volume.
class VRKCORE_EXPORT Parameter {
public:
    /// The values that setDefaultFindPeaksValues() and setDefaultDetermineCellValues() go back to.
    struct StoredDefaults {
        int minCountOfVoxel = 5;
        int maxCountOfVoxel = 100000;
        double threshold = 25.0;
        double minDistToZeroBeam = 25.0;
        double limitOfResolution = 512.0;
        double minLength = 3.0;
        double maxLength = 30.0;
        double DBSCANEps = 3.0;
        double DBSCANMinPts = 20.0;  ///< truncated to an integer when restored
    };

    Parameter();
    /// Sets the first four visualisation flags and traces itself. All other settings have their defaults.
    Parameter(bool showReflexes, bool showDiffVectorsWithoutClusters, bool showDiffVectorsWithClusters,
              bool showOnlyClusters);

    /// \name Defaults
    /// @{

    /// The whole object to its start values, the stored defaults and m and b included. All change flags are
    /// raised, both loaded flags and all visualisation flags cleared.
    void setDefaultValues();
    /// The settings of the reflection search to the stored defaults; raises the reflection flag.
    void setDefaultFindPeaksValues();
    /// The settings of the cell finding to the stored defaults; raises all flags but the reflection flag.
    void setDefaultDetermineCellValues();
    /// Replaces the stored defaults; no setting changes.
    void initDefaultValues(double minDistToZeroBeam, double limitOfResolution, int minCountOfVoxel,
                           int maxCountOfVoxel, double threshold, double minLength, double maxLength,
                           double DBSCANEps, double DBSCANMinPts);
    /// Puts the built-in stored defaults back; no setting changes.
    void loadDefaultValues();
    const StoredDefaults& getStoredDefaults() const { return m_storedDefaults; }
    /// @}

    /// \name Change flags
    /// Each stores its value and raises the flags of all later stages.
    /// @{
    bool getReflexOptionsChanged() const { return m_reflexOptionsChanged; }
    bool getDiffVectorOptionsChanged() const { return m_diffVectorOptionsChanged; }
    bool getClusterOptionsChanged() const { return m_clusterOptionsChanged; }
    bool getCellOptionsChanged() const { return m_cellOptionsChanged; }
    void setReflexOptionsChanged(bool changed);
    void setDiffVectorOptionsChanged(bool changed);
    void setClusterOptionsChanged(bool changed);
    void setCellOptionsChanged(bool changed);
    /// @}

    /// \name Loaded flags
    /// @{
    bool reflectionLoaded() const { return m_reflectionLoaded; }
    bool diffVectorsLoaded() const { return m_diffVectorsLoaded; }
    /// Raises all change flags.
    void setLoadedReflections(bool loaded);
    void setLoadedDiffVectors(bool loaded);
    /// @}

    /// \name Reflection search
    /// Setters raise all change flags, but setLimitOfResolution() raises none.
    /// @{
    int getMinCountOfVoxel() const { return m_minCountOfVoxel; }
    int getMaxCountOfVoxel() const { return m_maxCountOfVoxel; }
    double getThreshold() const { return m_threshold; }
    double getLimitOfResolution() const { return m_limitOfResolution; }
    bool getCutOffZeroBeam() const { return m_cutOffZeroBeam; }
    bool getLimitResolution() const { return m_limitResolution; }
    double getMinDistToZeroBeam() const { return m_minDistToZeroBeam; }
    void setMinCountOfVoxel(int count);
    void setMaxCountOfVoxel(int count);
    void setThreshold(double threshold);
    void setLimitOfResolution(double radius);
    void setCutOffZeroBeam(bool cutOff);
    void setLimitResolution(bool limit);
    /// Positive values only.
    void setMinDistToZeroBeam(double radius);
    /// @}

    /// \name Difference vectors
    /// Setters raise all change flags but the reflection flag.
    /// @{
    bool getDiffVectorCutOff() const { return m_diffVectorCutOff; }
    bool getDiffVectorLimitResolution() const { return m_diffVectorLimitResolution; }
    /// True: of each pair of opposite difference vectors only one is kept.
    bool useHalfDiffVectorSpace() const { return m_useHalfDiffVectorSpace; }
    /// The centre of a reflection: 1 brightest voxel, 2 arithmetical mean, 3 intensity-weighted mean.
    int getWhichReflectionMiddleShouldUsed() const { return m_whichReflectionMiddleShouldUsed; }
    double getMinLength() const { return m_minLength; }
    double getMaxLength() const { return m_maxLength; }
    /// Acts only when the value changes.
    void setDiffVectorCutOff(bool cutOff);
    /// Acts only when the value changes.
    void setDiffVectorLimitResolution(bool limit);
    void setUseHaldDiffVectorSpace(bool half);
    /// 1, 2 or 3 only.
    void setWhichReflectionMiddleShouldUsed(int centerType);
    /// Values from 0 only.
    void setMinLength(double length);
    /// Positive values only.
    void setMaxLength(double length);
    /// @}

    /// \name Clustering
    /// Setters raise the cluster and the cell flag; those of minPts, eps and the refinement share do so
    /// even when they refuse the value.
    /// @{
    bool useDBSCAN() const { return m_useDBSCAN; }
    int getDBSCANMinPts() const { return m_DBSCANMinPts; }
    double getDBSCANEps() const { return m_DBSCANEps; }
    bool getRefineCluster() const { return m_refineCluster; }
    /// Share of each cluster that the pruning uses, in percent.
    double getClusterRefinementPercent() const { return m_clusterRefinementPercent; }
    /// Switches to DBSCAN; false is ignored, once chosen DBSCAN stays.
    void setUseDBSCAN(bool use);
    /// Positive values only.
    void setDBSCANMinPts(int count);
    /// Positive values only.
    void setDBSCANEps(double eps);
    void setRefineCluster(bool refine);
    /// 0 to 100 only.
    void setClusterRefinementPercent(double percent);
    /// @}

    /// \name Cell
    /// Setters raise the cell flag.
    /// @{
    double getAngleA() const { return m_angleA; }
    double getAngleB() const { return m_angleB; }
    double getDetLimit() const { return m_detLimit; }
    int getGridSizeNiggliCell() const { return m_gridSizeNiggliCell; }
    void setAngleA(double limit);
    void setAngleB(double limit);
    void setDetLimit(double limit);
    void setGridSizeNiggliCell(int size);
    /// @}

    /// \name Visualisation and free coefficients
    /// Setters raise nothing.
    /// @{
    bool getShowReflexes() const { return m_showReflexes; }
    bool getShowDiffVectorsWithoutClusters() const { return m_showDiffVectorsWithoutClusters; }
    bool getShowDiffVectorsWithClusters() const { return m_showDiffVectorsWithClusters; }
    bool getShowOnlyClusters() const { return m_showOnlyClusters; }
    bool getShowDetClusterParamEps() const { return m_showDetClusterParamEps; }
    bool getShowDetClusterParamMinPts() const { return m_showDetClusterParamMinPts; }
    bool getShowClusterSizeDistribution() const { return m_showClusterSizeDistribution; }
    double getM() const { return m_m; }
    double getB() const { return m_b; }
    void setShowReflexes(bool show) { m_showReflexes = show; }
    void setShowDiffVectorsWithoutClusters(bool show) { m_showDiffVectorsWithoutClusters = show; }
    void setShowDiffVectorsWithClusters(bool show) { m_showDiffVectorsWithClusters = show; }
    void setShowOnlyClusters(bool show) { m_showOnlyClusters = show; }
    void setShowDetClusterParamEps(bool show) { m_showDetClusterParamEps = show; }
    void setShowDetClusterParamMinPts(bool show) { m_showDetClusterParamMinPts = show; }
    void setShowClusterSizeDistribution(bool show) { m_showClusterSizeDistribution = show; }
    void setM(double m) { m_m = m; }
    void setB(double b) { m_b = b; }
    /// @}

    /// Sends the settings to the log as one message of three sections, one label and value a line.
    void print() const;

private:
    StoredDefaults m_storedDefaults;
    double m_m = 0.0;
    double m_b = 0.0;
    bool m_reflexOptionsChanged = true;
    bool m_diffVectorOptionsChanged = true;
    bool m_clusterOptionsChanged = true;
    bool m_cellOptionsChanged = true;
    bool m_reflectionLoaded = false;
    bool m_diffVectorsLoaded = false;
    int m_minCountOfVoxel = 3;
    int m_maxCountOfVoxel = 100000;
    double m_threshold = 25.0;
    double m_limitOfResolution = 1024.0;
    bool m_cutOffZeroBeam = true;
    bool m_limitResolution = false;
    double m_minDistToZeroBeam = 25.0;
    bool m_diffVectorCutOff = true;
    bool m_diffVectorLimitResolution = true;
    bool m_useHalfDiffVectorSpace = true;
    int m_whichReflectionMiddleShouldUsed = 2;
    double m_minLength = 3.0;
    double m_maxLength = 30.0;
    bool m_useDBSCAN = true;
    int m_DBSCANMinPts = 20;
    double m_DBSCANEps = 3.0;
    bool m_refineCluster = false;
    double m_clusterRefinementPercent = 15.0;
    bool m_showReflexes = false;
    bool m_showDiffVectorsWithoutClusters = false;
    bool m_showDiffVectorsWithClusters = false;
    bool m_showOnlyClusters = false;
    bool m_showDetClusterParamEps = false;
    bool m_showDetClusterParamMinPts = false;
    bool m_showClusterSizeDistribution = false;
    double m_angleA = 0.984;
    double m_angleB = 0.7;
    double m_detLimit = 0.0;
    int m_gridSizeNiggliCell = 5;
};
