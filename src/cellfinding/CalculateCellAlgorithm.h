/// \file
/// The cell finding: from reflections to three reciprocal base vectors in six steps.
#pragma once

#include <functional>
#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/Cluster.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/ClusteringMethod.h"
#include "cellfinding/CubicGrid.h"
#include "cellfinding/Parameter.h"
#include "cellfinding/RANSAC.h"
#include "crystallography/UnitCell.h"
#include "reflections/ReflexVector.h"

class DiffVector3D;
class VoxMRCData;
class VoxProgressObserver;
class VRKLogger;

/// Difference vectors of the reflections pile up at the vectors of the reciprocal lattice; the centres of
/// these clusters are measured lattice vectors, and three short ones span the cell.
///
/// The host calls the steps in their order and keeps what they return, so that after an edit of the
/// parameters only the steps whose change flag is raised run again. All lengths are in voxels of the
/// reciprocal volume, points and vectors have three coordinates x, y, z.
///
/// A step returns the elapsed seconds, or -1.0 when it cannot run or finds nothing; then it has logged one
/// line that says why and left its outputs as they were (what differs is noted at the step). Every step also
/// logs its beginning and its elapsed time (Normal, Information). When memory runs out, "Could not allocate
/// enough memory." (Error) is logged and the exception passed on.
///
/// The class holds no results between calls. Intermediate results are in the objects that the steps hand
/// out; the switches of CalculateCellIOstuff let steps two and three write them to files as well. A file that
/// cannot be written is reported and changes nothing else.
class VRKCORE_EXPORT CalculateCellAlgorithm {
public:
    CalculateCellAlgorithm();
    ~CalculateCellAlgorithm();

    /// Takes reflections out of the list: those nearer to the centre (D0/2, D1/2, D2/2), halved as integers,
    /// than Parameter::getMinDistToZeroBeam() when the cut-off is on, and those farther than
    /// getLimitOfResolution() when that limit is on. Removed elements are not deleted (see ReflexVector).
    /// -1.0 with "No reflections founded." (Error) for a null list; -1.0 also for a null volume or parameter.
    double StepOne_CutOfZeroBeam(ReflexVector* reflections, VoxMRCData* volume, Parameter* parameter);

    /// The difference vectors of all pairs of reflections, sorted into a grid of edge length 3 that the
    /// caller owns. \p seconds (may be null) receives the elapsed time, -1.0 on failure.
    ///
    /// The grid's limits are the bounds of the vectors. Only where cells counted from these would not reach
    /// all vectors are they widened: an axis on which all vectors are positive starts at 0, one on which
    /// they are all equal gets a cell. So no vector falls off the grid, also when all reflections lie in a
    /// plane.
    ///
    /// Null with "Calculate diff vectors failed." (Error) when there are no reflections or no difference
    /// vector of the lengths asked for. Otherwise clears the difference-vector flag of \p parameter and
    /// raises those of the clusters and the cell.
    CubicGrid<ClusterPoint<double>>* StepTwo_CalcDiffVectors(Parameter* parameter, ReflexVector* reflections,
                                                             double* seconds);

    /// Clusters the vectors of the grid with DBSCAN, which is always the method: Parameter never lets its
    /// flag become false. The clusters and the copies of the vectors that belong to none are the caller's;
    /// both vectors are cleared, not freed, so the caller frees what earlier runs put there.
    ///
    /// With getRefineCluster() every cluster is pruned to that percentage of its points; one that would be
    /// left without points stays whole. The pruning is not in the time that is returned.
    ///
    /// -1.0 with "No cluster centers found." (Warning) when there are no clusters or an argument is null.
    /// The cluster flag is cleared and the cell flag raised in any case.
    double StepThree_Clustering(Parameter* parameter, CubicGrid<ClusterPoint<double>>* grid,
                                std::vector<Cluster<Point<double>>*>* clusters,
                                std::vector<ClusterPoint<double>*>* noise);

    /// Chooses three linearly independent cluster centres, short ones first:
    /// - a is the shortest (of centres equally long the earlier in the list);
    /// - b the shortest whose angle with a is at least getAngleA();
    /// - c the shortest after b whose angle with a is at least getAngleA(), with b at least getAngleB(), and
    ///   which does not lie in the plane of a and b.
    ///
    /// Angles are in radians and end at 3.0: vectors that are nearly antiparallel do not count as different.
    /// c is out of the plane when the absolute value V of the determinant exceeds getDetLimit() and a tenth
    /// of the product of the three lengths. Without the second bound any three measured vectors would pass,
    /// since noise never leaves the determinant of coplanar ones at 0. With 20 degrees between all three
    /// axes V is 0.103 of the product, so that even these cells pass.
    ///
    /// The three outputs, and the base of \p cell (may be null; a primitive reciprocal cell, its pixel size
    /// stays), are set together or, with -1.0, not at all.
    double StepFour_FindLinearIndependentVectors(Parameter* parameter, UnitCell* cell,
                                                 std::vector<Cluster<Point<double>>*>* clusters,
                                                 ClusterPoint<double>* a, ClusterPoint<double>* b,
                                                 ClusterPoint<double>* c);

