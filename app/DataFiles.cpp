#include "DataFiles.h"

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
    if (volume->m_Header.type != MRCType::MRCVOLUME)
        throw Failure(path.string() + " holds a tilt series, no volume; run 'vrk reconstruct' on it first");
    return volume;
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
