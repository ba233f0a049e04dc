/// \file
/// PNG files of pictures with 8 bits for a value.
#pragma once

#include <string>
#include <vector>

#include "VRKCoreExport.h"

/// Rows from the top without gaps, x fastest.
class VRKCORE_EXPORT PictureFile {
public:
    /// What the bytes of a pixel are.
    enum class Pixel { Grey = 1, BlueGreenRed = 3 };

    static constexpr unsigned kMostPixels = 1U << 26;

    struct Grey {
        int width = 0;
        int height = 0;
        std::vector<unsigned char> values;
    };

    /// Whether a name ends in .png, in small letters or capitals.
    static bool IsNamedSo(const std::string& path);

    /// \param values  width x height pixels
    /// \returns whether the whole file was written. What a full disk leaves of it stays.
    static bool Write(const unsigned char* values, int width, int height, Pixel pixel,
                      const std::string& path);

    /// The brightness of a PNG file of any kind; without pixels when the file is damaged or none, or has more
    /// than kMostPixels.
    static Grey ReadGrey(const std::string& path);
};
