/// \file
/// The kinds of frame files. Each is one source in readers/, which describes itself to this list.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "pipeline/frames/FrameFile.h"

namespace vrk {

/// The beginning of a file, unpacked.
struct FileStart {
    std::string_view bytes;  ///< up to 4096
    std::string extension;   ///< of the name, in lower case, with the dot, without .gz and .bz2
};

/// A kind of frame file.
struct FrameFormat {
    enum class Match {
        No,
        Perhaps,  ///< nothing speaks against it, but files of this kind have no mark of their own
        Yes
    };

    std::string name;
    Match (*recognise)(const FileStart& start);
    std::unique_ptr<FrameFile> (*open)(FrameSource source);

    /// The format that is surest of the file; null when all say no. Throws Failure when the file cannot be
    /// read.
    static const FrameFormat* of(const FrameSource& source);
    /// "CBF, MRC, SMV, ..."
    static std::string names();

    /// A reader has one of these at namespace scope, so that a new format needs no other file to know it.
    struct Registration {
        explicit Registration(FrameFormat format);
    };
    /// For FrameFile classes that are made of a source alone.
    template <class File>
    static std::unique_ptr<FrameFile> openAs(FrameSource source) {
        return std::make_unique<File>(std::move(source));
    }
};

}  // namespace vrk
