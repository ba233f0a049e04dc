/// \file
/// Lists of frames with the ending .ed3d.
#include <cmath>
#include <sstream>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {
namespace {

bool recogniseEd3dList(const ListText& text) {
    return text.path().extension() == ".ed3d";
}

/// Lines KEYWORD VALUE and, between FILELIST and ENDFILELIST, lines FILE NAME TILT ... whose names are
/// relative to the list. ROTATIONAXIS counts from x towards higher rows of the file, an axis' angle from y:
/// 90 less.
FrameList readEd3dList(const ListText& text) {
    FrameList list;
    bool inFiles = false;
    for (std::size_t i = 0; i < text.lines().size(); ++i) {
        std::istringstream words(text.lines()[i]);
        std::string keyword;
        std::string first;
        std::string second;
        words >> keyword >> first >> second;
        if (keyword == "FILELIST") inFiles = true;
        if (keyword == "ENDFILELIST") break;
        if (inFiles && keyword == "FILE") {
            list.frames.push_back({text.file(first), text.tilt(i, second)});
            continue;
        }
        double value = 0;
        if (!parseNumber(first, value)) continue;
        if (keyword == "WAVELENGTH" && value > 0) list.kilovolts = EwaldCurvature::kiloVolts(value);
        if (keyword == "CCDPIXELSIZE" && value > 0) list.pixelSize = value * 1e10;
        if (keyword == "GONIOTILTSTEP" && value != 0) list.rotation = std::abs(value);
        if (keyword == "ROTATIONAXIS") list.axis = std::remainder(value - 90, 360);
    }
    if (list.frames.empty())
        throw Failure("cannot import " + text.path().string() +
                      ": it lists no frames (lines FILE NAME TILT after FILELIST)");
    return list;
}

const ListFormat::Registration kEd3d({".ed3d", recogniseEd3dList, readEd3dList});

}  // namespace
}  // namespace vrk
