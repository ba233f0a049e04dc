// What a viewer shows first, a slice through the origin of a volume: volume_slice VOLUME.mrc PICTURE.pgm
// Large volumes are read coarse: the whole volume is never in memory.
#include <algorithm>
#include <fstream>
#include <iostream>

#include "VoxCore/DataModel/VoxVolumeData.h"
#include "pipeline/Pipeline.h"
#include "pipeline/frames/DataFiles.h"

int main(int, char** arguments) {
    constexpr int kEdge = 256;  // pixels that the picture has at least
    const auto volume = vrk::attempt(vrk::silence(), [&](vrk::Session& session) {
        return vrk::readVolumeView(arguments[1], kEdge, session);
    });
    if (!volume) {
        std::cerr << volume.error().text << '\n';
        return 1;
    }
    const VoxVolumeData& view = **volume;
    const auto z = static_cast<unsigned>(view.middle()[2] + 0.5);
    std::ofstream picture(arguments[2], std::ios::binary);
    picture << "P5\n" << view.width() << ' ' << view.height() << "\n255\n";
    for (const short counts :
         view.voxels().subspan(view.width() * view.height() * z, view.width() * view.height()))
        picture.put(static_cast<char>(std::clamp(counts / 4, 0, 255)));
    std::cout << view.width() << " x " << view.height() << " of " << view.depth() << " slices, one voxel of "
              << view.reduction() << '\n';
}
