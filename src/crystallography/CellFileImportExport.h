/// \file
/// Cells in files: version 1 (36 bytes) and version 2 (commented text).
#pragma once

#include <string>

#include "VRKCoreExport.h"

class UnitCell;

/// Every operation returns true on success. Failures are logged and change nothing. Messages are Normal or
/// Debug, failures Error. No file is read further than one line (256 characters of it) at a time.
///
/// Version 1 holds nine little-endian floats, the orientation matrix row by row: a_x b_x c_x a_y b_y c_y
/// a_z b_z c_z, in whatever space and unit the cell has. Version 2 holds the reciprocal vectors in pixels
/// (six significant digits) and, to be read by people, the parameters of the reciprocal and direct cells.
///
/// Reading is forgiving: a number that is missing or is no finite decimal number reads as 0, and so do the
/// numbers after it in its line. A host asks UnitCell::isDegenerate() before it uses a cell from a file.
class VRKCORE_EXPORT CellFileImportExport {
public:
    static bool writeCellFile_version_1(const std::string& file, double* a, double* b, double* c);
    /// Writes the cell's vectors as they are.
    static bool writeCellFile_version_1(const std::string& file, UnitCell* cell);

    static bool loadCellFile_version_1(const std::string& file, double* a, double* b, double* c);
    /// The cell becomes a reciprocal, primitive cell of type aP; its pixel size stays.
    static bool loadCellFile_version_1(const std::string& file, UnitCell* cell);

    /// Writes the reciprocal cell of a direct cell and a reciprocal cell as it is. Direct edges outside
    /// 0.001 to 10000 Angstrom are written as zeros.
    static bool writeCellFile_version_2(const std::string& file, UnitCell* cell);
    /// The cell becomes a reciprocal, primitive cell of type aP with the pixel size given (1/m per pixel).
    static bool loadCellFile_version_2(const std::string& file, UnitCell* cell, double pixelsize);

    /// Either version; the pixel size has no effect on version 1.
    static bool loadCellFile(const std::string& file, UnitCell* cell, double pixelsize);
    static bool loadCellFile(const std::string& file, double* a, double* b, double* c, double pixelsize);
};
