/// \file
/// Crystal structures as CIF, up to the intensities of their reflections.
#include "FuzzInput.h"
#include "pipeline/simulation/SimulatedCrystal.h"

FUZZ_TARGET(bytes) {
    fuzz::refusable([&] {
        const vrk::SimulatedCrystal crystal =
            vrk::SimulatedCrystal::fromCifText(fuzz::textOf(bytes), "structure.cif", 2.0);
        const std::array<double, 6>& cell = crystal.cell();
        // Some thousand reflections at most, whatever the cell.
        const double dmin = 0.2 * std::cbrt(cell[0] * cell[1] * cell[2]);
        for (const vrk::CrystalReflection& one : crystal.reflections(std::max(dmin, 1.0)))
            fuzz::expect(std::isfinite(one.intensity) && one.intensity >= 0.0, "intensities are numbers");
        crystal.primitiveCell();
    });
}
