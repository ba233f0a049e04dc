/// \file
/// The crystals of a series beside the one that gave the lattice.
#pragma once

#include <optional>
#include <vector>

#include "pipeline/run/Indexing.h"
#include "pipeline/run/Intensities.h"

namespace vrk {

/// A crystal beside the first one.
struct FurtherCrystal {
    /// Among the reflections that no crystal before explains; its share of indexed ones is of these.
    Indexed indexed;
    bool sameCell = false;       ///< as the first crystal
    std::optional<double> turn;  ///< from the first one, degrees, the smallest of all equivalent ones
    double share = 0.0;          ///< of all reflections of the list that this crystal alone explains
    double strongShare = 0.0;    ///< of the strong reflections of the list that this crystal alone explains
    std::optional<Intensities> intensities;  ///< without the spots that another crystal covers
};

struct Crystals {
    std::vector<FurtherCrystal> others;
    double firstShare = 1.0;  ///< of the strong reflections that lie on the first crystal's nodes
};

/// How they are looked for.
struct CrystalSearch {
    int most = 2;           ///< crystals in all
    bool anyCell = true;    ///< other cells than the first crystal's, too
    CellOptions cell = {};  ///< of the search for these
};

/// Looks for further crystals as long as more than a tenth of the strong reflections, which are the stronger
/// half, or of all of them lie on none. What lies on nodes of two crystals counts to the first of them. With
/// others found, the confidence in the first crystal no longer suffers from their reflections, and its cell,
/// type and instrument become those of the reflections that lie on its nodes alone, unless those have fewer
/// ties than all. Others with the same cell get its type where their reflections bear it. The axis that one
/// of the crystals confirms is confirmed for all.
///
/// Where reflections scatter widely about the nodes of the first lattice, it may lie between the parts of a
/// split crystal; it becomes the lattice of one part when the other part is found then.
///
/// Where nothing is left over on the level that was indexed, the lower one that gave the lattice is looked
/// through, on which a weak crystal shows; with one found it becomes the level of the first crystal.
///
/// A first lattice that is itself hardly more than a guess is followed by no other.
/// \param rival  runner-up of the first lattice; may be null. That of another crystal is none.
Crystals findFurtherCrystals(Indexed& first, const LatticeCandidate* rival, const Recording& recording,
                             const CrystalSearch& how, Session& session);

/// Flags the reflections whose spots another crystal covers (kReflectionShared) and reduces what is left
/// once more, unless hardly any is left. \param crystals  intensities of one series \param frames  of the
/// series \param centrings of the crystals
void separateCrystals(std::vector<Intensities*> crystals, const std::vector<char>& centrings,
                      std::size_t frames);

}  // namespace vrk
