/// \file
/// What gzip and bzip2 packed.
#include "FuzzInput.h"
#include "pipeline/frames/FrameSource.h"

FUZZ_TARGET(bytes) {
    constexpr std::size_t most = 1 << 20;
    const vrk::FrameSource source("frame.gz", std::make_shared<const std::string>(fuzz::textOf(bytes)));
    std::string start;
    fuzz::refusable([&] { start = source.beginning(100); });
    fuzz::expect(start.size() <= 100, "no more than was asked for");
    fuzz::refusable([&] {
        const std::string all = source.everything(most);
        fuzz::expect(all.size() <= most && all.starts_with(start), "the whole begins as its beginning does");
    });
}
