#include "VoxCore/DataModel/VoxMRCData.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <span>
#include <sstream>
#include <string>

#include "foundation/VRKLogger.h"

namespace {

/// Text of fixed width from a file, which may hold anything.
std::string printable(std::span<const char> bytes) {
    std::string text(bytes.begin(), bytes.end());
    const auto last = text.find_last_not_of(std::string_view("\0 ", 2));
    text.resize(last == std::string::npos ? 0 : last + 1);
    for (char& c : text)
        if (!std::isprint(static_cast<unsigned char>(c))) c = '.';
    return text;
}

template <typename V>
std::string triple(V a, V b, V c) {
    std::ostringstream text;
    text << a << ' ' << b << ' ' << c;
    return text.str();
}

void log(const std::ostringstream& text) {
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}

}  // namespace

VoxMRCData::VoxMRCData(const VoxMRCData& other) : VoxArray<short>(other), m_Header(other.m_Header) {
    shareHistogramOf(other);
}

VoxMRCData::~VoxMRCData() {
    if (m_SharedHistogram.get() != m_Histogram) delete m_Histogram;
}

void VoxMRCData::holdHistogram() const {
    if (m_SharedHistogram.get() != m_Histogram) m_SharedHistogram.reset(m_Histogram);
}

void VoxMRCData::shareHistogramOf(const VoxMRCData& other) {
    other.holdHistogram();
    m_SharedHistogram = other.m_SharedHistogram;
    m_Histogram = other.m_Histogram;
}

VoxMRCData& VoxMRCData::operator=(const VoxMRCData& other) {
    if (this == &other) return *this;
    VoxArray<short>::operator=(other);
    if (m_Histogram != other.m_Histogram) holdHistogram();
    shareHistogramOf(other);
    m_Header = other.m_Header;
    return *this;
}

VoxMRCData* VoxMRCData::Create3D(unsigned width, unsigned height, unsigned depth) {
    VRKLogger::getInstance()->log(">> VoxMRCData* Create3D", VRK::Debug, VRK::ObjectControl);
    if (width == 0 || height == 0 || depth == 0) return nullptr;
    auto data = std::make_unique<VoxMRCData>();
    if (!data->Init({width, height, depth}, Storage_Auto)) data.reset();
    VRKLogger::getInstance()->log("<< VoxMRCData* Create3D", VRK::Debug, VRK::ObjectControl);
    return data.release();
}

void VoxMRCData::print_MRCHeader() const {
    const mrcH& h = m_Header;
    std::ostringstream t;
    t << " --------------------  printMRCHeader --------------- \n"
      << " ---------------------------------------------------- \n"
      << "Number of columns/rows/sections (nx,ny,nz): " << triple(h.nx, h.ny, h.nz) << '\n'
      << "Mode: " << h.mode << '\n'
      << "First column/row/section in map(default 0): " << triple(h.nxstart, h.nystart, h.nzstart) << '\n'
      << "Number of intervals along X,Y,Z: " << triple(h.mx, h.my, h.mz) << '\n'
      << "Cell dimensions (Angstroms): " << triple(h.xlen, h.ylen, h.zlen) << '\n'
      << "Cell angles (Degrees): " << triple(h.alpha, h.beta, h.gamma) << '\n'
      << "Which axis corresponds to columns/rows/sections: " << triple(h.mapc, h.mapr, h.maps) << '\n'
      << "Minimum density value: " << h.amin << '\n'
      << "Maximum density value: " << h.amax << '\n'
      << "Mean density value: " << h.amean << '\n'
      << "ispg: " << h.ispg << '\n'
      << "nsymbt: " << h.nsymbt << '\n'
      << "next: " << h.next << '\n'
      << "creatid: " << h.creatid << '\n'
      << "unused1[MRC_UNUSED_BLOCK1]: " << printable(h.unused1) << '\n'
      << "nint: " << h.amean << '\n'
      << "nreal: " << h.amin << '\n'
      << "unused2[MRC_UNUSED_BLOCK2]: " << printable(h.unused2) << '\n'
      << "idtype: " << h.idtype << '\n'
      << "lens: " << h.lens << '\n'
      << "nd1: " << h.nd1 << '\n'
      << "nd2: " << h.nd2 << '\n'
      << "nd1: " << h.nd1 << '\n'
      << "nd2: " << h.nd2 << '\n'
      << "vd1: " << h.vd1 << '\n'
      << "vd2: " << h.vd2 << '\n'
      << "tilt angles: " << h.tiltangles[0];
    for (std::size_t i = 1; i < h.tiltangles.size(); ++i)
        t << " : " << h.tiltangles[i];
    t << "\nxorgin: " << h.xorgin << '\n'
      << "yorgin: " << h.yorgin << '\n'
      << "zorgin: " << h.zorgin << '\n'
      << "cmap[4]: " << printable(h.cmap) << '\n'
      << "stamp[4]: " << printable(h.stamp) << '\n'
      << "rms: " << h.rms << '\n'
      << "nlabl: " << h.nlabl << '\n'
      << "labl[800]: " << printable(h.labl) << '\n';
    log(t);
}

void VoxMRCData::print_Extended_MRCHeader() const {
    std::ostringstream t;
    t << "----------------Extended Header -  Slice info -------------------: \n"
      << "Slice NR:  a_tilt |  b_tilt | x_stage | y_stage | z_stage | defocus "
      << " | exp_time | mean_int | tiltaxis | pixelsize | magnification | microscope type "
      << " | gun type | lens type | D number of the microscope | high tension (kV) "
      << " | diffraction lens value \n"
      << "---------------------------------------------------------: \n";
    for (int slice = 0; slice < std::min(m_Header.nz, mrcH::kMaxSlices); ++slice) {
        t << "Slice " << slice << ": ";
        const char* separator = "";
        for (const SliceValue which : kSliceValuePrintOrder) {
            t << separator << m_Header.value(which, slice);
            separator = " | ";
        }
        t << '\n';
    }
    log(t);
}
