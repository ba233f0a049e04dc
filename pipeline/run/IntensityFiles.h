/// \file
/// The files with which structures are solved and refined.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

#include "pipeline/base/Session.h"
#include "pipeline/run/RunResult.h"

namespace vrk {

/// What the files say beside the data.
struct CrystalText {
    std::string title;
    std::string formula;  ///< of one formula unit; may be empty
};

/// Writes the reflections for structure solution, \returns their paths:
///
/// - reflections.hkl and crystal.ins: HKLF 4, scaled, not merged, and the instructions;
/// - crystal2.hkl, crystal2.ins, crystal3.hkl ...: the same of further crystals;
///
/// and, of intensities measured on the frames,
///
/// - merged.mtz, merged.cif: in the space group that the absences leave first;
/// - unmerged.mtz, XDS_ASCII.HKL: every reflection with its place, for other scaling programs; not scaled;
/// - frames.csv: every reflection on every frame;
/// - dynamical.cif_pets: sums over virtual frames, for dynamical refinement.
///
/// Without them the HKL file has the sums over the volume. Throws Failure when one cannot be written.
/// \param format  "shelx", "mtz", "cif", "xds", "frames" or "pets" alone; empty: all
std::vector<std::filesystem::path> writeIntensityFiles(const RunResult& result, const CrystalText& text,
                                                       const std::string& format,
                                                       const std::filesystem::path& folder);

}  // namespace vrk
