#include "pipeline/formats/CentreFile.h"

#include <algorithm>
#include <cmath>
#include <fstream>
#include <iomanip>
#include <sstream>
#include <string>

#include "pipeline/base/Failure.h"
#include "pipeline/base/OutputFile.h"

namespace vrk {
namespace {

struct Line {
    double tilt = 0.0;
    PatternCentre centre;
};

std::vector<Line> readLines(std::istream& file, const std::filesystem::path& path) {
    std::vector<Line> lines;
    constexpr std::size_t kMost = 100000;
    std::size_t number = 0;
    for (std::string text; std::getline(file, text) && lines.size() < kMost;) {
        ++number;
        const std::size_t first = text.find_first_not_of(" \t\r");
        if (first == std::string::npos || text[first] == '#') continue;
        Line line;
        line.centre.source = PatternCentre::Source::Given;
        std::istringstream words(text);
        if (!(words >> line.tilt >> line.centre.x >> line.centre.y))
            throw Failure(path.string() + ", line " + std::to_string(number) +
                          ": a tilt in degrees and the two coordinates of a centre in pixels are expected");
        lines.push_back(line);
    }
    if (file.bad()) throw Failure("cannot read the centres in " + path.string() + " to their end");
    return lines;
}

/// Between the nearest patterns that have one.
void fillGaps(std::vector<PatternCentre>& centres) {
    const auto given = [](const PatternCentre& c) { return c.source == PatternCentre::Source::Given; };
    for (auto gap = centres.begin(); gap != centres.end(); ++gap) {
        if (gap->source != PatternCentre::Source::None) continue;
        const auto after = std::find_if(gap, centres.end(), given);
        const auto before = std::find_if(std::make_reverse_iterator(gap), centres.rend(), given);
        const PatternCentre& a = before != centres.rend() ? *before : *after;
        const PatternCentre& b = after != centres.end() ? *after : *before;
        double part = 0.0;
        if (before != centres.rend() && after != centres.end()) {
            const auto from = before.base() - 1;
            part = static_cast<double>(gap - from) / static_cast<double>(after - from);
        }
        gap->x = a.x + part * (b.x - a.x);
        gap->y = a.y + part * (b.y - a.y);
        gap->source = PatternCentre::Source::Neighbours;
    }
}

}  // namespace

std::vector<PatternCentre> readCentreFile(const std::filesystem::path& path, const mrcH& header) {
    std::ifstream file(path);
    if (!file) throw Failure("cannot read the centres in " + path.string());
    return readCentres(file, path, header);
}

std::vector<PatternCentre> readCentres(std::istream& text, const std::filesystem::path& path,
                                       const mrcH& header) {
    constexpr double kSameTilt = 0.005;  // degrees
    const std::vector<Line> lines = readLines(text, path);
    std::vector<PatternCentre> centres(static_cast<std::size_t>(std::max(header.nz, 0)));
    bool any = false;
    for (std::size_t i = 0; i < centres.size(); ++i) {
        const double tilt = header.tilt(static_cast<int>(i));
        const auto same = std::find_if(lines.begin(), lines.end(), [&](const Line& line) {
            return std::abs(line.tilt - tilt) < kSameTilt;
        });
        if (same == lines.end()) continue;
        centres[i] = same->centre;
        any = true;
    }
    if (!any)
        throw Failure(path.string() +
                      " has no centre for any tilt of the series; each line takes a tilt in degrees, x and y "
                      "in pixels");
    fillGaps(centres);
    return centres;
}

void writeCentreFile(const std::filesystem::path& path, const std::vector<double>& tilts,
                     const std::vector<PatternCentre>& centres) {
    OutputFile file(path);
    std::ofstream stream(file.path());
    stream << "# tilt/degrees  x/pixels  y/pixels  s.u./pixels  from  remarks\n" << std::fixed;
    for (std::size_t i = 0; i < std::min(tilts.size(), centres.size()); ++i) {
        const PatternCentre& centre = centres[i];
        if (centre.source == PatternCentre::Source::None) continue;
        stream << std::setprecision(4) << std::setw(10) << tilts[i] << std::setprecision(3) << std::setw(11)
               << centre.x << std::setw(11) << centre.y << std::setw(8) << centre.error << "  "
               << nameOf(centre.source) << (centre.jumped ? " jump" : "")
               << (centre.doubtful ? " doubtful" : "") << '\n';
    }
    stream.close();
    if (!stream) throw Failure("cannot write " + path.string() + "; check the free space");
    file.commit();
}

const char* nameOf(PatternCentre::Source source) {
    switch (source) {
        case PatternCentre::Source::Beam:
            return "beam";
        case PatternCentre::Source::Pattern:
            return "pattern";
        case PatternCentre::Source::Neighbours:
            return "neighbours";
        case PatternCentre::Source::Given:
            return "given";
        case PatternCentre::Source::Lattice:
            return "lattice";
        case PatternCentre::Source::None:
            break;
    }
    return "none";
}

}  // namespace vrk
