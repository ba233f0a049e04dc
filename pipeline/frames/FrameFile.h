/// \file
/// Frames as microscopes and collection programs write them.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "pipeline/base/FileChecksum.h"
#include "pipeline/frames/FrameSource.h"

namespace vrk {

/// One frame's counts, x fastest, rows in the order of the file. Pixels that the detector or its program
/// marked as dead are no numbers (NaN).
struct Frame {
    int width = 0;
    int height = 0;
    std::vector<float> pixels;
};

/// What a file says about one of its frames. Absent where it says nothing.
struct FrameInfo {
    int width = 0;
    int height = 0;
    std::optional<double> tilt;      ///< degrees, the middle of the frame's rotation
    std::optional<double> rotation;  ///< degrees covered while the frame was exposed; 0: the tilt stood still
    std::optional<double> precession;  ///< half angle of the beam's precession cone, degrees
    std::optional<double> pixelSize;   ///< 1/metre per pixel
    std::optional<double> kilovolts;   ///< acceleration voltage
    std::optional<double>
        axis;  ///< direction of the tilt axis, degrees; along (-sin t, cos t), y down the file
    std::optional<double> exposure;  ///< seconds
};

/// A file of one or several frames. Frames are read one at a time, so that memory holds one of them.
class FrameFile {
public:
    virtual ~FrameFile() = default;
    FrameFile(const FrameFile&) = delete;
    FrameFile& operator=(const FrameFile&) = delete;

    /// Asks every FrameFormat whether it understands the contents. Headers are checked against the length of
    /// the file, before memory is taken.
    /// \param path          a file, or FILE:/PLACE for a data set within a file of such
    /// \param allowOutside  frames may lie in files that this one names outside its folder, too
    /// Throws Failure that names the file and what is wrong with it.
    static std::unique_ptr<FrameFile> open(const std::filesystem::path& path, bool allowOutside = false);
    static std::unique_ptr<FrameFile> open(FrameSource source);

    const std::filesystem::path& path() const { return m_source.path(); }
    int count() const { return static_cast<int>(m_infos.size()); }
    const FrameInfo& info(int frame) const { return m_infos.at(static_cast<std::size_t>(frame)); }
    /// Throws Failure when the frame cannot be read in full.
    Frame read(int frame) const;

    /// Which of the frames that the file announces are not there and why; empty when all are. The others can
    /// be read.
    const std::string& damage() const { return m_damage; }
    /// Files that hold frames of this one: they are no frames for themselves.
    virtual std::vector<std::filesystem::path> parts() const { return {}; }

protected:
    explicit FrameFile(FrameSource source) : m_source(std::move(source)) {}
    virtual Frame readFrame(int frame) const = 0;

    const FrameSource& source() const { return m_source; }
    /// Throws Failure: "cannot import PATH: REASON".
    [[noreturn]] void refuse(const std::string& reason) const;
    /// Refuses sizes that no camera has (1 to 16384 pixels).
    void checkSize(long long width, long long height) const;
    /// Checks the size and makes infos of it.
    /// \param complete  frames that the file is long enough for; when there are fewer than \p count, but
    ///                  some, the rest is damage
    void setFrames(long long count, long long complete, long long width, long long height);

    std::vector<FrameInfo> m_infos;  ///< one per frame that is there
    std::string m_damage;

private:
    /// Refuses frames of which so few bytes are there that they could only be empty.
    void checkPacking() const;

    FrameSource m_source;
    std::optional<FileState> m_state;  ///< of a file on disk, when it was opened
};

}  // namespace vrk
