#include "cellfinding/CalculateCellAlgorithm.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/CalculateDiffVectors.h"
#include "cellfinding/DBSCAN.h"
#include "cellfinding/DiffVector3D.h"
#include "crystallography/BasicMath.h"
#include "foundation/VRKLogger.h"

namespace {

using Vector = std::array<double, 3>;
using Clusters = std::vector<Cluster<Point<double>>*>;

constexpr double kFailed = -1.0;
constexpr int kGridEdge = 3;
constexpr double kLargestAngle = 3.0;
/// Least volume of the cell as a share of the product of its edges. 0.103 with 20 degrees between all axes.
constexpr double kLeastRelativeVolume = 0.1;
constexpr int kMostLatticeSteps = 50;

class Stopwatch {
public:
    double seconds() const {
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_start).count();
    }

private:
    std::chrono::steady_clock::time_point m_start = std::chrono::steady_clock::now();
};

void logText(const std::string& text, VRK::MessageType type = VRK::Normal) {
    VRKLogger::getInstance()->log(text, type, VRK::Information);
}

void logTime(const char* what, double seconds, const std::string& more = {}) {
    std::ostringstream text;
    text << what << ' ' << seconds << " seconds finished." << more;
    logText(text.str());
}

/// Runs a step; says in the log when memory ran out.
template <typename Step>
auto withMemoryReport(Step step) {
    try {
        return step();
    } catch (const std::bad_alloc&) {
        VRKLogger::getInstance()->log("Could not allocate enough memory.", VRK::Error, VRK::Information);
        throw;
    }
}

/// The difference vectors, freed when they go out of scope.
struct DeleteVectors {
    void operator()(std::vector<ClusterPoint<double>*>* vectors) const {
        for (ClusterPoint<double>* vector : *vectors)
            delete vector;
        delete vectors;
    }
};

/// A grid numbers its cells from the coordinate 0 and has as many as the distance of its limits asks for.
/// Makes sure that there is a cell for every coordinate.
void coverCells(Vector& min, Vector& max) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        min[axis] = std::min(min[axis], 0.0);
        if (!(max[axis] > min[axis])) max[axis] = min[axis] + kGridEdge;
    }
}

/// Coordinates beyond the point's dimension are 0.
DiffVector3D vectorOf(const Point<double>& point) {
    return {point.getData(0), point.getData(1), point.getData(2)};
}

Vector componentsOf(const DiffVector3D& vector) {
    return {vector.getX(), vector.getY(), vector.getZ()};
}

Vector centreOf(const Cluster<Point<double>>& cluster) {
    Vector centre{};
    for (int axis = 0; axis < std::min(cluster.getDimension(), 3); ++axis)
        centre[static_cast<std::size_t>(axis)] = cluster.getCenterOfGrafity(axis);
    return centre;
}

