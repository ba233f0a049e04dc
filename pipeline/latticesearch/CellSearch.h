/// \file
/// The automatic search for the reciprocal cell of a list of reflections.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/latticesearch/CellSteps.h"
#include "pipeline/latticesearch/LatticeScore.h"

namespace vrk {

/// What a user may fix; everything else is found.
struct CellSearchOptions {
    std::optional<double> minLength;                         ///< shortest difference vector, voxels
    std::optional<double> maxLength;                         ///< longest difference vector, voxels
    std::optional<double> eps;                               ///< radius of the clustering, voxels
    std::optional<int> minPts;                               ///< density of the clustering
    ClusteringMethod clustering = ClusteringMethod::DBSCAN;  ///< FSC finds its radius and density itself
    /// Changes further settings of the cell finding before its steps run; may be empty.
    std::function<void(Parameter&)> adjust;
    /// Called between the parameter sets; returning true stops the search.
    std::function<bool()> canceled;
    /// Told at the same places which share of the sets is done, 0 to 1; may be empty.
    std::function<void(double)> progressed;
};

/// One set of parameters of the cell finding.
struct CellSearchTrial {
    double minLength = 0.0;
    double maxLength = 0.0;
    double eps = 0.0;
    int minPts = 0;
    ClusteringMethod clustering = ClusteringMethod::DBSCAN;
    std::size_t reflections = 0;  ///< so many of the strongest took part
};

/// A lattice with its evidence.
struct LatticeCandidate {
    Lattice lattice;
    LatticeScore score;
    CellSearchTrial trial;
};

/// Finds the lattice of a list of points without being told how large the cell is.
///
/// Difference vectors of the points pile up at the vectors of the lattice. They are formed and clustered by
/// the steps of CalculateCellAlgorithm, with several sets of parameters: the longest vector follows from the
/// distances between neighbours, radius and density of the clustering from the number of vectors that chance
/// would put into a sphere. Every three strong cluster centres are a candidate, as is the cell that the six
/// steps select. The candidates are scored on the points themselves (scoreLattice), refined, checked for
/// multiples, and the one with the strongest evidence wins.
class CellSearch {
public:
    explicit CellSearch(CellSearchOptions options = {}) : m_options(std::move(options)) {}

    /// \param points   relative to the origin of reciprocal space, in voxels; the direct beam taken out
    /// \param weights  intensities in the same order; the strongest points decide where there are many
    /// \returns the candidates by falling evidence, every lattice once; empty when nothing beats chance
    std::vector<LatticeCandidate> search(const Points& points, const std::vector<double>& weights) const;

    /// The first set of parameters that the search tries.
    CellSearchTrial firstTrial(const Points& points, const std::vector<double>& weights) const;
    /// The answer of a search with all values fixed at those of a candidate; nothing when it is another
    /// lattice.
    std::optional<LatticeCandidate> repeat(const LatticeCandidate& candidate, const Points& points,
                                           const std::vector<double>& weights) const;

    /// The settings of a trial.
    Parameter parameterOf(const CellSearchTrial& trial) const;
    /// The steps that led to a candidate, once more, for a look at the evidence.
    std::unique_ptr<CellSteps> stepsOf(const LatticeCandidate& candidate, const Points& points,
                                       const std::vector<double>& weights) const;

private:
    std::vector<CellSearchTrial> trials(const Points& points) const;
    bool fixesEverything() const;

    CellSearchOptions m_options;
};

/// The median distance of a point from its k-th neighbour; 0 for fewer points.
double neighbourDistance(const Points& points, std::size_t k);

}  // namespace vrk
