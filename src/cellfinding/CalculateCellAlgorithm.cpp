#include "cellfinding/CalculateCellAlgorithm.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <limits>
#include <memory>
#include <new>
#include <optional>
#include <span>
#include <sstream>
#include <string>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "cellfinding/CalculateCellIOstuff.h"
#include "cellfinding/CalculateDiffVectors.h"
#include "cellfinding/DBSCAN.h"
#include "cellfinding/DDSC.h"
#include "cellfinding/DiffVector3D.h"
#include "cellfinding/FSC.h"
#include "cellfinding/detail/BaseChoice.h"
#include "cellfinding/detail/BaseRefinement.h"
#include "cellfinding/detail/ClusterCentres.h"
#include "cellfinding/detail/ClusterParts.h"
#include "crystallography/BasicMath.h"
#include "crystallography/NiggliReduction.h"
#include "foundation/VRKLogger.h"

namespace {

using VRK::detail::Centre;
using VRK::detail::centresOf;
using VRK::detail::componentsOf;
using VRK::detail::coordinatesOf;
using VRK::detail::Vector;
using Clusters = std::vector<Cluster<Point<double>>*>;

constexpr double kFailed = -1.0;
constexpr int kMostLatticeSteps = 50;
constexpr int kLeastPointsOfRow = 10;

template <typename... Given>
bool isAnyMissing(const Given*... given) {
    return (... || !given);
}

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

DiffVector3D vectorAt(const Vector& place) {
    return {place[0], place[1], place[2]};
}

/// Gives the point the coordinates of the vector and prints it with its length.
void hand(const DiffVector3D& vector, ClusterPoint<double>* point) {
    point->setDataAndDimension(componentsOf(vector).data(), 3);
    point->printCoefficientsWithLength();
}

/// The distance of cluster centres from the nodes of a lattice that explains them.
double radiusOfNodes(const Parameter& parameter) {
    return std::max(0.6, 0.6 * parameter.getDBSCANEps());
}

/// A DDSC clustering of the same vectors.
void clusterWithDDSC(CubicGrid<ClusterPoint<double>>& grid, const Parameter& parameter, Clusters& clusters,
                     std::vector<ClusterPoint<double>*>& noise) {
    constexpr double kAlpha = 2.0;
    std::vector<ClusterPointDDSC<double>> vectors;
    vectors.reserve(grid.getPoints()->size());
    for (const ClusterPoint<double>* point : *grid.getPoints())
        vectors.emplace_back(coordinatesOf(*point).data(), static_cast<unsigned char>(3), short(-1), -1);
    std::vector<ClusterPointDDSC<double>*> pointers;
    for (auto& vector : vectors)
        pointers.push_back(&vector);
    DDSC::clustering(VRK::detail::gridOver(pointers).get(), parameter.getDBSCANEps(),
                     parameter.getDBSCANMinPts(), kAlpha, &clusters, &noise);
}

void handOver(const std::array<Vector, 3>& base, const std::array<ClusterPoint<double>*, 3>& points) {
    for (std::size_t i = 0; i < 3; ++i)
        hand(vectorAt(base[i]), points[i]);
}

/// The reflections as vectors from the origin, the shortest first. One at the origin is none.
std::vector<Centre> placesOf(const ReflexVector& reflections, const double* origin, int centerType) {
    std::vector<Centre> places;
    for (Reflex* reflex : reflections) {
        if (!reflex) continue;
        Centre centre{{}, 1.0};
        for (int axis = 0; axis < 3; ++axis)
            centre.place[static_cast<std::size_t>(axis)] = reflex->getCenter(axis, centerType) - origin[axis];
        if (VRK::detail::isFinite(centre.place) && BasicMath::Norm(centre.place.data()) > 0.0)
            places.push_back(centre);
    }
    std::stable_sort(places.begin(), places.end(), [](const Centre& first, const Centre& second) {
        return BasicMath::Norm(first.place.data()) < BasicMath::Norm(second.place.data());
    });
    return places;
}

/// Points of clusters with their uncertainties.
struct UncertainPoints {
    std::vector<Point<double>*> points;  // the clusters' own
    std::vector<double> uncertainties;
    int step = 1;  // every step-th point of all takes part
};

/// How thick a cluster is across its longest axis.
double thicknessOf(const Cluster<Point<double>>& cluster) {
    constexpr double kLeast = 0.2;  // of a voxel
    const double moment = cluster.getDimension() > 1 ? cluster.getMomentsOfInertia(1) : 0.0;
    return moment > kLeast * kLeast ? std::sqrt(moment) : kLeast;
}

UncertainPoints pointsOf(const Clusters& clusters) {
    constexpr int kMostPoints = 4000;
    int total = 0;
    for (const auto* cluster : clusters)
        total += cluster ? cluster->getNumberOfPoints() : 0;
    UncertainPoints result;
    result.step = total / kMostPoints + 1;
    int number = 0;
    for (const auto* cluster : clusters) {
        if (!cluster) continue;
        const double thickness = thicknessOf(*cluster);
        for (int i = 0; i < cluster->getNumberOfPoints(); ++i) {
            if (number++ % result.step != 0) continue;
            result.points.push_back(cluster->getPointAt(i));
            result.uncertainties.push_back(thickness);
        }
    }
    return result;
}

/// The base that explains the judges best, fitted to them.
std::optional<std::array<Vector, 3>> bestBase(std::span<const Vector> vectors, std::span<const Centre> judges,
                                              double radius) {
    const auto bases = VRK::detail::rankBases(vectors, judges, radius);
    if (bases.empty()) return std::nullopt;
    std::array<Vector, 3> base = bases.front().vectors;
    VRK::detail::fitToLattice(judges, base);
    return base;
}

std::vector<DiffVector3D*> pointersTo(std::vector<DiffVector3D>& vectors) {
    std::vector<DiffVector3D*> pointers;
    pointers.reserve(vectors.size());
    for (DiffVector3D& vector : vectors)
        pointers.push_back(&vector);
    return pointers;
}

/// Vectors that bases are formed of.
constexpr std::size_t kVectorsOfBasis = 40;

/// Hands over the best basis of the first places, which all of them judge. False, with a warning, when no
/// three of them form one.
bool handOverBest(const std::vector<Centre>& places, const Parameter& parameter, const char* kind,
                  const std::array<ClusterPoint<double>*, 3>& points) {
    std::vector<Vector> vectors;
    for (std::size_t i = 0; i < std::min(places.size(), kVectorsOfBasis); ++i)
        vectors.push_back(places[i].place);
    const auto base = bestBase(vectors, places, radiusOfNodes(parameter));
    if (!base) {
        logText("No three of " + std::to_string(vectors.size()) + ' ' + kind + " form a basis.",
                VRK::Warning);
        return false;
    }
    handOver(*base, points);
    return true;
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
        VRK::detail::coverCells(min.data(), max.data());
        auto grid = std::make_unique<CubicGrid<ClusterPoint<double>>>(vectors.get(), min.data(), max.data(),
                                                                      VRK::detail::kGridEdge);
        grid->print();
        m_logger->log("Generate CubicGrid finished", VRK::Debug, VRK::Information);
        if (CalculateCellIOstuff::getWriteData()) CalculateCellIOstuff::writeDiffData(grid.get());
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
    const auto group = [&] {
        if (!parameter->useDBSCAN()) return;
        m_logger->log("use DBSCAN clustering.", VRK::Debug, VRK::Information);
        DBSCAN().cluster(grid, parameter->getDBSCANEps(), parameter->getDBSCANMinPts(), clusters, noise);
    };
    return clusterBy(group, parameter, grid, clusters, noise);
}

double CalculateCellAlgorithm::clusterBy(const std::function<void()>& group, Parameter* parameter,
                                         CubicGrid<ClusterPoint<double>>* grid,
                                         std::vector<Cluster<Point<double>>*>* clusters,
                                         std::vector<ClusterPoint<double>*>* noise) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        logText("Clustering started...");
        const bool hasInput = parameter && grid && grid->getNumberOfPoints() > 0 && clusters && noise;
        if (hasInput) group();
        if (parameter) parameter->setClusterOptionsChanged(false);
        if (!hasInput || clusters->empty()) {
            logText("No cluster centers found.", VRK::Warning);
            return kFailed;
        }
        const double seconds = watch.seconds();
        logTime("Clustering in", seconds, " Number of clusters: " + std::to_string(clusters->size()));
        if (parameter->getRefineCluster())
            clusterRefinement(clusters, parameter->getClusterRefinementPercent() / 100.0);
        if (CalculateCellIOstuff::getWriteData()) {
            CalculateCellIOstuff::writeClusters(clusters);
            CalculateCellIOstuff::writeDiffDataWithoutNoise(grid);
        }
        if (CalculateCellIOstuff::getWriteLines()) projectAllClusterToLinesAndWriteFiles(clusters);
        return seconds;
    });
}

