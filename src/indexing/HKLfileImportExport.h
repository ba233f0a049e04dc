/// \file
/// The HKL file: indexed reflections in fixed columns for structure solution.
#pragma once

#include <string>

#include "VRKCoreExport.h"

class ReflexVector;

/// Writes HKL files. One line per reflection: h, k, l in four columns each, then the intensity and its
/// standard deviation (the square root of the intensity), 3I4 2F8.2, without header or closing line.
///
/// The number format is chosen once for the whole file by the largest intensity M of the list:
///
/// | M                        | format       | field                                                       |
/// |--------------------------|--------------|-------------------------------------------------------------|
/// | below 100000             | 3I4 2F8.2    | no leading zero: 0.05 is written "     . 5"                  |
/// | below 1000000            | 3I4 2F8.1    | the tenth repeats the last whole digit: 123.4 is "   123.3"  |
/// | below 99999999.5         | 3I4 2F8.0    | no decimal point                                            |
/// | from there on            | 3I4 2Fw.0    | w = number of digits of M rounded; 0 is written "0.00"       |
///
/// Every change from F8.2 is logged as a warning. A number that does not fit its field (or is not finite) is
/// written as blanks and "err"; the rest of its line stays. Readers can rely on the columns and, from F8.1
/// on, on whole units of intensity only.
class VRKCORE_EXPORT HKLfileImportExport {
public:
    /// Writes all indexed reflections (none of h, k, l above 100000), sorted by h, k, l.
    ///
    /// The list itself is sorted. An existing file is replaced. A list that is null, a file that cannot be
    /// opened and a full disk are logged as errors; a file that was begun is then incomplete.
    static void saveHKLFile(ReflexVector* reflections, std::string path);

    /// As saveHKLFile(). \returns whether the complete file was written.
    static bool exportHKLFile(ReflexVector* reflections, const std::string& path);

private:
    static std::string getI4(int value);
    static std::string getF8_2(double value);
    static std::string getF8_1(double value);
    static std::string getF8_0(double value);
    static std::string getFi_0(double value);

    /// Field width of getFi_0, set for each file.
    static int m_fieldWidth;
};
