#include "indexing/IndicateWithHKL.h"

#include <array>
#include <cmath>
#include <sstream>

#include "crystallography/BasicMath.h"
#include "crystallography/UnitCell.h"
#include "foundation/detail/Log.h"
#include "indexing/detail/IndexingPlots.h"
#include "reflections/Reflex.h"
#include "reflections/ReflexVector.h"

namespace {

using VRK::detail::log;
using Vector3 = std::array<double, 3>;
using Outputs = std::array<std::vector<double>*, 8>;

/// Sums of a length and three components and of their squares.
struct Sums {
    std::array<double, 4> plain{};
    std::array<double, 4> squares{};
    int count = 0;

    void add(double length, const Vector3& components) {
        const std::array<double, 4> values = {length, components[0], components[1], components[2]};
        for (std::size_t i = 0; i < values.size(); ++i) {
            plain[i] += values[i];
            squares[i] += values[i] * values[i];
        }
        ++count;
    }
    double mean(std::size_t i) const { return count > 0 ? plain[i] / count : 0.0; }
    double meanSquare(std::size_t i) const { return count > 0 ? squares[i] / count : 0.0; }
};

void append(const Outputs& outputs, std::size_t first, double length, const Vector3& components) {
    if (outputs[first]) outputs[first]->push_back(length);
    for (std::size_t i = 0; i < components.size(); ++i)
        if (outputs[first + 1 + i]) outputs[first + 1 + i]->push_back(components[i]);
}

Vector3 positionOf(Reflex& reflex, int mode) {
    if (mode >= 1 && mode <= 3)
        return {reflex.getCenter(0, mode), reflex.getCenter(1, mode), reflex.getCenter(2, mode)};
    return {reflex.getCenter(0), reflex.getCenter(1), reflex.getCenter(2)};
}

bool isFinite(const Vector3& v) {
    return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

/// Whether all fractional indices are close enough to integers that an int holds and that do not mean "none".
bool nearNode(const Vector3& fractional, const Vector3& nearest, double tolerance) {
    for (std::size_t i = 0; i < 3; ++i) {
        if (!(std::abs(fractional[i] - nearest[i]) <= tolerance)) return false;
        if (std::abs(nearest[i]) >= Reflex::kNotIndexed) return false;
    }
    return true;
}

void logStatistics(const Sums& all, int indexed, std::size_t reflections) {
    static constexpr std::array<const char*, 4> kNames = {"Delta_Z", "Delta_h", "Delta_k", "Delta_l"};
    const auto line = [](const std::string& name, double value) {
        std::ostringstream text;
        text << name << " = " << BasicMath::round(value * 100.0) / 100.0;
        log(text.str());
    };
    for (std::size_t i = 0; i < kNames.size(); ++i)
        line(kNames[i], all.mean(i));
    for (std::size_t i = 0; i < kNames.size(); ++i)
        line(std::string(kNames[i]) + "2", all.meanSquare(i));
    log(std::to_string(indexed) + " of " + std::to_string(reflections) + " reflections could be indicated.");
}

void store(const Sums& indexed, double* result) {
    if (!result) return;
    for (std::size_t i = 0; i < 4; ++i) {
        result[i] = indexed.mean(i);
        result[i + 4] = std::sqrt(indexed.meanSquare(i));
    }
}

void prepareCell(UnitCell& cell) {
    if (cell.isRealCell())
        log("The cell is a direct-space cell; reflections are indexed with the vectors of a reciprocal cell.",
            VRK::Warning);
    if (!cell.isRightHanded()) log("The cell is not right-handed.", VRK::Warning);
    if (cell.isPrimitiv()) return;
    log("The cell is not primitiv. They will be converted into a primitiv cell", VRK::Warning);
    cell.transformIntoPrimitivCell();
}

/// A position between the nodes of a lattice.
struct Placement {
    Vector3 fractional;
    Vector3 nearest;       ///< the nearest integers: the indices of the node
    Vector3 displacement;  ///< from the node, absolute x, y, z
    double length;         ///< of the displacement
};

class Nodes {
public:
    explicit Nodes(const UnitCell& cell)
        : m_edge{cell.getLengthOfA(), cell.getLengthOfB(), cell.getLengthOfC()} {
        cell.getOrientationMatrix(m_matrix);
        m_spanSpace = BasicMath::Invert(m_matrix, m_inverse);
    }
    bool spanSpace() const { return m_spanSpace; }

    Placement placementOf(const Vector3& position) const {
        Placement at;
        Vector3 node;
        BasicMath::MatrixProduct(m_inverse, position.data(), at.fractional.data());
        for (std::size_t i = 0; i < 3; ++i)
            at.nearest[i] = BasicMath::round(at.fractional[i]);
        BasicMath::MatrixProduct(m_matrix, at.nearest.data(), node.data());
        for (std::size_t i = 0; i < 3; ++i)
            at.displacement[i] = std::abs(position[i] - node[i]);
        at.length = BasicMath::Norm(at.displacement.data());
        return at;
    }

    /// Components above half an edge as their distance to the next node.
    Vector3 folded(Vector3 displacement) const {
        for (std::size_t i = 0; i < 3; ++i)
            if (displacement[i] > 0.5 * m_edge[i]) displacement[i] = std::abs(displacement[i] - m_edge[i]);
        return displacement;
    }

private:
    Vector3 m_edge;
    double m_matrix[3][3];
    double m_inverse[3][3];
    bool m_spanSpace;
};

void forgetIndices(ReflexVector& reflections) {
    for (Reflex* reflex : reflections)
        if (reflex) reflex->setHKL(Reflex::kNotIndexed, Reflex::kNotIndexed, Reflex::kNotIndexed);
}

/// Indexes one reflection after the other; returns the sums over the indexed ones.
Sums assignNodes(ReflexVector& reflections, const Nodes& nodes, const Vector3& origin, int mode,
                 double tolerance, const Outputs& outputs) {
    Sums all;
    Sums indexed;
    for (Reflex* reflex : reflections) {
        if (!reflex) continue;
        const Vector3 position = positionOf(*reflex, mode);
        const Vector3 relative = {position[0] - origin[0], position[1] - origin[1], position[2] - origin[2]};
        if (!isFinite(relative)) continue;
        const Placement at = nodes.placementOf(relative);
        all.add(at.length, nodes.folded(at.displacement));
        if (!nearNode(at.fractional, at.nearest, tolerance)) {
            append(outputs, 4, at.length, at.displacement);
            continue;
        }
        reflex->setHKL(static_cast<int>(at.nearest[0]), static_cast<int>(at.nearest[1]),
                       static_cast<int>(at.nearest[2]));
        indexed.add(at.length, at.displacement);
        append(outputs, 0, at.length, at.displacement);
    }
    logStatistics(all, indexed.count, reflections.size());
    return indexed;
}

int refuse(const char* reason) {
    log(std::string("Error during indication. ") + reason, VRK::Error);
    return -1;
}

}  // namespace

int IndicateWithHKL::indicate(VoxMRCData* /*volume*/, UnitCell* cell, ReflexVector* reflections,
                              double* const origin, int mode, double tolerance, double* result,
                              std::vector<double>* out1, std::vector<double>* out2, std::vector<double>* out3,
                              std::vector<double>* out4, std::vector<double>* out5, std::vector<double>* out6,
                              std::vector<double>* out7, std::vector<double>* out8) {
    log(">> IndicateWithHKL::indicate", VRK::Debug, VRK::MethodControl);
    if (!reflections) return refuse("No reflections available");
    if (!cell) return refuse("No cell available");
    if (!origin) return refuse("No origin available");
    prepareCell(*cell);

    const Outputs outputs = {out1, out2, out3, out4, out5, out6, out7, out8};
    for (std::vector<double>* output : outputs)
        if (output) output->clear();
    forgetIndices(*reflections);
    store(Sums(), result);

    const Nodes nodes(*cell);
    if (!nodes.spanSpace()) return refuse("The vectors of the cell lie in a plane or are not finite");
    const Sums indexed =
        assignNodes(*reflections, nodes, {origin[0], origin[1], origin[2]}, mode, tolerance, outputs);
    store(indexed, result);
    log("<< IndicateWithHKL::indicate", VRK::Debug, VRK::MethodControl);
    return indexed.count;
}

bool IndicateWithHKL::generateEvaluationPlot(ReflexVector* reflections, const std::string& folder) {
    const auto plots = VRK::detail::IndexingPlots::of(reflections);
    return plots && plots->evaluation(folder);
}

bool IndicateWithHKL::generateHKLplot(ReflexVector* reflections, const std::string& folder) {
    const auto plots = VRK::detail::IndexingPlots::of(reflections);
    if (!plots) return false;
    bool rendered = plots->projections(folder);
    for (std::size_t index = 0; index < 3; ++index)
        rendered = plots->oneIndex(index, folder) && rendered;
    return rendered;
}

bool IndicateWithHKL::generatePlotOfOne(ReflexVector* reflections, int index, const std::string& folder) {
    if (index < 0 || index > 2) {
        log("Error during plotting. There is no index number " + std::to_string(index), VRK::Error);
        return false;
    }
    const auto plots = VRK::detail::IndexingPlots::of(reflections);
    return plots && plots->oneIndex(static_cast<std::size_t>(index), folder);
}