double CalculateCellAlgorithm::StepFour_FindLinearIndependentVectors(
    Parameter* parameter, UnitCell* cell, std::vector<Cluster<Point<double>>*>* clusters,
    ClusterPoint<double>* a, ClusterPoint<double>* b, ClusterPoint<double>* c) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        logText("Find three linear independent cluster center started...");
        if (isAnyMissing(parameter, clusters, a, b, c)) {
            logText("Parameters, clusters and three points are needed to find base vectors.", VRK::Error);
            return kFailed;
        }
        std::vector<DiffVector3D> centres;
        for (const auto& [place, weight] : centresOf(*clusters))
            centres.push_back(vectorAt(place));
        std::vector<DiffVector3D*> candidates = pointersTo(centres);
        DiffVector3D foundA = vectorAt({}), foundB = foundA, foundC = foundA;
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
        if (isAnyMissing(parameter, a, b, c, outA, outB, outC)) {
            logText("Parameters and six points are needed to shorten base vectors.", VRK::Error);
            return kFailed;
        }
        const DiffVector3D inA = vectorAt(coordinatesOf(*a));
        const DiffVector3D inB = vectorAt(coordinatesOf(*b));
        const DiffVector3D inC = vectorAt(coordinatesOf(*c));
        DiffVector3D shortA = inA, shortB = inB, shortC = inC;
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