bool isFinite(const Vector& v) {
    return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

/// Whether the cluster has a place.
bool isUsable(const Cluster<Point<double>>* cluster) {
    return cluster && cluster->getNumberOfPoints() > 0 && isFinite(centreOf(*cluster));
}

bool isAngleBetween(const DiffVector3D& a, const DiffVector3D& b, double least) {
    const double angle = BasicMath::CalcAngleBetweenAandB(componentsOf(a).data(), componentsOf(b).data());
    return std::abs(angle) >= least && std::abs(angle) <= kLargestAngle;
}

bool isOutOfPlane(const DiffVector3D& a, const DiffVector3D& b, const DiffVector3D& c, double detLimit) {
    const double volume = std::abs(
        BasicMath::Determinant(componentsOf(a).data(), componentsOf(b).data(), componentsOf(c).data()));
    return volume > detLimit && volume > kLeastRelativeVolume * a.getLength() * b.getLength() * c.getLength();
}

/// Gives the point the coordinates of the vector and prints it with its length.
void hand(const DiffVector3D& vector, ClusterPoint<double>* point) {
    point->setDataAndDimension(componentsOf(vector).data(), 3);
    point->printCoefficientsWithLength();
}

std::vector<DiffVector3D*> pointersTo(std::vector<DiffVector3D>& vectors) {
    std::vector<DiffVector3D*> pointers;
    pointers.reserve(vectors.size());
    for (DiffVector3D& vector : vectors)
        pointers.push_back(&vector);
    return pointers;
}

/// A cluster centre on the row of a direction.
struct RowCentre {
    Vector place;
    double weight;
    double multiple;
};

double distanceToMultiple(const RowCentre& centre, const Vector& direction) {
    const Vector rest = {centre.place[0] - centre.multiple * direction[0],
                         centre.place[1] - centre.multiple * direction[1],
                         centre.place[2] - centre.multiple * direction[2]};
    return BasicMath::Norm(rest.data());
}

double lengthOfShortestCentre(const Clusters& clusters) {
    double shortest = std::numeric_limits<double>::infinity();
    for (const auto* cluster : clusters) {
        if (!isUsable(cluster)) continue;
        const double length = BasicMath::Norm(centreOf(*cluster).data());
        if (length > 0.0) shortest = std::min(shortest, length);
    }
    return shortest;
}

/// The centres within the reach of a multiple of the direction, up to the largest multiple.
std::vector<RowCentre> rowOf(const Clusters& clusters, const Vector& direction, double reach,
                             double largestMultiple) {
    std::vector<RowCentre> row;
    const double square = BasicMath::Dot(direction.data(), direction.data());
    for (const auto* cluster : clusters) {
        if (!isUsable(cluster)) continue;
        RowCentre centre{centreOf(*cluster), static_cast<double>(cluster->getNumberOfPoints()), 0.0};
        centre.multiple = std::round(BasicMath::Dot(centre.place.data(), direction.data()) / square);
        if (centre.multiple != 0.0 && std::abs(centre.multiple) <= largestMultiple &&
            distanceToMultiple(centre, direction) <= reach)
            row.push_back(centre);
    }
    return row;
}

/// The median of the distances, each counted as often as its centre has points.
double medianDistance(const std::vector<RowCentre>& row, const Vector& direction) {
    std::vector<std::pair<double, double>> distances;
    double total = 0.0;
    for (const RowCentre& centre : row) {
        distances.emplace_back(distanceToMultiple(centre, direction), centre.weight);
        total += centre.weight;
    }
    std::sort(distances.begin(), distances.end());
    double sum = 0.0;
    for (const auto& [distance, weight] : distances)
        if (sum += weight; 2.0 * sum >= total) return distance;
    return 0.0;
}

/// The direction of which the multiples fit the centres best; centres that fit badly lose their weight.
Vector fitToRow(const std::vector<RowCentre>& row, Vector direction) {
    constexpr int kRounds = 10;
    constexpr double kBiweight = 4.685;
    // In voxels. Where the half space cuts through a cluster, its halves appear at v and at -v and are this
    // far from each other when turned the same way; only together are they at the right place.
    constexpr double kLeastCutOff = 1.0;
    for (int round = 0; round < kRounds; ++round) {
        const double cutOff = std::max(kLeastCutOff, kBiweight * 1.4826 * medianDistance(row, direction));
        Vector sum{};
        double squares = 0.0;
        for (const RowCentre& centre : row) {
            const double distance = distanceToMultiple(centre, direction) / cutOff;
            if (distance >= 1.0) continue;
            const double belief = (1.0 - distance * distance) * (1.0 - distance * distance);
            const double weight = belief * centre.weight * centre.multiple;
            for (std::size_t axis = 0; axis < 3; ++axis)
                sum[axis] += weight * centre.place[axis];
            squares += weight * centre.multiple;
        }
        if (!(squares > 0.0)) break;
        direction = {sum[0] / squares, sum[1] / squares, sum[2] / squares};
    }
    return direction;
}

}  // namespace

CalculateCellAlgorithm::CalculateCellAlgorithm() : m_logger(VRKLogger::getInstance()) {
    m_logger->log(">> constructor CalculateCellAlgorithm", VRK::Debug, VRK::ObjectControl);
    m_logger->log("<< constructor CalculateCellAlgorithm", VRK::Debug, VRK::ObjectControl);
}

CalculateCellAlgorithm::~CalculateCellAlgorithm() {
    m_logger->log(">> destructor CalculateCellAlgorithm", VRK::Debug, VRK::ObjectControl);
    m_logger->log("<< destructor CalculateCellAlgorithm", VRK::Debug, VRK::ObjectControl);
}

