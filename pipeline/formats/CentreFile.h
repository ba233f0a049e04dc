/// \file
/// A text file with the centres of the patterns of a series.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <vector>

#include "VoxCore/DataModel/mrcH.h"
#include "processing/PatternCentre.h"

namespace vrk {

/// Reads the centres of a series: a line for each pattern with its tilt (degrees) and the place of its direct
/// beam (pixels from the middle of the first one, x to the right, y down the file); what follows in a line is
/// left alone, and so are empty lines and those that begin with '#'. The lines are matched with the patterns
/// by their tilts, whatever their order; patterns without a line take the centre between the nearest ones.
/// Throws Failure that names the line when the file cannot be read or a line makes no sense, and when no tilt
/// matches.
std::vector<PatternCentre> readCentreFile(const std::filesystem::path& path, const mrcH& header);
/// \param path  for messages
std::vector<PatternCentre> readCentres(std::istream& text, const std::filesystem::path& path,
                                       const mrcH& header);

/// Writes one that readCentreFile() takes, with uncertainty and origin of each centre behind it.
/// Throws Failure when it cannot be written.
void writeCentreFile(const std::filesystem::path& path, const std::vector<double>& tilts,
                     const std::vector<PatternCentre>& centres);

/// "beam", "pattern", "neighbours", "given", "lattice" or "none".
const char* nameOf(PatternCentre::Source source);

}  // namespace vrk
