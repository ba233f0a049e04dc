// The cell of reflections that another program found: own_reflections LIST PIXELSIZE
// A line of the list is x y z intensity, in voxels from the origin; the pixel size is in 1/m per voxel.
#include <fstream>
#include <iostream>
#include <string>
#include <vector>

#include "pipeline/Pipeline.h"

int main(int, char** arguments) {
    std::vector<Eigen::Vector3d> places;
    std::vector<double> intensities;
    std::ifstream list(arguments[1]);
    for (double x, y, z, intensity; list >> x >> y >> z >> intensity;) {
        places.emplace_back(x, y, z);
        intensities.push_back(intensity);
    }
    vrk::PeakCellOptions options;
    options.pixelSize = std::stod(arguments[2]);

    const auto found = vrk::findCell(places, intensities, options);
    if (!found) {
        std::cerr << found.error().text << '\n';
        return 1;
    }
    const CellParameters& cell = found->symmetry.symmetrised;
    std::cout << LATTICE::shortName(found->symmetry.bravaisType) << ' ' << cell.a << ' ' << cell.b << ' '
              << cell.c << ' ' << cell.alpha << ' ' << cell.beta << ' ' << cell.gamma << '\n'
              << found->answer.score.indexed << " of " << places.size() << " reflections, confidence "
              << nameOf(found->verdict.level) << '\n';
}