double CalculateCellAlgorithm::clusteringStep(Parameter* parameter, CubicGrid<ClusterPoint<double>>* grid,
                                              std::vector<Cluster<Point<double>>*>* clusters,
                                              std::vector<ClusterPoint<double>*>* noise,
                                              ClusteringMethod method, VoxProgressObserver* observer) {
    if (method == ClusteringMethod::DBSCAN) return clusteringWithDBSCAN(parameter, grid, clusters, noise);
    const auto withDDSC = [&] {
        m_logger->log("use DDSC clustering.", VRK::Debug, VRK::Information);
        clusterWithDDSC(*grid, *parameter, *clusters, *noise);
        postprocessingDDSCclustering(clusters, parameter->getDBSCANEps());
        VRK::detail::labelGrid(*grid, *clusters);
    };
    const auto withFSC = [&] {
        m_logger->log("use FSC clustering.", VRK::Debug, VRK::Information);
        FSC fsc;
        fsc.registerObserver(observer);
        if (!fsc.cluster(grid, 0.0, clusters, noise)) clusters->clear();
    };
    if (method == ClusteringMethod::FSC) return clusterBy(withFSC, parameter, grid, clusters, noise);
    return clusterBy(withDDSC, parameter, grid, clusters, noise);
}

double CalculateCellAlgorithm::clusteringWithDBSCAN(Parameter* parameter,
                                                    CubicGrid<ClusterPoint<double>>* grid,
                                                    std::vector<Cluster<Point<double>>*>* clusters,
                                                    std::vector<ClusterPoint<double>*>* noise) {
    return StepThree_Clustering(parameter, grid, clusters, noise);
}

double CalculateCellAlgorithm::rekursivClusteringWithDBSCAN(Parameter* parameter,
                                                            CubicGrid<ClusterPoint<double>>* grid,
                                                            std::vector<Cluster<Point<double>>*>* clusters,
                                                            std::vector<ClusterPoint<double>*>* noise,
                                                            int depth) {
    constexpr int kDeepest = 8;
    const auto group = [&] {
        VRK::detail::clusterRecursively(*grid, parameter->getDBSCANEps(), parameter->getDBSCANMinPts(),
                                        std::min(depth, kDeepest))
            .handTo(*clusters, *noise);
        VRK::detail::labelGrid(*grid, *clusters);
    };
    return clusterBy(group, parameter, grid, clusters, noise);
}

