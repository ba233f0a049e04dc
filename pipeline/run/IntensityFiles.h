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

/// The kinds of files for structure solution and refinement. Those after Cif need intensities measured on the
/// frames.
enum class ReflectionFile {
    Shelx,              ///< HKLF 4, scaled, not merged
    ShelxInstructions,  ///< that belong to it
    Mtz,                ///< merged in the space group that the absences leave first
    Cif,                ///< the same
    UnmergedMtz,        ///< every reflection with its place, not scaled
    XdsAscii,           ///< the same
    FrameTable,         ///< every reflection on every frame
    DynamicalCif        ///< sums over virtual frames
};

/// Writes one file of the first crystal. Without intensities measured on the frames the first four hold the
/// sums over the volume, not merged. Throws Failure when the file cannot be written and (Usage) for a kind
/// that there are no data for.
void writeReflectionFile(const RunResult& result, ReflectionFile kind, const std::filesystem::path& path,
                         const CrystalText& text);

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
