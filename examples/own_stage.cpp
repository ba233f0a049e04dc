// A run with a reflection search of its own, which leaves out a ring of ice: own_stage SERIES.mrc
#include <algorithm>
#include <iostream>

#include "pipeline/Pipeline.h"

namespace {

/// The pipeline's own search without what lies between two spacings (Angstrom).
std::vector<vrk::Level> searchWithoutRing(const vrk::ReciprocalVolume& volume,
                                          const vrk::SearchOptions& options, vrk::Session& session,
                                          double outer, double inner) {
    std::vector<vrk::Level> levels = vrk::searchLevels(volume, options, session);
    for (vrk::Level& level : levels)
        std::erase_if(level.reflections, [&](const vrk::FoundReflection& reflection) {
            const double length = (reflection.position - volume.centre()).norm() * volume.facts.pixelSize;
            return 1e10 / length < outer && 1e10 / length > inner;
        });
    return levels;
}

}  // namespace

int main(int, char** arguments) {
    vrk::RunStages stages;
    stages.searchLevels = [](const auto& volume, const auto& options, auto& session) {
        return searchWithoutRing(volume, options, session, 2.28, 2.22);
    };
    vrk::Callbacks observer;
    observer.warning = [](const std::string& text) { std::cerr << "warning: " << text << '\n'; };

    const auto series = vrk::TiltSeries::read(arguments[1], observer);
    const auto result = series ? vrk::run(*series, {}, observer, stages) : series.error();
    if (!result) {
        std::cerr << result.error().text << '\n';
        return 1;
    }
    const std::vector<vrk::ReflectionRow> rows = vrk::reflectionRows(*result);
    const auto inRing = std::count_if(rows.begin(), rows.end(), [](const vrk::ReflectionRow& row) {
        return row.spacing < 2.27 && row.spacing > 2.23;
    });
    std::cout << vrk::conventionalCell(*result).bravais << ", " << rows.size() << " reflections, " << inRing
              << " of them in the ring\n";
}
