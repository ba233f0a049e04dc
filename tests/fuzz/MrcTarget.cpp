/// \file
/// MRC files: the header alone, all of it, and reduced for display.
#include <stdexcept>

#include "FuzzInput.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "pipeline/frames/FileReport.h"

FUZZ_TARGET(bytes) {
    static fuzz::MemoryFile file;
    const std::string& path = file.hold(bytes);
    VoxMRCFileHandler handler;
    const std::unique_ptr<mrcH> header(handler.readMRCFile_onlyHeader(path));
    if (!header) return;
    // Large volumes are read once in a while: filling them with nothing takes nearly all of the time.
    const double voxels = 1.0 * header->nx * header->ny * header->nz;
    if (std::abs(voxels) > 1e5 && bytes.size() % 61 != 0) return;
    try {
        const std::unique_ptr<VoxMRCData> data(handler.readMRCFile(path));
        if (!data) return;
        fuzz::expect(data->GetDataSize() == static_cast<std::size_t>(voxels), "all voxels are there");
        vrk::inspect(*data, bytes.size());
        const std::unique_ptr<VoxVolumeData> view(handler.readMRCFile_asVolumeData(path, 2));
        fuzz::expect(view != nullptr, "what can be read can be looked at");
    } catch (const std::runtime_error&) {
        // Sizes that no data set can have.
    }
}