    /// Replaces three lattice vectors by three short ones of the same lattice: all combinations with
    /// coefficients from -n to n, n = getGridSizeNiggliCell(), the origin left out, are candidates for the
    /// choice of step four. Vectors of both signs are among them, therefore the result does not depend on
    /// which of two opposite vectors was measured. n above 50 counts as 50 (a million combinations).
    ///
    /// This is not the Niggli reduction (NiggliReduction); the three vectors are the shortest that the
    /// limits of angle and determinant admit. Output points may be the input points.
    double StepFive_CalculateNiggliCell(Parameter* parameter, ClusterPoint<double>* a,
                                        ClusterPoint<double>* b, ClusterPoint<double>* c,
                                        ClusterPoint<double>* outA, ClusterPoint<double>* outB,
                                        ClusterPoint<double>* outC);

    /// Fits each direction v to the cluster centres of its own lattice row, those near a multiple n v
    /// (n = ... -2, -1, 1, 2 ...): the least squares of |centre - n v|, weighted with the numbers of points.
    /// Far multiples fix the direction best but can be told only from a good v, hence the fit starts with
    /// |n| = 1 and works outwards. A centre belongs to the row within 0.3 of the shorter of v and the
    /// shortest centre; those that then fit worse than the others lose their weight (Tukey's biweight;
    /// Beaton & Tukey 1974, doi:10.1080/00401706.1974.10489171), so that a wrong cluster moves nothing.
    ///
    /// a, b, c are refined in this order, each when its input point and its flag pointer are given. The
    /// first that is missing ends the chain: "The a-direction can't be refined." (or b, c; Warning). A
    /// direction without cluster centres logs "Error during the refinement of the cell.", no clusters at
    /// all "No clusters loaded during the refinement of the cell." (both Error).
    ///
    /// The flags tell which directions were refined. Outputs of the others are copies of the inputs; with
    /// a null input the output stays as it is. Output points may be the input points. -1.0 when no direction
    /// was refined.
    double StepSix_Refinement(std::vector<Cluster<Point<double>>*>* clusters, ClusterPoint<double>* a,
                              ClusterPoint<double>* b, ClusterPoint<double>* c, ClusterPoint<double>* outA,
                              ClusterPoint<double>* outB, ClusterPoint<double>* outC, bool* aRefined,
                              bool* bRefined, bool* cRefined);

    /// \name Other routes
    /// Ways that the six steps do not take, for hosts that compare. They answer as the steps do: seconds, or
    /// -1.0 (or false) with one line in the log and the outputs untouched. Output points may be the input
    /// points.
    /// @{

    /// Step three by a method of choice. DDSC takes radius and least density from the parameters, as DBSCAN
    /// does, and its clusters are joined where it parts one (postprocessingDDSCclustering()); FSC finds its
    /// radius itself, reports progress to \p observer (may be null) and can be canceled there, which counts
    /// as no clusters. The labels in the grid are those of the clusters, 0 for noise.
    double clusteringStep(Parameter* parameter, CubicGrid<ClusterPoint<double>>* grid,
                          std::vector<Cluster<Point<double>>*>* clusters,
                          std::vector<ClusterPoint<double>*>* noise, ClusteringMethod method,
                          VoxProgressObserver* observer = nullptr);
    /// Step three.
    double clusteringWithDBSCAN(Parameter* parameter, CubicGrid<ClusterPoint<double>>* grid,
                                std::vector<Cluster<Point<double>>*>* clusters,
                                std::vector<ClusterPoint<double>*>* noise);
    /// Step three, after which clusters that are longer than wide (moments that differ by more than a factor
    /// of 10) are clustered again with 0.7 of the radius, and replaced by their parts where they fall apart,
    /// at most \p depth times (not above 8). Parts the rows into which clusters merge along a long axis of
    /// the crystal.
    double rekursivClusteringWithDBSCAN(Parameter* parameter, CubicGrid<ClusterPoint<double>>* grid,
                                        std::vector<Cluster<Point<double>>*>* clusters,
                                        std::vector<ClusterPoint<double>*>* noise, int depth);
    /// Joins clusters that are neighbours, directly or by way of others: DDSC parts a cluster into the shells
    /// of its density. The list, owned by the caller before and after, is numbered anew. False without
    /// clusters.
    bool postprocessingDDSCclustering(std::vector<Cluster<Point<double>>*>* clusters, double reach);
    /// Whether the centres of two clusters are within \p reach of each other.
    static bool checkNeighbourhoodOfCluster(const Cluster<Point<double>>* first,
                                            const Cluster<Point<double>>* second, double reach);