double CalculateCellAlgorithm::StepOne_CutOfZeroBeam(ReflexVector* reflections, VoxMRCData* volume,
                                                     Parameter* parameter) {
    logText("Cut off started...");
    const Stopwatch watch;
    if (!reflections) {
        logText("No reflections founded.", VRK::Error);
        return kFailed;
    }
    if (!volume || !parameter) {
        logText("The cut off needs a volume and parameters.", VRK::Error);
        return kFailed;
    }
    const auto half = [volume](unsigned axis) {
        const unsigned whole = volume->GetDimSize(axis) / 2;
        return static_cast<double>(whole);
    };
    const int type = parameter->getWhichReflectionMiddleShouldUsed();
    if (parameter->getCutOffZeroBeam())
        reflections->cutOffZeroBeam(half(0), half(1), half(2), parameter->getMinDistToZeroBeam(), type);
    if (parameter->getLimitResolution())
        reflections->limitResolution(half(0), half(1), half(2), parameter->getLimitOfResolution(), type);
    const double seconds = watch.seconds();
    logTime("Cut off zero beam in", seconds,
            " New number of reflections: " + std::to_string(reflections->size()));
    return seconds;
}

CubicGrid<ClusterPoint<double>>* CalculateCellAlgorithm::StepTwo_CalcDiffVectors(Parameter* parameter,
                                                                                 ReflexVector* reflections,
                                                                                 double* seconds) {
    return withMemoryReport([&]() -> CubicGrid<ClusterPoint<double>>* {
        const Stopwatch watch;
        if (seconds) *seconds = kFailed;
        Vector min;
        Vector max;
        min.fill(std::numeric_limits<double>::max());
        max.fill(std::numeric_limits<double>::lowest());
        std::unique_ptr<std::vector<ClusterPoint<double>*>, DeleteVectors> vectors;
        if (parameter && reflections)
            vectors.reset(CalculateDiffVectors::calculateDiffVectors(
                reflections, parameter, min.data(), max.data(), parameter->useHalfDiffVectorSpace()));
        if (!vectors || vectors->empty()) {
            logText("Calculate diff vectors failed.", VRK::Error);
            return nullptr;
        }
        coverCells(min, max);
        auto grid = std::make_unique<CubicGrid<ClusterPoint<double>>>(vectors.get(), min.data(), max.data(),
                                                                      kGridEdge);
        grid->print();
        m_logger->log("Generate CubicGrid finished", VRK::Debug, VRK::Information);
        parameter->setDiffVectorOptionsChanged(false);
        const double elapsed = watch.seconds();
        if (seconds) *seconds = elapsed;
        logTime("Calculation of difference vectors in", elapsed,
                " Number of difference vectors: " + std::to_string(vectors->size()));
        return grid.release();
    });
}

double CalculateCellAlgorithm::StepThree_Clustering(Parameter* parameter,
                                                    CubicGrid<ClusterPoint<double>>* grid,
                                                    std::vector<Cluster<Point<double>>*>* clusters,
                                                    std::vector<ClusterPoint<double>*>* noise) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        logText("Clustering started...");
        const bool hasInput = parameter && grid && grid->getNumberOfPoints() > 0 && clusters && noise;
        if (hasInput && parameter->useDBSCAN()) {
            m_logger->log("use DBSCAN clustering.", VRK::Debug, VRK::Information);
            DBSCAN().cluster(grid, parameter->getDBSCANEps(), parameter->getDBSCANMinPts(), clusters, noise);
        }
        if (parameter) parameter->setClusterOptionsChanged(false);
        if (!hasInput || clusters->empty()) {
            logText("No cluster centers found.", VRK::Warning);
            return kFailed;
        }
        const double seconds = watch.seconds();
        logTime("Clustering in", seconds, " Number of clusters: " + std::to_string(clusters->size()));
        if (parameter->getRefineCluster())
            clusterRefinement(clusters, parameter->getClusterRefinementPercent() / 100.0);
        return seconds;
    });
}

double CalculateCellAlgorithm::StepFour_FindLinearIndependentVectors(
    Parameter* parameter, UnitCell* cell, std::vector<Cluster<Point<double>>*>* clusters,
    ClusterPoint<double>* a, ClusterPoint<double>* b, ClusterPoint<double>* c) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        logText("Find three linear independent cluster center started...");
        if (!parameter || !clusters || !a || !b || !c) {
            logText("Parameters, clusters and three points are needed to find base vectors.", VRK::Error);
            return kFailed;
        }
        std::vector<DiffVector3D> centres;
        for (const auto* cluster : *clusters) {
            if (!isUsable(cluster)) continue;
            const Vector centre = centreOf(*cluster);
            centres.emplace_back(centre[0], centre[1], centre[2]);
        }
        std::vector<DiffVector3D*> candidates = pointersTo(centres);
        DiffVector3D foundA(0.0, 0.0, 0.0);
        DiffVector3D foundB(0.0, 0.0, 0.0);
        DiffVector3D foundC(0.0, 0.0, 0.0);
        if (!findLinearIndependentDiffVectors(&candidates, parameter, &foundA, &foundB, &foundC)) {
            logText("No three linear independent vectors among " + std::to_string(centres.size()) +
                        " cluster centers.",
                    VRK::Warning);
            return kFailed;
        }
        hand(foundA, a);
        hand(foundB, b);
        hand(foundC, c);
        if (cell)
            cell->setNewBase(componentsOf(foundA).data(), componentsOf(foundB).data(),
                             componentsOf(foundC).data(), false, true);
        const double seconds = watch.seconds();
        logTime("Find three linear independent cluster centers in", seconds);
        return seconds;
    });
}