bool CalculateCellAlgorithm::postprocessingDDSCclustering(std::vector<Cluster<Point<double>>*>* clusters,
                                                          double reach) {
    if (!clusters || clusters->empty()) {
        logText("No clusters to join.", VRK::Warning);
        return false;
    }
    VRK::detail::joinClusters(*clusters, [reach](const auto& first, const auto& second) {
        return checkNeighbourhoodOfCluster(&first, &second, reach);
    });
    return true;
}

bool CalculateCellAlgorithm::checkNeighbourhoodOfCluster(const Cluster<Point<double>>* first,
                                                         const Cluster<Point<double>>* second, double reach) {
    if (!first || !second || first->getDimension() != second->getDimension() || !first->isNear(second))
        return false;
    double square = 0.0;
    for (int axis = 0; axis < first->getDimension(); ++axis) {
        const double d = first->getCenterOfGrafity(axis) - second->getCenterOfGrafity(axis);
        square += d * d;
    }
    return square <= reach * reach;
}

double CalculateCellAlgorithm::findBasis(Parameter* parameter, std::vector<Cluster<Point<double>>*>* clusters,
                                         ClusterPoint<double>* a, ClusterPoint<double>* b,
                                         ClusterPoint<double>* c) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        if (isAnyMissing(parameter, clusters, a, b, c)) {
            logText("Parameters, clusters and three points are needed to find a basis.", VRK::Error);
            return kFailed;
        }
        std::vector<Centre> centres = centresOf(*clusters);
        std::stable_sort(centres.begin(), centres.end(), [](const Centre& first, const Centre& second) {
            return first.weight > second.weight;
        });
        centres.resize(std::min(centres.size(), 2 * kVectorsOfBasis));
        if (!handOverBest(centres, *parameter, "cluster centers", {a, b, c})) return kFailed;
        const double seconds = watch.seconds();
        logTime("Find a basis in", seconds);
        return seconds;
    });
}

double CalculateCellAlgorithm::testCellDetectionWithReflections(Parameter* parameter,
                                                                ReflexVector* reflections,
                                                                const double* origin, ClusterPoint<double>* a,
                                                                ClusterPoint<double>* b,
                                                                ClusterPoint<double>* c) {
    constexpr std::size_t kJudges = 400;
    return withMemoryReport([&] {
        const Stopwatch watch;
        if (isAnyMissing(parameter, reflections, origin, a, b, c)) {
            logText("Parameters, reflections, an origin and three points are needed to find a basis.",
                    VRK::Error);
            return kFailed;
        }
        std::vector<Centre> places =
            placesOf(*reflections, origin, parameter->getWhichReflectionMiddleShouldUsed());
        places.resize(std::min(places.size(), kJudges));
        if (!handOverBest(places, *parameter, "reflections", {a, b, c})) return kFailed;
        const double seconds = watch.seconds();
        logTime("Find a basis in", seconds);
        return seconds;
    });
}

double CalculateCellAlgorithm::calculateNiggliCell2(ClusterPoint<double>* a, ClusterPoint<double>* b,
                                                    ClusterPoint<double>* c, ClusterPoint<double>* outA,
                                                    ClusterPoint<double>* outB, ClusterPoint<double>* outC) {
    const Stopwatch watch;
    if (isAnyMissing(a, b, c, outA, outB, outC)) {
        logText("Six points are needed to reduce base vectors.", VRK::Error);
        return kFailed;
    }
    UnitCell cell(coordinatesOf(*a).data(), coordinatesOf(*b).data(), coordinatesOf(*c).data(), 1.0, true,
                  true, LATTICE::aP);
    if (cell.isDegenerate()) {
        logText("The base vectors span no cell that could be reduced.", VRK::Warning);
        return kFailed;
    }
    NiggliReduction::niggliReduction(&cell, 0);
    std::array<Vector, 3> base;
    cell.getBase(base[0].data(), base[1].data(), base[2].data());
    if (!cell.isRightHanded())
        for (Vector& vector : base)
            for (double& x : vector)
                x = -x;
    handOver(base, {outA, outB, outC});
    const double seconds = watch.seconds();
    logTime("Niggli reduction in", seconds);
    return seconds;
}

