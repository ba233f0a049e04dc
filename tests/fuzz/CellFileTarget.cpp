/// \file
/// Cell files of both versions, and the cells of other programs as numbers.
#include "FuzzInput.h"
#include "crystallography/CellFileImportExport.h"
#include "pipeline/formats/CellInput.h"

FUZZ_TARGET(bytes) {
    static fuzz::MemoryFile file;
    const std::string& path = file.hold(bytes);
    UnitCell cell;
    CellFileImportExport::loadCellFile(path, &cell, 1e7);
    fuzz::refusable([&] {
        const vrk::CellInput input = vrk::cellFromFile(path, 0.0);
        fuzz::expect(!input.primitive.isDegenerate(), "a cell that was read spans a lattice");
    });
}