double CalculateCellAlgorithm::StepFive_CalculateNiggliCell(Parameter* parameter, ClusterPoint<double>* a,
                                                            ClusterPoint<double>* b, ClusterPoint<double>* c,
                                                            ClusterPoint<double>* outA,
                                                            ClusterPoint<double>* outB,
                                                            ClusterPoint<double>* outC) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        logText("Calculation of niggli cell started...");
        if (!parameter || !a || !b || !c || !outA || !outB || !outC) {
            logText("Parameters and six points are needed to shorten base vectors.", VRK::Error);
            return kFailed;
        }
        const DiffVector3D inA = vectorOf(*a);
        const DiffVector3D inB = vectorOf(*b);
        const DiffVector3D inC = vectorOf(*c);
        DiffVector3D shortA(0.0, 0.0, 0.0);
        DiffVector3D shortB(0.0, 0.0, 0.0);
        DiffVector3D shortC(0.0, 0.0, 0.0);
        if (!calculateNiggliCell(&inA, &inB, &inC, parameter, &shortA, &shortB, &shortC)) {
            logText("No three linear independent vectors in the lattice of the base vectors.", VRK::Warning);
            return kFailed;
        }
        hand(shortA, outA);
        hand(shortB, outB);
        hand(shortC, outC);
        const double seconds = watch.seconds();
        logTime("Calculation of niggli cell in", seconds);
        return seconds;
    });
}

double CalculateCellAlgorithm::StepSix_Refinement(std::vector<Cluster<Point<double>>*>* clusters,
                                                  ClusterPoint<double>* a, ClusterPoint<double>* b,
                                                  ClusterPoint<double>* c, ClusterPoint<double>* outA,
                                                  ClusterPoint<double>* outB, ClusterPoint<double>* outC,
                                                  bool* aRefined, bool* bRefined, bool* cRefined) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        logText("Cell refinement started...");
        for (bool* flag : {aRefined, bRefined, cRefined})
            if (flag) *flag = false;
        Point<double> directions[3] = {Point<double>(a), Point<double>(b), Point<double>(c)};
        refineCellNew(clusters, a ? &directions[0] : nullptr, b ? &directions[1] : nullptr,
                      c ? &directions[2] : nullptr, aRefined, bRefined, cRefined);
        const ClusterPoint<double>* given[3] = {a, b, c};
        ClusterPoint<double>* outputs[3] = {outA, outB, outC};
        for (int i = 0; i < 3; ++i) {
            if (!given[i] || !outputs[i]) continue;
            outputs[i]->setDataAndDimension(directions[i].getData(), directions[i].getDimension());
            outputs[i]->printCoefficientsWithLength();
        }
        const bool anyRefined = (aRefined && *aRefined) || (bRefined && *bRefined) || (cRefined && *cRefined);
        if (!anyRefined) return kFailed;
        const double seconds = watch.seconds();
        logTime("Cell refinement in", seconds);
        return seconds;
    });
}

void CalculateCellAlgorithm::clusterRefinement(std::vector<Cluster<Point<double>>*>* clusters,
                                               double fraction) {
    for (auto* cluster : *clusters)
        if (cluster && cluster->getNumberOfPoints() * fraction >= 1.0) cluster->refineCluster(fraction);
}

