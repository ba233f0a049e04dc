/// \file
/// The whole run on a tiny series: a made-up crystal that the bytes disturb, or noise of their own.
#include "FuzzInput.h"
#include "pipeline/Pipeline.h"

FUZZ_TARGET(bytes) {
    fuzz::Numbers numbers(bytes);
    const int edge = numbers.whole(16, 48);
    const int frames = numbers.whole(3, 9);
    const double step = numbers.within(1.0, 15.0);
    std::vector<double> tilts;
    for (int i = 0; i < frames; ++i)
        tilts.push_back(numbers.whole(0, 20) == 0 ? numbers.any() : (i - 0.5 * frames) * step);
    vrk::SeriesStatement statement;
    statement.pixelSize = numbers.whole(0, 9) == 0 ? numbers.any() : 2.5e8;
    statement.kiloVolts = numbers.whole(0, 9) == 0 ? numbers.any() : 200.0;
    if (numbers.flag()) statement.axis = numbers.within(-90.0, 90.0);
    vrk::RunOptions options;
    options.cell.clustering = static_cast<ClusteringMethod>(numbers.whole(0, 2));
    options.intensities.wanted = numbers.flag();
    if (numbers.whole(0, 3) == 0) options.search.threshold = numbers.any();

    // Spots of a square lattice, and whatever the bytes put in.
    const int period = numbers.whole(3, 12);
    const auto area = static_cast<std::size_t>(edge * edge);
    std::vector<float> pixels(area * static_cast<std::size_t>(frames));
    for (std::size_t i = 0; i < pixels.size(); ++i) {
        const int x = static_cast<int>(i % area) % edge - edge / 2;
        const int y = static_cast<int>(i % area) / edge - edge / 2;
        pixels[i] = 20.0F + (x == 0 && y == 0                     ? 30000.0F
                             : x % period == 0 && y % period == 0 ? 400.0F
                                                                  : 0.0F);
    }
    while (numbers.more()) {
        const auto at = static_cast<std::size_t>(numbers.whole(0, static_cast<int>(pixels.size()) - 1));
        const auto count = static_cast<std::size_t>(numbers.whole(1, 64));
        std::fill_n(pixels.begin() + static_cast<std::ptrdiff_t>(at), std::min(count, pixels.size() - at),
                    static_cast<float>(numbers.any()));
    }
    const vrk::Result<vrk::TiltSeries> series =
        vrk::TiltSeries::of<float>(pixels, edge, edge, tilts, statement);
    if (!series) return fuzz::expect(!series.error().text.empty(), "a refusal says why");
    const vrk::Result<vrk::RunResult> result = vrk::run(*series, options);
    if (!result) fuzz::expect(!result.error().text.empty(), "a refusal says why");
}
