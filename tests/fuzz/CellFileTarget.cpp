/// \file
/// Cell files of both versions, with and without a pixel size beside them.
#include "FuzzInput.h"
#include "pipeline/formats/CellInput.h"

FUZZ_TARGET(bytes) {
    static fuzz::MemoryFile file;
    const std::string& path = file.hold(bytes);
    const double pixelSize = bytes.size() % 2 == 0 ? 0.0 : 1e7;
    fuzz::refusable([&] {
        const vrk::CellInput input = vrk::cellFromFile(path, pixelSize);
        fuzz::expect(!input.primitive.isDegenerate(), "a cell that was read spans a lattice");
    });
}
