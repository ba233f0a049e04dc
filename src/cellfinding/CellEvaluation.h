/// \file
/// What a cell finding rested on, for a report.
#pragma once

#include <array>
#include <string>
#include <vector>

#include "VRKCoreExport.h"
#include "cellfinding/BaseVectorVerdict.h"
#include "cellfinding/Cluster.h"
#include "cellfinding/ClusterPoint.h"
#include "cellfinding/CubicGrid.h"
#include "cellfinding/Parameter.h"
#include "crystallography/LatticeSymmetry.h"
#include "crystallography/UnitCell.h"
#include "reflections/ReflexVector.h"

/// The evidence for one cell: difference vectors and their clusters, the choice among them, the reduction and
/// the symmetry of the cell, and how far the reflections lie from its nodes.
///
/// Values only; nothing points to what it was made from. Lengths and places are in voxels of the reciprocal
/// volume and angles in degrees, where not said otherwise.
class VRKCORE_EXPORT CellEvaluation {
public:
    using Vector = std::array<double, 3>;

    /// What a cell finding left behind; all of it stays the caller's.
    struct Input {
        std::string method;  ///< of the clustering, for the report
        const Parameter* parameter = nullptr;
        const ReflexVector* reflections = nullptr;
        CubicGrid<ClusterPoint<double>>* grid = nullptr;
        const std::vector<Cluster<Point<double>>*>* clusters = nullptr;
        const std::vector<ClusterPoint<double>*>* noise = nullptr;
        const UnitCell* cell = nullptr;  ///< the answer: reciprocal and primitive
        double pixelSize = 0.0;          ///< 1/m per voxel; 0 is unknown
        Vector origin{};                 ///< place of 000 among the reflections
        double radius = 0.0;  ///< a reflection this near to a node belongs to it; 0: a fourth of the shortest
                              ///< reciprocal vector
    };

    enum class Shape {
        Compact,  ///< the moments differ by at most a factor of 10
        Rod,      ///< one long axis
        Disc      ///< two long axes
    };

    struct ClusterEntry {
        int label;
        int points;
        Vector centre;
        Vector spread;  ///< standard deviations along the principal axes, largest first
        Vector axis;    ///< unit vector of the largest spread
        Shape shape;
        std::array<int, 3> hkl;  ///< of the node of the answer that is nearest in fractional indices
        double distance;         ///< from that node
    };

    /// A cluster centre in the choice of step four, shortest first.
    struct Candidate {
        int label;
        double length;
        BaseVectorVerdict verdict;
        double value;  ///< what decided: the angle, or the volume as a share of the product of the lengths
    };

    /// Reflections between two distances from the origin.
    struct Shell {
        double from;
        double to;
        double resolution;  ///< 1 / distance of the outer bound in Angstrom; 0 without pixel size
        int reflections;
        int indexed;   ///< belong to a node
        Vector mean;   ///< displacement from the nodes, of those indexed
        double along;  ///< its mean part away from the origin: a wrong scale grows with the distance
        double rms;
        double largest;
    };

    /// A, B, C, xi, eta, zeta (a.a, b.b, c.c, 2 b.c, 2 a.c, 2 a.b) of the direct cell on its way to the
    /// Niggli cell, in square Angstrom, or in an arbitrary unit without pixel size.
    using Metric = std::array<double, 6>;

    /// Replaces \p evaluation. False, with one error in the log and \p evaluation as it was, when one of the
    /// pointers is null or the cell is degenerate.
    ///
    /// Runs the Niggli reduction, which is not reentrant; what it narrates goes into niggliSteps instead of
    /// its stream.
    static bool evaluate(const Input& input, CellEvaluation* evaluation);

    /// The report for a reader.
    std::string toText() const;
    /// Writes toText(). False, with one error in the log, when the file cannot be written.
    bool writeText(const std::string& path) const;

    std::string method;
    double minLength = 0.0;  ///< of difference vectors
    double maxLength = 0.0;
    double eps = 0.0;
    int minPts = 0;
    double angleA = 0.0;  ///< limits of the choice
    double angleB = 0.0;
    double detLimit = 0.0;

    int reflections = 0;
    int diffVectors = 0;
    int noiseVectors = 0;
    std::vector<ClusterEntry> clusters;
    std::vector<Candidate> candidates;
    bool hasChoice = false;  ///< whether step four finds three
    /// How many times the reciprocal cell of those three is larger than that of the answer; 1: they span the
    /// same lattice. 0 without a choice, or when one of the three is no node of the answer.
    int choiceIndex = 0;

    std::array<Vector, 3> base{};  ///< of the answer
    double pixelSize = 0.0;
    CellParameters reducedCell{};  ///< direct, in the unit of niggliSteps
    std::vector<Metric> niggliSteps;
    bool isNiggli = false;  ///< whether the last one satisfies the conditions
    std::vector<LatticeCharacter> symmetries;

    double radius = 0.0;
    std::vector<Shell> shells;
    Shell all{};
};
