/// \file
/// The search for the angle of the tilt axis.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "VRKCoreExport.h"
#include "foundation/VRKLogger.h"
#include "foundation/VoxProgressObserver.h"
#include "reflections/ReflexVector.h"
#include "tiltaxis/TiltAxisScore.h"

class VoxMRCData;

/// Tries candidate angles and keeps the one that makes the lattice sharpest.
///
/// With a wrong angle every pattern enters the volume turned in its plane, so that equal lattice vectors
/// come out with directions that depend on the tilt at which they were recorded. The score of a
/// candidate is the variance of the counts in the histogram of the directions of all difference vectors
/// (VRKSphericalProjection, 512 x 512 bins): it is largest where equal vectors agree.
///
/// The angle is the one that VoxMRCstemProcessing::step3_Rotation2TiltAxis() takes: the axis lies along
/// (-sin t, cos t), x to the right and y down the file. An axis is a line: t and t + 180 name the same one
/// (docs/conventions.md tells what differs), and the range that is scanned is not clamped, so angles beyond
/// +-90 degrees may come back.
///
/// Two routes lead to the reflections. The three-dimensional one turns the series, reconstructs the volume
/// and searches it (FindReflexes). The two-dimensional one finds the spots of the patterns once
/// (FindReflexes2d) and, for every candidate, turns them, places them in reciprocal space and merges those of
/// successive patterns; it needs no reconstruction and is the faster one.
///
/// What is evaluated. The series has to be preprocessed: hot spots removed, centred, background subtracted,
/// tilts ascending. Of the 3-D route:
/// - frames that are not square are padded, and series wider than 256 pixels are halved until they are not;
/// - the reflection search has the fixed threshold of 125, so the series that is evaluated is smoothed and
///   multiplied by a factor that brings a level above its noise to that threshold, however weak or bright
///   it is: the level, among some that follow from the heights of the spots, at which trial volumes show
///   about a thousand reflections, or as many as there are before neighbours grow together (where single
///   patterns show no spots, the level follows from their brightest pixels instead);
/// - the plain variance also grows with the number of reflections, which the angle changes, so the same
///   number of the most intense ones takes part at every angle: four fifths of what trial volumes show.
///
/// The 2-D route takes the series as it is. In both, 1500 reflections at most take part in the difference
/// vectors (longer than 30.5 and shorter than 1000 voxels or pixels): the memory is quadratic in their
/// number, and does not grow with that of the angles.
///
/// Accuracy. On simulated series with noise of 128 to 512 pixels, and an accuracy of 0.1, the parabola that
/// the host lays through the scores was right to 0.05 degrees by the 2-D route (0.1 with fewer than a hundred
/// reflections or a tilt range of 50 degrees) and to 0.2 by the 3-D route. That one needs some hundred
/// reflections which stand apart in the volume; on dense or weak patterns its scores show no clear peak.
/// Prefer the 2-D route unless the spots of single patterns are too weak.
///
/// What a search returns is kNoAngle, with an error in the log, when there is nothing to evaluate (no
/// series, one pattern, an empty one, tilts that do not ascend), when the folder is missing or cannot be
/// written, and when no candidate gave a score. So it is when the progress observer asks to stop, which is
/// looked at in the preparation, too, and before every angle; scores() then still tells what was tried.
///
/// Into the folder go "diffVectorHistogramm_RotAngle_" + angle + ".png", the equalised histogram of each
/// candidate, and into its subfolder name + "_searchTiltAxis_plots" the scores of all candidates as data,
/// gnuplot script and picture, one for each series of the statistics: all angles above those about the peak.
///
/// \code
/// VRKTiltAxisRefinement search;
/// const float angle = search.searchTiltAxisAutomated3D(series, "crystal", "results", 0.1);
/// if (angle != VRKTiltAxisRefinement::kNoAngle) ...
/// \endcode
class VRKCORE_EXPORT VRKTiltAxisRefinement : public VoxProgressObservable {
public:
    /// Returned when there is no angle.
    static constexpr float kNoAngle = 777777.75F;

    VRKTiltAxisRefinement();
    virtual ~VRKTiltAxisRefinement();
    VRKTiltAxisRefinement(const VRKTiltAxisRefinement&) = delete;
    VRKTiltAxisRefinement& operator=(const VRKTiltAxisRefinement&) = delete;

    /// \name Searches
    /// \param tiltSeries            preprocessed; not changed
    /// \param name                  of the series, for the names of files; may be empty
    /// \param folderName2SaveResults  an existing folder
    /// \return the best of the angles tried, in degrees
    /// @{

