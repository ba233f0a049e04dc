/// \file
/// Image files: equalised histogram images, and pictures with labels.
#pragma once

#include <string>

#include "VRKCoreExport.h"
#include "visualisation/PlaneImage.h"

/// Files are PNG files and need names that end in .png, unless a function says otherwise.
/// Every function returns false, with an error logged that names the file, when the image is empty, the
/// file cannot be written or its name has another ending. Values that are not finite are drawn black.
class VRKCORE_EXPORT VoxOpenCV {
public:
    /// Equalises the histogram, so that faint structure shows, and saves as 8-bit grey.
    /// \param pixels  width x height values of 0 ... 255 (others are clamped), x fastest
    static bool SaveImageWithEqualizeHist(const int* pixels, int width, int height, const std::string& path);

    /// Saves with a scale that shows weak spots beside strong ones: grey = asinh(value / s) with s the median
    /// of the positive values and the 99.98th percentile white. Values of zero and below are black. A border
    /// makes the file's picture larger than the image by its margins.
    static bool SaveImage(const PlaneImage& image, const std::string& path, const ImageOverlay& overlay = {});

    /// Uncompressed 8-bit grey TGA file, rows stored from the top.
    static bool SaveTGA(const PlaneImage& image, const std::string& path);
};
