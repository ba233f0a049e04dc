/// \file
/// The three shortest vectors that span a lattice.
#pragma once

#include <array>
#include <cstddef>

namespace VRK::detail {

/// A lattice vector or axis in integer coordinates of some base.
using Vector = std::array<int, 3>;
/// Three vectors.
using Axes = std::array<Vector, 3>;

/// Found by Semaev (2001), doi:10.1007/3-540-44670-2_13: the third vector is shortened by the lattice of the
/// other two until nothing becomes shorter. Works on the vectors, not on the metric, so that skew bases lose
/// no accuracy; all comparisons are relative.
class ShortestBase {
public:
    /// @param base vectors as columns
    explicit ShortestBase(const double base[3][3]);

    /// False when the vectors span nothing, are not finite, or are so skew that an axis needs entries above
    /// 1e8 (where the digits of the vectors end, too); the axes are then some base of the lattice.
    bool isReduced() const { return m_isReduced; }
    /// The shortest first, in the base given and of its handedness.
    const Axes& axes() const { return m_axes; }
    /// Component k of vector i.
    const double (&vectors() const)[3][3] { return m_vectors; }

private:
    bool reduce();
    void sort();
    bool shortenSecond();
    bool shortenThird();
    void subtract(std::size_t i, std::size_t by, double multiple);

    double m_vectors[3][3];
    Axes m_axes = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}}};
    bool m_isReduced = false;
    bool m_isTurned = false;
    bool m_isTooSkew = false;
};

}  // namespace VRK::detail
