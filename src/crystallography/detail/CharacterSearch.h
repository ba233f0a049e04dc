/// \file
/// Which lattice characters fit a lattice.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "crystallography/detail/FitLimits.h"
#include "crystallography/detail/LatticeCharacterTable.h"
#include "crystallography/detail/NearForms.h"

namespace VRK::detail {

/// Rows of the table: bit i is the row with index i.
using RowSet = std::uint64_t;

/// A row of the table and the nearly reduced base that fits it best.
struct CharacterFit {
    const CharacterRow* row;
    NearForm form;
    double score;  ///< FitLimits::score
};

/// Holds every row of the table against every nearly reduced base.
///
/// A base is tried where it meets the conditions of the row within three times the looseness. It replaces the
/// best base before it when its score is lower by more than rounding (kBetter); an exact fit is not replaced.
/// A monoclinic cell is judged in its standard setting, which follows from the unique axis: of several bases
/// with the same one the first counts, and the angles before may be twice as far off. A triclinic cell fits
/// every base; the first that is reduced counts.
class CharacterSearch {
public:
    static constexpr double kBetter = 1.0 - 1e-9;

    /// @param shortest metric of the three shortest vectors
    CharacterSearch(const Metric& shortest, const LatticeTolerances& tolerances);

    /// The triclinic character, then the others in the order of the table.
    std::vector<CharacterFit> fits() const;

private:
    struct Best {
        const NearForm* form = nullptr;
        double score = 0.0;
        double squaredSine = 0.0;  ///< what a right angle may be off before the cell is judged
    };

    void tryRows(const NearForm& form);
    RowSet& rowsTriedWith(std::size_t row, const NearForm& form);
    void judgeMonoclinic(std::size_t row, const NearForm& form);
    void judge(std::size_t row, const NearForm& form, const Metric& conventional);
    CharacterFit triclinicFit() const;

    FitLimits m_limits;
    RowSet m_pending;  ///< rows without an exact fit
    NearForms m_near;
    std::array<Best, kLatticeCharacters.size()> m_best;
    /// For each direction, named without its sign, the monoclinic rows that have been tried with it as unique
    /// axis.
    std::array<RowSet, nameOf({4, 4, 4}) + 1> m_rowsByAxis = {};
};

}  // namespace VRK::detail
