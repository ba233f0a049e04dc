/// \file
/// One pass of the steps of the cell finding, and what they leave.
#pragma once

#include <Eigen/Core>
#include <memory>
#include <optional>
#include <vector>

#include "cellfinding/CalculateCellAlgorithm.h"
#include "cellfinding/CellEvaluation.h"
#include "pipeline/latticesearch/Lattice.h"
#include "pipeline/latticesearch/LatticeScore.h"

namespace vrk {

/// "dbscan", "ddsc" or "fsc".
const char* nameOf(ClusteringMethod method);

/// The steps of CalculateCellAlgorithm on one list of points with one set of parameters. What a step cannot
/// do is in the core's log.
class CellSteps {
public:
    /// Forms the difference vectors and clusters them (steps two and three).
    /// \param points    in voxels
    /// \param progress  of the clustering by FSC; may be null
    CellSteps(const Points& points, const Parameter& parameter,
              ClusteringMethod method = ClusteringMethod::DBSCAN, VoxProgressObserver* progress = nullptr);
    ~CellSteps();
    CellSteps(const CellSteps&) = delete;
    CellSteps& operator=(const CellSteps&) = delete;

    /// Clusters the difference vectors again. Only what the parameter says of clusters may differ from what
    /// made the vectors. Invalidates the clusters.
    void cluster(const Parameter& parameter, VoxProgressObserver* progress = nullptr);

    /// How many difference vectors there are.
    int vectors() const { return m_grid ? m_grid->getNumberOfPoints() : 0; }
    const std::vector<Cluster<Point<double>>*>& clusters() const { return m_clusters; }

    /// Steps four, five and six. Base vectors are columns; nothing where a step finds none.
    std::optional<Eigen::Matrix3d> chosen();
    std::optional<Eigen::Matrix3d> shortened(const Eigen::Matrix3d& basis);
    Eigen::Matrix3d refined(const Eigen::Matrix3d& basis);

    /// The evidence for a lattice in these clusters and in a list of points, which may be a longer one than
    /// the steps took. Throws Failure when the lattice is degenerate.
    CellEvaluation evaluate(const Lattice& lattice, const LatticeScore& score, const Points& points);

private:
    void forgetClusters();

    Parameter m_parameter;
    ClusteringMethod m_method;
    CalculateCellAlgorithm m_algorithm;
    std::unique_ptr<CubicGrid<ClusterPoint<double>>> m_grid;
    std::vector<Cluster<Point<double>>*> m_clusters;
    std::vector<ClusterPoint<double>*> m_noise;
};

}  // namespace vrk
