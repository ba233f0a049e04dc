/// \file
/// From a list of reflections to the cell of their lattice.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <vector>

#include "cellfinding/CellEvaluation.h"
#include "crystallography/LatticeSymmetry.h"
#include "pipeline/base/Session.h"
#include "pipeline/formats/PeakList.h"
#include "pipeline/latticesearch/CellSearch.h"
#include "pipeline/latticesearch/Confidence.h"
#include "pipeline/run/CellOptions.h"
#include "pipeline/run/Indexing.h"

namespace vrk {

/// What a user may say about a list and about the search in it.
struct PeakCellOptions {
    CellOptions cell;
    double pixelSize = 0.0;               ///< 1/m per voxel; 0 takes that of the peak file
    double kiloVolts = 0.0;               ///< 0: the usual ones are tried
    std::optional<double> mergeDistance;  ///< voxels, 0: merge nothing; nothing: found (mergingDistance)
    int crystals = 2;                     ///< that are looked for, at most; 1: the first alone
    std::filesystem::path dump;           ///< folder for what the steps see; empty: none
};

/// The cell of a crystal beside the first one.
struct FurtherPeakCell {
    UnitCell reciprocal;  ///< reduced; of pixel size 1 when that is unknown
    LatticeCharacter symmetry;
    Verdict verdict;
    bool sameCell = false;       ///< as the first crystal
    std::optional<double> turn;  ///< from the first crystal, where the cells are alike, degrees
    double share = 0.0;          ///< of all reflections that lie on it and on no crystal before
};

/// A cell and what it rests on.
struct PeakCell {
    std::size_t peaks = 0;        ///< in the list
    double mergeDistance = 0.0;   ///< within which they were put together, voxels; 0: they were not
    Points points;                ///< relative to the origin
    Points corrected;             ///< the same without curvature and distortion, as far as these are known
    std::vector<double> weights;  ///< intensities
    LatticeCandidate answer;      ///< refined, and of the corrected points; has the pixel size
    double rivalEvidence = 0.0;   ///< of the second best lattice
    Parameter parameter;          ///< of the answer's trial
    bool isReproducible = false;  ///< the trial alone leads to the answer
    std::optional<Completeness> completeness;  ///< by what the file or the points say was recorded
    /// The answer refined with the distortion of the frames; nothing where the turn that recorded the list is
    /// not known, or too few reflections lie on it.
    std::optional<Indexed> indexed;
    double wavelength = 0.0;    ///< by which its curvature was taken out, Angstrom; 0: it was not
    UnitCell reciprocal;        ///< reduced, refined; of pixel size 1 when that is unknown
    LatticeCharacter symmetry;  ///< its measured cell obeys the ties where the answer was refined
    Verdict verdict;
    std::vector<FurtherPeakCell> others;

    double pixelSize() const { return answer.lattice.pixelSize; }
    bool hasScale() const { return pixelSize() > 0.0; }
};

/// Merges the peaks, searches with the values that were given fixed, and takes the winner once more from its
/// own values alone, so that giving them all finds the same lattice again. Where the head of the file or the
/// part of reciprocal space that the points leave empty tells how the crystal turned, the answer is refined,
/// judged and followed by further crystals as in a run: curvature of the Ewald sphere, distortion of the
/// frames and ties of the lattice together. Elsewhere a lattice in which a distortion would not show is a
/// guess.
///
/// Throws Failure (NothingFound) for too few reflections, reflections in one plane, and when no lattice
/// beats chance or the one that does is not determined in all directions; (Usage) for a pixel size that no
/// crystal agrees with.
PeakCell findCell(const PeakList& peaks, const PeakCellOptions& options, Session& session);

/// The evidence for an answer; writes the dump where one is wanted.
CellEvaluation evaluate(const PeakCell& cell, const PeakCellOptions& options, Session& session);

}  // namespace vrk
