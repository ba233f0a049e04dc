/// \file
/// SMV frames (.img).
#pragma once

#include <map>
#include <string>

#include "pipeline/frames/FrameFile.h"
#include "pipeline/frames/PixelDecoder.h"

namespace vrk {

/// A text header between braces, HEADER_BYTES long, of lines KEY=VALUE; and the pixels of one frame.
///
/// The tilt is the middle of the rotation, OSC_START + OSC_RANGE / 2, or PHI where there is no OSC_START. The
/// pixel size is PIXEL_SIZE / (DISTANCE WAVELENGTH), millimetres and Angstrom. SIZE1 is the width. TYPE may
/// be unsigned_char, unsigned_short, short, unsigned_long, long or float; BYTE_ORDER is little_endian unless
/// stated. BEAM_CENTER_X and _Y are not used: the centre of every pattern is found in the frames themselves.
class SmvFile : public FrameFile {
public:
    explicit SmvFile(const std::filesystem::path& path);
    static bool recognises(const std::string& firstBytes);

    Frame read(int frame) const override;

private:
    using Keys = std::map<std::string, std::string>;
    Keys readHeader();
    void readLayout(const Keys& keys);
    void readGeometry(const Keys& keys);
    std::optional<double> number(const Keys& keys, const std::string& key) const;
    long long requiredInteger(const Keys& keys, const std::string& key) const;

    long long m_headerBytes = 0;
    PixelType m_type = PixelType::UInt16;
    bool m_bigEndian = false;
};

}  // namespace vrk
