/// \file
/// The whole way from a raw tilt series to cell and indexed reflections.
#pragma once

#include <array>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitCell.h"
#include "indexing/PositionRefinement.h"
#include "pipeline/base/Session.h"
#include "pipeline/latticesearch/CellSearch.h"
#include "pipeline/run/CellOptions.h"
#include "pipeline/run/RadialNoise.h"
#include "pipeline/run/SearchOptions.h"
#include "processing/SamplingGeometry.h"
#include "reflections/ReflexVector.h"

namespace vrk {

struct RunOptions {
    std::filesystem::path series;
    std::filesystem::path folder;
    std::string tiltAxis;             ///< degrees, "search" or "none"; empty: the series' header decides
    std::optional<double> pixelSize;  ///< 1/m per pixel
    std::optional<double> kiloVolts;
    std::filesystem::path fineCalibration;
    SearchOptions search;
    CellOptions cell;
    double axisAccuracy = 0.1;
    int jobs = 1;
    bool keepVolume = false;
    bool pictures = true;
    bool json = false;
};

/// Seconds of wall-clock time spent in each stage.
struct RunSeconds {
    double read = 0.0, preprocess = 0.0, tiltAxis = 0.0, reconstruct = 0.0, search = 0.0, cell = 0.0,
           index = 0.0, total = 0.0;
};

/// The reflections that one threshold gives.
struct ThresholdLevel {
    double threshold = 0.0;
    double zeroBeam = 0.0;  ///< radius that was cut off around the direct beam, voxels
    int minVoxels = 0;
    std::vector<double> tilts;     ///< at which each reflection was seen, radians
    ReflexVectorPtr voxelCentres;  ///< plain reflections at the weighted centre of their voxels
    ReflexVectorPtr positions;     ///< the same at the places of their samples
    int indexed = 0;               ///< by the refined lattice
    double fraction() const {
        return positions && !positions->empty()
                   ? static_cast<double>(indexed) / static_cast<double>(positions->size())
                   : 0.0;
    }
};

/// How much the answer can be trusted.
enum class Confidence { High, Fair, Low };
const char* nameOf(Confidence confidence);

struct RunResult {
    std::array<int, 3> seriesSize{};
    double tiltFirst = 0.0, tiltLast = 0.0;
    double pixelSize = 0.0;  ///< 1/m per voxel
    double kiloVolts = 0.0;
    double axisAngle = 0.0;
    double axisUncertainty = 0.0;
    std::string axisSource;  ///< "option", "header", "search", "assumed"
    std::array<unsigned, 3> volumeSize{};

    ThresholdLevel level;        ///< whose reflections were indexed
    double cellThreshold = 0.0;  ///< at which the lattice was found
    CellSearchTrial trial;       ///< parameters with which the lattice was found
    LatticeCandidate lattice;    ///< as found
    std::optional<LatticeCandidate> runnerUp;
    Confidence confidence = Confidence::Low;

    UnitCell reciprocal;                       ///< refined, reduced and primitive, in voxels
    PositionRefinement::Result refinement{};   ///< free, of the reduced cell
    PositionRefinement::Result constrained{};  ///< of the conventional cell under the ties of its type
    std::vector<LatticeCharacter> characters;  ///< the answer first
    ReflexVectorPtr indexed;                   ///< corrected positions with the indices of the reduced cell
    std::size_t uniqueIndices = 0;             ///< different h, k, l in the HKL file
    double resolution = 0.0;                   ///< smallest spacing of an indexed reflection, Angstrom

    std::unique_ptr<VoxMRCData> volume;  ///< reciprocal volume
    Points points;                       ///< flat enough to show the lattice; relative to the centre, voxels

    std::vector<std::filesystem::path> files;
    RunSeconds seconds;
};

/// Runs the stages in their order. Throws Failure with what was wrong and what to try: exit code 1 for
/// input that cannot be processed, 3 when there are no reflections or no lattice among them.
class RunPipeline {
public:
    RunPipeline(const RunOptions& options, Session& session);

    RunResult run();

private:
    void read();
    void preprocess();
    void findAxis();
    void rotate();
    void reconstruct();
    void searchReflections();
    void findCell();
    void refine();
    void analyseSymmetry();
    void chooseLevel();
    void indexFinally();
    void writeFiles();

    ThresholdLevel searchAt(double threshold);
    bool indexLevel(ThresholdLevel& level) const;
    Points pointsOf(const ThresholdLevel& level, std::vector<double>& weights) const;
    double wavelength() const;
    /// With the wavelength and the tolerance of the run.
    PositionRefinement positionRefinement() const;
    /// From the indices of the reduced cell to those of the conventional one; null for the former.
    const int (*conventionalMatrix() const)[3];
    std::array<double, 3> centre() const;

    const RunOptions& m_options;
    Session& m_session;
    RunResult m_result;
    std::unique_ptr<VoxMRCData> m_series;
    std::unique_ptr<VoxMRCData> m_volume;
    std::unique_ptr<SamplingGeometry> m_geometry;
    std::optional<RadialNoise> m_noise;
    std::vector<ThresholdLevel> m_levels;  ///< by rising threshold
    std::size_t m_best = 0;                ///< the level that gave the lattice
};

}  // namespace vrk
