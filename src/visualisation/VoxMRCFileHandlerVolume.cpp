// The volume-view operations of the file handler. They stand here because the view belongs to the
// visualisation, which the files know nothing of.
#include <ctime>
#include <fstream>
#include <memory>
#include <new>
#include <vector>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "visualisation/VoxVolumeData.h"
#include "visualisation/detail/SliceReduction.h"

using VRK::detail::SliceReduction;

VoxVolumeData* VoxMRCFileHandler::readMRCFile_asVolumeData(const std::string& path, int reduction) {
    std::unique_ptr<std::ifstream> file;
    const std::unique_ptr<mrcH> header = openSeries(path, file);
    if (!header) return nullptr;
    log("Read data ...");
    try {
        SliceReduction view(*header, reduction, SliceReduction::orderOf(*header));
        std::vector<short> slice(static_cast<std::size_t>(header->nx) * static_cast<std::size_t>(header->ny));
        const auto add = [&view](int z, std::span<const short> values) { view.add(z, values); };
        if (!readSlices(
                *file, *header, [&slice](int) { return std::span<short>(slice); }, add))
            return nullptr;
        reportByteCount(*header);
        return std::make_unique<VoxVolumeData>(view.take()).release();
    } catch (const std::bad_alloc&) {
        failAllocation();
    }
}

bool VoxMRCFileHandler::writeMRCFile(VoxVolumeData* volume, const std::string& path, int reduction) {
    m_path = path;
    if (!volume) {
        refuse("there are no data to write");
        return false;
    }
    if (reduction > 1) {
        VoxVolumeData coarser = volume->reduced(reduction);
        return writeMRCFile(&coarser, path, 1);
    }
    const std::size_t width = volume->width();
    const std::size_t height = volume->height();
    const bool turn = SliceReduction::orderOf(volume->header()) == SliceReduction::Order::YFastest;
    std::vector<short> turned(turn ? width * height : 0);
    return writeSlices(path, volume->header(), [&](int z) -> std::span<const short> {
        const auto slice =
            volume->voxels().subspan(static_cast<std::size_t>(z) * width * height, width * height);
        if (!turn) return slice;
        for (std::size_t y = 0; y < height; ++y)
            for (std::size_t x = 0; x < width; ++x)
                turned[x * height + y] = slice[y * width + x];
        return turned;
    });
}

VoxVolumeData* VoxMRCFileHandler::createTestDummyMRCFile_asVolumeData(int reduction) {
    const std::unique_ptr<VoxMRCData> series(createTestDummyMRCFile());
    return std::make_unique<VoxVolumeData>(VoxVolumeData::fromData(*series, reduction)).release();
}
