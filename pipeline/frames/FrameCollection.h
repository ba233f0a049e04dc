/// \file
/// The frames that a user names: files, folders, lists.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "pipeline/frames/FrameFile.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {

/// A frame of a file. Files of one frame are opened again for reading, so that not all are open at a time.
struct FrameReference {
    std::shared_ptr<FrameFile> file;  ///< null when the frame cannot be read
    std::filesystem::path path;
    int index = 0;
    FrameInfo info;
};

/// Frames in the order in which they were named, those of a folder in the order of the numbers in their
/// names.
struct FrameCollection {
    std::vector<FrameReference> frames;
    std::vector<std::string> bad;                  ///< why frames cannot be read, each with its file
    std::vector<std::filesystem::path> listsNear;  ///< lists in the folders that were named
};

struct CollectionSettings {
    std::vector<std::filesystem::path> files;  ///< files of frames, folders, lists that name frames
    bool skipBad = false;                      ///< keep the place of frames that cannot be read
    bool allowOutside = false;                 ///< lists may name frames outside their folders
};

/// Of a folder's files those of the most frequent kind are taken. A folder of lists alone stands for the one
/// list in it. What a list in the folder says and the frames do not (tilt, axis, voltage, pixel size) is
/// taken from there when it is the only one. Files that hold frames of others are left out.
/// \param warn      is told of every choice that was made
/// \param canceled  asked after every file; true ends the collection early
/// Throws Failure when frames cannot be read, unless they are to be skipped, and when there are none.
FrameCollection collectFrames(const CollectionSettings& settings,
                              const std::function<void(const std::string&)>& warn,
                              const std::function<bool()>& canceled);

/// Takes over what a list says about the experiment; \p overwrite: also where the frames say it themselves.
void describeBy(const FrameList& list, FrameInfo& info, bool overwrite);

/// Names with numbers in the order of the numbers: frame_2 before frame_10.
bool naturallyBefore(const std::string& left, const std::string& right);

}  // namespace vrk