double CalculateCellAlgorithm::refineCell(std::vector<Cluster<Point<double>>*>* clusters,
                                          ClusterPoint<double>* a, ClusterPoint<double>* b,
                                          ClusterPoint<double>* c, ClusterPoint<double>* outA,
                                          ClusterPoint<double>* outB, ClusterPoint<double>* outC) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        if (isAnyMissing(clusters, a, b, c, outA, outB, outC)) {
            logText("Clusters and six points are needed to refine base vectors.", VRK::Error);
            return kFailed;
        }
        std::array<Vector, 3> base = {coordinatesOf(*a), coordinatesOf(*b), coordinatesOf(*c)};
        if (!VRK::detail::fitToLattice(centresOf(*clusters), base)) {
            logText("The cluster centers near the lattice of the base vectors do not determine all three.",
                    VRK::Warning);
            return kFailed;
        }
        handOver(base, {outA, outB, outC});
        const double seconds = watch.seconds();
        logTime("Refinement of all base vectors in", seconds);
        return seconds;
    });
}

bool CalculateCellAlgorithm::refineBaseVector(std::vector<Cluster<Point<double>>*>* clusters,
                                              Point<double>* vector) {
    constexpr double kReach = 0.3;
    return withMemoryReport([&] {
        Vector place{};
        if (clusters && vector) {
            place = coordinatesOf(*vector);
            const double reach = kReach * BasicMath::Norm(place.data());
            if (VRK::detail::moveToNearest(centresOf(*clusters), reach, place)) {
                vector->setDataAndDimension(place.data(), 3);
                return true;
            }
        }
        logText("No cluster center is near the base vector.", VRK::Warning);
        return false;
    });
}

double CalculateCellAlgorithm::testRANSAC(const std::vector<Cluster<Point<double>>*>* clusters, int count,
                                          std::vector<RANSAC::FittedLine>* rows) {
    return withMemoryReport([&] {
        const Stopwatch watch;
        if (!clusters || !rows || count < 1) {
            logText("Clusters, a list and a number of rows are needed to find rows.", VRK::Error);
            return kFailed;
        }
        const UncertainPoints points = pointsOf(*clusters);
        RANSAC::Settings settings;
        settings.throughOrigin = true;
        settings.mostLines = count;
        settings.leastInliers = kLeastPointsOfRow;
        std::vector<RANSAC::FittedLine> found;
        if (!RANSAC::fitLines(&points.points, &points.uncertainties, settings, &found)) return kFailed;
        if (found.empty()) {
            logText("No rows among the points of " + std::to_string(clusters->size()) + " clusters.",
                    VRK::Warning);
            return kFailed;
        }
        for (RANSAC::FittedLine& row : found)
            for (int& inlier : row.inliers)
                inlier *= points.step;
        *rows = std::move(found);
        const double seconds = watch.seconds();
        logTime("Find rows in", seconds, " Number of rows: " + std::to_string(rows->size()));
        return seconds;
    });
}

bool CalculateCellAlgorithm::projectAllClusterToLinesAndWriteFiles(
    const std::vector<Cluster<Point<double>>*>* clusters) {
    return CalculateCellIOstuff::writeLines(clusters, CalculateCellIOstuff::kMostClusters);
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
    const auto places = VRK::detail::chooseShortest(*candidates, *parameter, nullptr);
    if (!places) return false;
    const DiffVector3D chosen[3] = {*(*candidates)[(*places)[0]], *(*candidates)[(*places)[1]],
                                    *(*candidates)[(*places)[2]]};
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
    Vector vector = coordinatesOf(*direction);
    if (direction->getDimension() != 3 || !VRK::detail::fitToItsRow(centresOf(*clusters), vector)) {
        logText("Error during the refinement of the cell.", VRK::Error);
        return;
    }
    direction->setDataAndDimension(vector.data(), 3);
    *flag = true;
}
