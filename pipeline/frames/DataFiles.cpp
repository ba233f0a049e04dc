#include "pipeline/frames/DataFiles.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <fstream>
#include <limits>
#include <sstream>
#include <string>

#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/FileChecksum.h"
#include "pipeline/base/LibraryStage.h"
#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/OutputFile.h"
#include "pipeline/frames/FileContent.h"

namespace vrk {
namespace {

void checkVolume(const mrcH& header, const std::filesystem::path& path) {
    if (header.type == MRCType::MRCVOLUME) return;
    std::ostringstream text;
    text << path.string() << " holds a tilt series (" << header.nz << " patterns from " << header.tilt(0)
         << " to " << header.tilt(header.nz - 1)
         << " degrees), not a volume; run 'vrk reconstruct' on it first";
    throw Failure(text.str());
}

}  // namespace

namespace {

/// Throws Failure for a file that lacks more than fifteen sixteenths of its data: the library reads what is
/// there, and most of it would be made up.
void refuseHeaderWithoutData(const std::filesystem::path& path, const mrcH& header) {
    const auto length = static_cast<std::int64_t>(std::filesystem::file_size(path));
    const std::int64_t start = 1024 + std::int64_t{std::max(header.next, 0)};
    const std::int64_t announced = std::int64_t{2} * header.nx * header.ny * header.nz;
    const std::int64_t present = std::max<std::int64_t>(length - start, 0);
    if (16 * present >= announced) return;
    throw Failure(path.string() + ": its header announces " + std::to_string(announced) +
                  " bytes of data, but only " + std::to_string(present) +
                  " follow; the file was cut, is packed or belongs to another format");
}

}  // namespace

void requireMemoryToRead(const std::filesystem::path& path) {
    std::array<std::uint32_t, 3> sizes{};
    std::ifstream file(path, std::ios::binary);
    if (!file.read(reinterpret_cast<char*>(sizes.data()), sizeof sizes)) return;
    const std::uint64_t area = std::uint64_t{sizes[0]} * sizes[1];
    const std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
    if (area == 0 || sizes[2] == 0 || area > most || sizes[2] > most / area) return;
    requireMemory(2 * area * sizes[2], path.string() + ": " + std::to_string(sizes[2]) + " slices of " +
                                           std::to_string(sizes[0]) + " x " + std::to_string(sizes[1]) +
                                           " pixels");
}

std::unique_ptr<VoxMRCData> readMRC(const std::filesystem::path& path, Session& session) {
    refuseUnlessMrc(path);
    requireMemoryToRead(path);
    std::error_code ignored;
    const FileState state = std::filesystem::exists(path, ignored) ? stateOf(path) : FileState();
    VoxMRCFileHandler handler;
    handler.registerObserver(&session.progress());
    return runStage(session, "read", [&] {
        std::unique_ptr<VoxMRCData> data(handler.readMRCFile(path.string()));
        if (data) refuseHeaderWithoutData(path, data->m_Header);
        refuseChanged(path, state);
        return data.release();
    });
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
    checkVolume(volume->m_Header, path);
    return volume;
}

std::unique_ptr<VoxVolumeData> readVolumeView(const std::filesystem::path& path, int edge, Session& session) {
    refuseUnlessMrc(path);
    VoxMRCFileHandler handler;
    handler.registerObserver(&session.progress());
    const std::unique_ptr<mrcH> header =
        runStage(session, "header", [&] { return handler.readMRCFile_onlyHeader(path.string()); });
    checkVolume(*header, path);
    int reduction = 8;
    while (reduction > 1 && std::max({header->nx, header->ny, header->nz}) < std::int64_t{edge} * reduction)
        reduction /= 2;
    return runStage(session, "read", [&] {
        return handler.readMRCFile_asVolumeData(path.string(), reduction, VoxVolumeData::Block::Maximum);
    });
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
