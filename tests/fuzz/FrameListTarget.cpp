/// \file
/// Lists of tilts and frames. The first byte chooses the extension.
#include "FuzzInput.h"
#include "pipeline/frames/FrameList.h"

FUZZ_TARGET(bytes) {
    if (bytes.empty()) return;
    constexpr std::array<const char*, 5> kNames = {"tilts.txt", "series.mdoc", "series.ed3d", "series.pts",
                                                   "XDS.INP"};
    const char* name = kNames[bytes[0] % kNames.size()];
    fuzz::ByteStream stream(bytes.subspan(1));
    fuzz::refusable([&] {
        const vrk::FrameList list = vrk::readFrameList(vrk::ListText(name, stream));
        for (const vrk::FrameList::Entry& entry : list.frames)
            fuzz::expect(std::isfinite(entry.tilt), "tilts are finite");
        std::vector<std::filesystem::path> files;
        for (std::size_t i = 0; i < std::min<std::size_t>(list.frames.size(), 100); ++i)
            files.push_back(list.frames[i].path);
        if (list.sweep) files = {"frame_1.img", "frame_9223372036854775807.img"};
        fuzz::expect(list.tiltsFor(files).size() == files.size(), "every frame has a tilt");
    });
}
