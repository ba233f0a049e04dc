#include "pipeline/frames/DataFiles.h"

#include <sstream>
#include <string>

#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/LibraryStage.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {

std::unique_ptr<VoxMRCData> readMRC(const std::filesystem::path& path, Session& session) {
    VoxMRCFileHandler handler;
    handler.registerObserver(&session.progress());
    return runStage(session, "read", [&] { return handler.readMRCFile(path.string()); });
}

std::unique_ptr<VoxMRCData> readSeries(const std::filesystem::path& path, Session& session) {
    std::unique_ptr<VoxMRCData> series = readMRC(path, session);
    if (series->m_Header.type != MRCType::TILT_SERIES)
        throw Failure(
            path.string() +
            " holds no tilt series: its first and last tilt angle are both 0. For a volume use 'vrk "
            "peaks' or 'vrk sections'; 'vrk import --tilts' gives a stack its angles");
    return series;
}

std::unique_ptr<VoxMRCData> readVolume(const std::filesystem::path& path, Session& session) {
    std::unique_ptr<VoxMRCData> volume = readMRC(path, session);
    const mrcH& header = volume->m_Header;
    if (header.type == MRCType::MRCVOLUME) return volume;
    std::ostringstream text;
    text << path.string() << " holds a tilt series (" << header.nz << " patterns from " << header.tilt(0)
         << " to " << header.tilt(header.nz - 1)
         << " degrees), not a volume; run 'vrk reconstruct' on it first";
    throw Failure(text.str());
}

void writeData(VoxMRCData& data, const std::filesystem::path& path, Session& session) {
    OutputFile file(path);
    VoxMRCFileHandler handler;
    handler.registerObserver(&session.progress());
    bool written = false;
    {
        const Stage stage(session, "writing");
        written = handler.writeMRCFile(&data, file.path().string());
    }
    session.checkCanceled();
    if (!written)
        throw Failure("cannot write " + path.string() + ": " + session.lastError() +
                      "; check the folder's permissions and the free space");
    file.commit();
}

}  // namespace vrk
