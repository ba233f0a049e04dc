/// \file
/// Numbers, cells and formulas as options give them.
#include <set>

#include "FuzzInput.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/formats/CellInput.h"
#include "pipeline/formats/ReflectionFormats.h"

FUZZ_TARGET(bytes) {
    const std::string text(fuzz::textOf(bytes));
    double value = 0.0;
    if (vrk::parseNumber(text, value)) fuzz::expect(std::isfinite(value), "numbers are finite");
    fuzz::refusable([&] {
        for (const auto& [element, count] : vrk::parseFormula(text)) {
            fuzz::expect(!element.empty() && std::isfinite(count), "atoms are counted");
            // A fit, the same each time.
            static std::set<std::string> fitted;
            if (fitted.insert(element).second) vrk::electronScatteringFactor(element);
        }
    });
    fuzz::refusable([&] {
        const std::vector<double> numbers = vrk::numbersOf(text, ',', "--cell");
        if (numbers.size() < 6) return;
        const vrk::CellInput input = vrk::cellFromNumbers(numbers, "PABCIFR"[bytes.size() % 7]);
        fuzz::expect(!input.cell.isDegenerate(), "a cell that was taken spans a lattice");
    });
}
