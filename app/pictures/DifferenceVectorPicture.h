/// \file
/// A picture of the difference vectors of a reflection list with the lattice that was found in them.
#pragma once

#include <filesystem>

#include "pictures/PictureSheet.h"
#include "pipeline/latticesearch/LatticeScore.h"

namespace vrk::app {

/// Three views, along z, y and x: the density of the difference vectors up to a length, with a ring round
/// every vector of the lattice and its base vectors as arrows. Vectors of the lattice show as bright spots
/// inside the rings. Throws Failure when the picture cannot be written.
void writeDifferenceVectorPicture(const Points& points, const Lattice& lattice, double maxLength,
                                  const PictureNotes& notes, const std::filesystem::path& path);

}  // namespace vrk::app
