/// \file
/// Frames in memory. kFrameName is the name under which they are handed over: its extension decides where the
/// first bytes do not.
#include "FuzzInput.h"
#include "pipeline/frames/FrameFile.h"

extern const char* const kFrameName;

FUZZ_TARGET(bytes) {
    const auto held = std::make_shared<const std::string>(fuzz::textOf(bytes));
    fuzz::refusable([&] {
        const std::unique_ptr<vrk::FrameFile> file = vrk::FrameFile::open(vrk::FrameSource(kFrameName, held));
        fuzz::expect(file->count() > 0, "a file of frames has frames");
        for (int i = 0; i < std::min(file->count(), 3); ++i) {
            const vrk::FrameInfo& info = file->info(i);
            const vrk::Frame frame = file->read(i);
            fuzz::expect(
                frame.width == info.width && frame.height == info.height &&
                    frame.pixels.size() == static_cast<std::size_t>(1LL * frame.width * frame.height),
                "a frame has the size that was announced");
        }
    });
}
