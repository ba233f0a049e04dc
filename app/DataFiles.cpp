#include "DataFiles.h"

#include <sstream>
#include <string>

#include "Failure.h"
#include "OutputFile.h"
#include "ReadMRC.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"

namespace host {

std::unique_ptr<VoxMRCData> readSeries(const std::filesystem::path& path, Host& host) {
    std::unique_ptr<VoxMRCData> series = readMRC(host, path);
    if (series->m_Header.type != MRCType::TILT_SERIES)
        throw Failure(
            path.string() +
            " holds no tilt series: its first and last tilt angle are both 0. For a volume use 'vrk "
            "peaks' or 'vrk sections'; 'vrk import --tilts' gives a stack its angles");
    return series;
}

std::unique_ptr<VoxMRCData> readVolume(const std::filesystem::path& path, Host& host) {
    std::unique_ptr<VoxMRCData> volume = readMRC(host, path);
    const mrcH& header = volume->m_Header;
    if (header.type == MRCType::MRCVOLUME) return volume;
    std::ostringstream text;
    text << path.string() << " holds a tilt series (" << header.nz << " patterns from " << header.tilt(0)
         << " to " << header.tilt(header.nz - 1)
         << " degrees), not a volume; run 'vrk reconstruct' on it first";
    throw Failure(text.str());
}

void writeData(VoxMRCData& data, const std::filesystem::path& path, Host& host) {
    OutputFile file(path);
    VoxMRCFileHandler handler;
    handler.registerObserver(&host.progress());
    host.progress().stage("writing");
    const bool written = handler.writeMRCFile(&data, file.path().string());
    host.progress().finish();
    host.checkCanceled();
    if (!written)
        throw Failure("cannot write " + path.string() + ": " + host.log().lastError() +
                      "; check the folder's permissions and the free space");
    file.commit();
}

}  // namespace host