    /// First -90 ... 90 degrees in steps of 5, then ten steps to either side of the best angle in steps of 1,
    /// 0.1, ... down to the accuracy; at least in steps of 1. An accuracy below 1e-4 counts as 1e-4, one that
    /// is not a number as 1.
    float searchTiltAxisAutomated3D(VoxMRCData* tiltSeries, std::string name,
                                    std::string folderName2SaveResults, double angularAccuracy);
    /// The same by the two-dimensional route.
    float searchTiltAxis2dBruteForce(VoxMRCData* tiltSeries, std::string name,
                                     std::string folderName2SaveResults, double angularAccuracy);
    /// The angles start, start + stepsize, ... up to end, which belongs to the range. kNoAngle when the step
    /// is not positive, end lies below start, or there are more than 100000 angles.
    float searchTiltAxisManual3D(VoxMRCData* tiltSeries, std::string name, std::string folderName2SaveResults,
                                 double start, double end, double stepsize);
    /// The same by the two-dimensional route.
    float searchTiltAxisManual2D(VoxMRCData* tiltSeries, std::string name, std::string folderName2SaveResults,
                                 double start, double end, double stepsize);
    /// @}

    /// Whether the latest search had a series and a folder that it could work with.
    bool accepted() const { return m_accepted; }
    /// The candidates of the latest search in the order of their evaluation.
    const std::vector<TiltAxisScore>& scores() const { return m_scores; }

protected:
    /// Scores the angles of one range, in their order, and records the scores. A host that spreads the work
    /// over processes overrides it: the score of an angle depends on that angle alone, so it may call
    /// scoreAngle() anywhere and has to call beginAngle() and recordScore() for every angle, in this order,
    /// in the process of the search. The outcome is then the same.
    virtual void evaluateAngles(const std::vector<float>& angles, const std::string& name, bool mode3D);

    /// Counts the angle in the progress and names it in the log. False when the search shall stop.
    bool beginAngle(float angle);
    /// Whether the search shall stop: what the progress observer says. A host that learns of it elsewhere
    /// than in updateStep(), which the preparation does not call, overrides it.
    virtual bool stopRequested() const { return canceled(); }
    /// Scores one angle and writes its histogram image.
    TiltAxisScore scoreAngle(float angle, bool mode3D);
    /// Adds a score to the statistics, and makes its angle the best one when the variance is above the best
    /// so far. At equal variance the earlier angle stays.
    void recordScore(const TiltAxisScore& score);

private:
    class StopRelay;

    float searchAutomated(VoxMRCData* tiltSeries, const std::string& name, const std::string& folder,
                          double angularAccuracy, bool mode3D);
    float searchManual(VoxMRCData* tiltSeries, const std::string& name, const std::string& folder,
                       double start, double end, double stepsize, bool mode3D);
    bool prepare(VoxMRCData* tiltSeries, const std::string& name, const std::string& folder, bool mode3D);
    bool prepareRoute(bool mode3D);
    bool prepareVolumeRoute(const ReflexVector& spots);
    bool findLevel(const std::vector<double>& levels, double& best, std::size_t& count);
    bool limitSize();
    bool scaleSeries(double level);
    std::size_t countReflexes(float angle);
    bool stopNow();
    void releasePrepared();
    float finish(const std::string& name, double startSeconds);
    void evaluateTiltAxis(float angle, std::string name, bool mode3D);
    ReflexVectorPtr reflexesFromVolume(float angle, TiltAxisScore& score);
    ReflexVectorPtr reflexesFromPatterns(float angle);
    void saveHistogram(const std::vector<int>& image, float angle);
    void initStat();
    void result_logging();
    void finishStatistics(std::string folder, double bestAngle, double bestVariance, double seconds);

    VRKLogger* m_logger;
    VoxMRCData* m_workingVolume = nullptr;          ///< the series given, or m_rebinned
    std::unique_ptr<VoxMRCData> m_rebinned;         ///< padded or downsampled copy
    std::unique_ptr<VoxMRCData> m_evaluatedSeries;  ///< scaled copy of the working volume
    ReflexVectorPtr m_spots;                        ///< of the patterns
    double m_bestVariance = 0.0;
    double m_bestTiltAxisAngle = 0.0;  ///< degrees
    std::int32_t m_largestHistogramMaximum = 0;
    std::vector<TiltAxisScore> m_scores;
    std::string m_folder;
    std::size_t m_reflexLimit = 0;
    int m_progress = 0;
    bool m_stopped = false;
    bool m_accepted = false;
};
