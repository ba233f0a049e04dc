/// \file
/// The nearly reduced bases of a lattice.
#pragma once

#include <array>
#include <span>
#include <vector>

#include "crystallography/detail/LatticeMetric.h"
#include "crystallography/detail/ShortestBase.h"

namespace VRK::detail {

/// A number for a vector with entries from -4 to 4. The name of a sum is the sum of the names.
constexpr int nameOf(const Vector& v) {
    return 81 * v[0] + 9 * v[1] + v[2];
}

/// A nearly reduced base: the axes in the shortest base, and their metric.
struct NearForm {
    Axes axes;
    Metric metric;
    std::array<int, 3> names;  ///< of the axes
    bool fitsFormI;            ///< dot products all positive
    bool fitsFormII;           ///< dot products none positive
};

/// All bases of entries -1, 0, 1, of the handedness of the shortest base, whose edges are as short as those
/// of the shortest base and whose dot products are all positive or none positive, within the looseness
/// (relative to the edges). Always holds the shortest base itself.
///
/// The order: by a, then b, then c, each by its components; then by the pairs of axes that are turned round.
class NearForms {
public:
    NearForms(const Metric& shortest, double looseness);

    std::span<const NearForm> forms() const { return m_forms; }

private:
    struct Short {
        Vector vector;
        Lowered lowered;
        double squared;
    };
    /// The short vectors that may be one of the edges.
    struct Edge {
        std::array<Short, 13> vectors;
        std::size_t count = 0;
    };

    void collectShortVectors(const Metric& shortest);
    void addTriple(const Short& a, const Short& b, const Short& c);
    void addSigns(const Axes& axes, const Metric& m);

    double m_loose;
    std::array<Edge, 3> m_edges;
    std::vector<NearForm> m_forms;
};

}  // namespace VRK::detail
