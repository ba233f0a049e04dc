/// \file
/// MRC frames and stacks of other programs.
#pragma once

#include <span>

#include "pipeline/frames/FrameFile.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {

/// Modes 0 (8 bits), 1 (16 bits signed), 2 (floating point) and 6 (16 bits unsigned), little- or big-endian.
/// Mode 0 is signed unless the file's flags or its stated maximum say otherwise.
///
/// Extended headers: FEI1 and FEI2 records, the older records of 128 bytes, those of 144 bytes that this
/// program writes, and SerialEM's with tilts. Their tilt, voltage and exposure are used, and their pixel size
/// where it is reciprocal (1/metre; images have metres). Their tilt axis is not, except in records of this
/// program: microscopes state it for images, and patterns are rotated against those.
class MrcStack : public FrameFile {
public:
    explicit MrcStack(const std::filesystem::path& path);

    Frame read(int frame) const override;

private:
    void readHeader(std::span<const char> header);
    void readExtendedHeader(std::span<const char> header, std::span<const char> extended);
    void readNewRecords(std::span<const char> extended);
    void readFloatRecords(std::span<const char> extended, std::size_t recordBytes);
    bool floatRecordsFit(std::span<const char> extended, std::size_t recordBytes) const;
    void readSerialRecords(std::span<const char> extended, std::size_t recordBytes);
    std::size_t frames() const { return m_infos.size(); }

    bool m_bigEndian = false;
    PixelType m_type = PixelType::Int16;
    long long m_dataStart = 0;
};

}  // namespace vrk
