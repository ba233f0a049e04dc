/// \file
/// Pixel sizes that were calibrated on a known sample, from a text file.
#pragma once

#include <string>

#include "VRKCoreExport.h"

/// Reads fine-calibration files. docs/fine-calibration.md describes the format: a line for each setting of
/// the microscope with two numbers, the pixel size that the microscope states and the calibrated one, both in
/// 1/m per pixel; '#' begins a comment.
class VRKCORE_EXPORT FineCalibrationImport {
public:
    /// Reads a file and checks it as a whole.
    /// \param[out] count length of the returned table, 0 on failure; not null
    /// \return the numbers in the order of the file, a stated and a calibrated pixel size in turn: *count is
    /// twice
    ///         the number of lines with numbers. The caller owns it (delete[]). Null, with one Error line
    ///         that names the file, the line and what is wrong: a file that does not exist or cannot be read,
    ///         larger than 1 MiB, without numbers, a line that is not two positive numbers, a calibrated size
    ///         that differs from the stated one by more than a factor of 2, a stated size that occurs twice.
    static double* initFineCalibration(std::string path, int* count);

    /// The calibrated pixel size for a stated one: that of the line whose stated size agrees within 0.1 %.
    /// Series that were binned by 2, 4, 8 or 16 find the line of the unbinned one; the size is scaled. 0 when
    /// there is none, which recoByAngle() takes for "not calibrated".
    static double calibratedPixelSize(const double* table, int count, double statedPixelSize);
};
