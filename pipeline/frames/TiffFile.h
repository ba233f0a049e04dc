/// \file
/// TIFF frames, one or several pages.
#pragma once

#include <string>

#include "pipeline/frames/FrameFile.h"

namespace vrk {

/// Grey pages of 8 or 16 bits, signed or not, and of 32-bit integers or floating-point numbers, in every
/// compression that the image library reads. TIFF says nothing about tilt or pixel size.
class TiffFile : public FrameFile {
public:
    explicit TiffFile(const std::filesystem::path& path);
    static bool recognises(const std::string& firstBytes);

    Frame read(int frame) const override;
};

}  // namespace vrk