bool CalculateCellAlgorithm::findLinearIndependentDiffVectors(std::vector<DiffVector3D*>* candidates,
                                                              const Parameter* parameter, DiffVector3D* a,
                                                              DiffVector3D* b, DiffVector3D* c) {
    // compareLength holds for equal lengths in both orders; "b is not up to a" is the strict order of it.
    std::stable_sort(candidates->begin(), candidates->end(), [](DiffVector3D* first, DiffVector3D* second) {
        return !DiffVector::compareLength(second, first);
    });
    if (candidates->empty()) return false;
    const DiffVector3D& shortest = *candidates->front();

    std::vector<const DiffVector3D*> aside;
    for (std::size_t i = 1; i < candidates->size(); ++i)
        if (isAngleBetween(shortest, *(*candidates)[i], parameter->getAngleA()))
            aside.push_back((*candidates)[i]);
    if (aside.empty()) return false;
    const DiffVector3D& second = *aside.front();

    const auto third = std::find_if(aside.begin() + 1, aside.end(), [&](const DiffVector3D* vector) {
        return isAngleBetween(second, *vector, parameter->getAngleB()) &&
               isOutOfPlane(shortest, second, *vector, parameter->getDetLimit());
    });
    if (third == aside.end()) return false;
    const DiffVector3D chosen[3] = {shortest, second, **third};
    *a = chosen[0];
    *b = chosen[1];
    *c = chosen[2];
    return true;
}

bool CalculateCellAlgorithm::calculateNiggliCell(const DiffVector3D* a, const DiffVector3D* b,
                                                 const DiffVector3D* c, const Parameter* parameter,
                                                 DiffVector3D* outA, DiffVector3D* outB, DiffVector3D* outC) {
    const int n = std::clamp(parameter->getGridSizeNiggliCell(), 0, kMostLatticeSteps);
    std::vector<DiffVector3D> lattice = calcLattice(a, b, c, n, n, n);
    std::vector<DiffVector3D*> candidates = pointersTo(lattice);
    return findLinearIndependentDiffVectors(&candidates, parameter, outA, outB, outC);
}

std::vector<DiffVector3D> CalculateCellAlgorithm::calcLattice(const DiffVector3D* a, const DiffVector3D* b,
                                                              const DiffVector3D* c, int na, int nb, int nc) {
    std::vector<DiffVector3D> lattice;
    const auto steps = [](int n) { return 2 * static_cast<std::size_t>(n) + 1; };
    lattice.reserve(steps(na) * steps(nb) * steps(nc));
    for (int i = -na; i <= na; ++i)
        for (int j = -nb; j <= nb; ++j)
            for (int k = -nc; k <= nc; ++k)
                if (i != 0 || j != 0 || k != 0)
                    lattice.emplace_back(i * a->getX() + j * b->getX() + k * c->getX(),
                                         i * a->getY() + j * b->getY() + k * c->getY(),
                                         i * a->getZ() + j * b->getZ() + k * c->getZ());
    return lattice;
}

void CalculateCellAlgorithm::refineCellNew(std::vector<Cluster<Point<double>>*>* clusters, Point<double>* a,
                                           Point<double>* b, Point<double>* c, bool* flagA, bool* flagB,
                                           bool* flagC) {
    struct Direction {
        Point<double>* point;
        bool* flag;
        const char* refusal;
    };
    for (const Direction& direction : {Direction{a, flagA, "The a-direction can't be refined."},
                                       Direction{b, flagB, "The b-direction can't be refined."},
                                       Direction{c, flagC, "The c-direction can't be refined."}}) {
        if (!direction.point || !direction.flag) {
            logText(direction.refusal, VRK::Warning);
            return;
        }
        refineDirectionNew(clusters, direction.point, direction.flag);
        // The other directions would only repeat the message.
        if (!clusters || clusters->empty()) return;
    }
}

void CalculateCellAlgorithm::refineDirectionNew(std::vector<Cluster<Point<double>>*>* clusters,
                                                Point<double>* direction, bool* flag) {
    *flag = false;
    if (!clusters || clusters->empty()) {
        logText("No clusters loaded during the refinement of the cell.", VRK::Error);
        return;
    }
    const DiffVector3D start = vectorOf(*direction);
    Vector vector = componentsOf(start);
    const double reach = 0.3 * std::min(start.getLength(), lengthOfShortestCentre(*clusters));
    std::vector<RowCentre> row;
    if (direction->getDimension() == 3 && isFinite(vector) && start.getLength() > 0.0) {
        // Each round doubles the length of the row, until no centre is left out.
        constexpr double kFarthest = 1024.0;
        for (double multiple = 1.0; multiple <= kFarthest; multiple *= 2.0) {
            row = rowOf(*clusters, vector, reach, multiple);
            if (!row.empty()) vector = fitToRow(row, vector);
        }
    }
    if (row.empty() || !isFinite(vector)) {
        logText("Error during the refinement of the cell.", VRK::Error);
        return;
    }
    direction->setDataAndDimension(vector.data(), 3);
    *flag = true;
}
