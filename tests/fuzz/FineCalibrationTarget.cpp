/// \file
/// Tables of calibrated pixel sizes.
#include "FuzzInput.h"
#include "processing/FineCalibrationImport.h"

FUZZ_TARGET(bytes) {
    static fuzz::MemoryFile file;
    int count = 0;
    const std::unique_ptr<double[]> table(
        FineCalibrationImport::initFineCalibration(file.hold(bytes), &count));
    fuzz::expect(table ? count >= 2 && count % 2 == 0 : count == 0, "a table has pairs");
    for (const double size : std::span(table.get(), static_cast<std::size_t>(count)))
        fuzz::expect(std::isfinite(size) && size > 0.0, "pixel sizes are positive");
    if (table)
        fuzz::expect(FineCalibrationImport::calibratedPixelSize(table.get(), count, table[0]) > 0.0,
                     "a stated size is found");
}
