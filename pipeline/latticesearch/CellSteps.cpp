#include "pipeline/latticesearch/CellSteps.h"

#include <array>
#include <sstream>

#include "cellfinding/FSC.h"
#include "pipeline/base/Failure.h"
#include "reflections/ReflexVector.h"

namespace vrk {
namespace {

using Eigen::Matrix3d;
using Eigen::Vector3d;

ReflexVectorPtr listOf(const Points& points) {
    ReflexVectorPtr list(new ReflexVector);
    for (const Vector3d& p : points)
        list->push_back(new Reflex(p[0], p[1], p[2]));
    return list;
}

/// Three points of the core for the columns of a matrix.
struct BasePoints {
    std::array<ClusterPoint<double>, 3> points{ClusterPoint<double>(3, -1), ClusterPoint<double>(3, -1),
                                               ClusterPoint<double>(3, -1)};

    BasePoints() = default;
    explicit BasePoints(const Matrix3d& basis) {
        for (int column = 0; column < 3; ++column)
            points[static_cast<std::size_t>(column)].setDataAndDimension(basis.col(column).data(), 3);
    }
    ClusterPoint<double>* operator[](std::size_t i) { return &points[i]; }
    Matrix3d matrix() const {
        Matrix3d basis;
        for (int column = 0; column < 3; ++column)
            for (int row = 0; row < 3; ++row)
                basis(row, column) = points[static_cast<std::size_t>(column)].getData(row);
        return basis;
    }
};

std::string describe(ClusteringMethod method, const Parameter& parameter,
                     CubicGrid<ClusterPoint<double>>* grid) {
    std::ostringstream text;
    if (method == ClusteringMethod::FSC) {
        text << "FSC, radius " << FSC::findRadius(grid) << " (found)";
        return text.str();
    }
    text << (method == ClusteringMethod::DDSC ? "DDSC" : "DBSCAN") << ", radius " << parameter.getDBSCANEps()
         << ", at least " << parameter.getDBSCANMinPts() << " vectors";
    return text.str();
}

}  // namespace

const char* nameOf(ClusteringMethod method) {
    switch (method) {
        case ClusteringMethod::DDSC:
            return "ddsc";
        case ClusteringMethod::FSC:
            return "fsc";
        case ClusteringMethod::DBSCAN:
            break;
    }
    return "dbscan";
}

CellSteps::CellSteps(const Points& points, const Parameter& parameter, ClusteringMethod method,
                     VoxProgressObserver* progress)
    : m_parameter(parameter), m_method(method) {
    const ReflexVectorPtr list = listOf(points);
    m_grid.reset(m_algorithm.StepTwo_CalcDiffVectors(&m_parameter, list.get(), nullptr));
    cluster(parameter, progress);
}

CellSteps::~CellSteps() {
    forgetClusters();
}

void CellSteps::cluster(const Parameter& parameter, VoxProgressObserver* progress) {
    forgetClusters();
    m_parameter = parameter;
    if (m_grid)
        m_algorithm.clusteringStep(&m_parameter, m_grid.get(), &m_clusters, &m_noise, m_method, progress);
}

void CellSteps::forgetClusters() {
    for (auto* cluster : m_clusters)
        delete cluster;
    for (auto* vector : m_noise)
        delete vector;
    m_clusters.clear();
    m_noise.clear();
}

std::optional<Matrix3d> CellSteps::chosen() {
    BasePoints found;
    UnitCell cell;
    if (m_algorithm.StepFour_FindLinearIndependentVectors(&m_parameter, &cell, &m_clusters, found[0],
                                                          found[1], found[2]) < 0.0)
        return std::nullopt;
    return found.matrix();
}

std::optional<Matrix3d> CellSteps::shortened(const Matrix3d& basis) {
    BasePoints given(basis);
    BasePoints found;
    if (m_algorithm.StepFive_CalculateNiggliCell(&m_parameter, given[0], given[1], given[2], found[0],
                                                 found[1], found[2]) < 0.0)
        return std::nullopt;
    return found.matrix();
}

Matrix3d CellSteps::refined(const Matrix3d& basis) {
    BasePoints base(basis);
    bool flags[3] = {};
    m_algorithm.StepSix_Refinement(&m_clusters, base[0], base[1], base[2], base[0], base[1], base[2],
                                   &flags[0], &flags[1], &flags[2]);
    return base.matrix();
}

CellEvaluation CellSteps::evaluate(const Lattice& lattice, const LatticeScore& score, const Points& points) {
    const ReflexVectorPtr list = listOf(points);
    const UnitCell cell = lattice.toUnitCell();
    CellEvaluation::Input input;
    input.parameter = &m_parameter;
    input.reflections = list.get();
    input.grid = m_grid.get();
    input.clusters = &m_clusters;
    input.noise = &m_noise;
    input.cell = &cell;
    input.pixelSize = lattice.pixelSize;
    input.origin = {lattice.origin[0], lattice.origin[1], lattice.origin[2]};
    input.radius = score.radius;
    if (m_grid) input.method = describe(m_method, m_parameter, m_grid.get());
    CellEvaluation evaluation;
    if (!CellEvaluation::evaluate(input, &evaluation))
        throw Failure(
            "the cell finding cannot be evaluated: there are no difference vectors, or the cell is flat",
            FailureKind::NothingFound);
    return evaluation;
}

}  // namespace vrk
