#include "console/CentreOption.h"

#include <filesystem>

#include "pipeline/base/NumberList.h"

namespace vrk::app {
namespace {

bool parsePlace(const std::string& text, double& x, double& y) {
    const std::size_t comma = text.find(',');
    return comma != std::string::npos && parseNumber(text.substr(0, comma), x) &&
           parseNumber(text.substr(comma + 1), y);
}

std::string problemOfCentre(const std::string& text) {
    double x = 0.0, y = 0.0;
    if (text == "none" || parsePlace(text, x, y) || std::filesystem::is_regular_file(text)) return {};
    return "the centre is X,Y in pixels, a file with a tilt, x and y in each line, or 'none', not '" + text +
           "'";
}

}  // namespace

void addCentreOption(Command& command, std::string& text) {
    command
        .option("--centre", text,
                "Direct beam in pixels from the middle of the first one, for all patterns; a file with a "
                "tilt, x and y in each line; or 'none' for the middle of the frames [searched]")
        .check(problemOfCentre)
        .typeName("X,Y|FILE|none");
}

void setCentre(CentreChoice& choice, const std::string& text) {
    if (text.empty()) return;
    if (text == "none") {
        choice.source = CentreChoice::Source::Middle;
    } else if (parsePlace(text, choice.x, choice.y)) {
        choice.source = CentreChoice::Source::Given;
    } else {
        choice.source = CentreChoice::Source::File;
        choice.file = text;
    }
}

}  // namespace vrk::app