    /// Instead of step four: of all triples of the 40 largest clusters the one whose lattice explains the 80
    /// largest best, against what chance would explain. The vectors need not be short; step five shortens
    /// them.
    double findBasis(Parameter* parameter, std::vector<Cluster<Point<double>>*>* clusters,
                     ClusterPoint<double>* a, ClusterPoint<double>* b, ClusterPoint<double>* c);
    /// Instead of steps two to four: the same with the 40 reflections nearest to the origin as vectors and
    /// the 400 nearest to be explained, for lists too short to have clusters of difference vectors.
    /// \p origin has three coordinates in voxels.
    double testCellDetectionWithReflections(Parameter* parameter, ReflexVector* reflections,
                                            const double* origin, ClusterPoint<double>* a,
                                            ClusterPoint<double>* b, ClusterPoint<double>* c);
    /// Instead of step five: NiggliReduction of the three vectors, right-handed. It narrates to the stream
    /// set there.
    double calculateNiggliCell2(ClusterPoint<double>* a, ClusterPoint<double>* b, ClusterPoint<double>* c,
                                ClusterPoint<double>* outA, ClusterPoint<double>* outB,
                                ClusterPoint<double>* outC);
    /// Instead of step six: all three vectors at once by least squares over the cluster centres within 0.3 of
    /// the shortest of them from a node of their lattice, weighted with the numbers of points. Unlike step
    /// six it uses centres off the rows of the base vectors; one wrong cluster pulls at all three.
    double refineCell(std::vector<Cluster<Point<double>>*>* clusters, ClusterPoint<double>* a,
                      ClusterPoint<double>* b, ClusterPoint<double>* c, ClusterPoint<double>* outA,
                      ClusterPoint<double>* outB, ClusterPoint<double>* outC);
    /// Puts a vector onto the cluster centre (or the opposite of one) that is nearest to it, when that is
    /// within 0.3 of the vector's length.
    bool refineBaseVector(std::vector<Cluster<Point<double>>*>* clusters, Point<double>* vector);
    /// The rows through the origin on which the points of the clusters lie, the one with most points first,
    /// at most \p count (RANSAC). Where clusters merge along a long axis of the crystal, a row is all that is
    /// left of them, and its direction is that of the axis. Points are as uncertain as their cluster is
    /// thick. \p rows is replaced; the inliers in it are counted through the points of all clusters, of which
    /// a regular selection takes part when there are more than 4000.
    double testRANSAC(const std::vector<Cluster<Point<double>>*>* clusters, int count,
                      std::vector<RANSAC::FittedLine>* rows);
    /// @}

private:
    /// What all ways of clustering have in common: messages, flags, pruning and files around \p group, which
    /// fills the lists.
    double clusterBy(const std::function<void()>& group, Parameter* parameter,
                     CubicGrid<ClusterPoint<double>>* grid, std::vector<Cluster<Point<double>>*>* clusters,
                     std::vector<ClusterPoint<double>*>* noise);
    static bool projectAllClusterToLinesAndWriteFiles(const std::vector<Cluster<Point<double>>*>* clusters);
    static void clusterRefinement(std::vector<Cluster<Point<double>>*>* clusters, double fraction);
    static bool findLinearIndependentDiffVectors(std::vector<DiffVector3D*>* candidates,
                                                 const Parameter* parameter, DiffVector3D* a, DiffVector3D* b,
                                                 DiffVector3D* c);
    static bool calculateNiggliCell(const DiffVector3D* a, const DiffVector3D* b, const DiffVector3D* c,
                                    const Parameter* parameter, DiffVector3D* outA, DiffVector3D* outB,
                                    DiffVector3D* outC);
    static std::vector<DiffVector3D> calcLattice(const DiffVector3D* a, const DiffVector3D* b,
                                                 const DiffVector3D* c, int na, int nb, int nc);
    void refineCellNew(std::vector<Cluster<Point<double>>*>* clusters, Point<double>* a, Point<double>* b,
                       Point<double>* c, bool* flagA, bool* flagB, bool* flagC);
    void refineDirectionNew(std::vector<Cluster<Point<double>>*>* clusters, Point<double>* direction,
                            bool* flag);

    VRKLogger* m_logger;
};
