/// \file
/// The standard setting of conventional axes.
#pragma once

#include "crystallography/detail/LatticeCharacterTable.h"
#include "crystallography/detail/ShortestBase.h"

namespace VRK::detail {

/// Orders, shortens and turns conventional axes as LatticeSymmetry states for their type.
class ConventionalSetting {
public:
    /// @param axes of a conventional cell of the type, in a base with the metric `reduced`, which must
    /// outlive this object
    ConventionalSetting(LATTICE::BravaisTypes type, const Axes& axes, const Metric& reduced);

    /// Right-handed in the base.
    const Axes& axes() const { return m_axes; }

private:
    double product(std::size_t i, std::size_t j) const;
    void swapIfLonger(std::size_t i, std::size_t j);
    void sortAxes();
    void centreOnC();
    void setMonoclinic(bool isCentredOnC);
    bool shorten(std::size_t i, std::size_t by, int step);
    void setObverse();

    Axes m_axes;
    const Metric& m_reduced;
};

/// The conventional axes of a row of the table, in the reduced base and the standard setting of the type.
Axes standardAxes(const CharacterRow& row, const Metric& reduced);

}  // namespace VRK::detail
