/// \file
/// Frames as microscopes and collection programs write them.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace vrk {

/// One frame's counts, x fastest, rows in the order of the file.
struct Frame {
    int width = 0;
    int height = 0;
    std::vector<float> pixels;
};

/// What a file says about one of its frames. Absent where it says nothing.
struct FrameInfo {
    int width = 0;
    int height = 0;
    std::optional<double> tilt;       ///< degrees, the middle of the frame's rotation
    std::optional<double> rotation;   ///< degrees covered while the frame was exposed
    std::optional<double> pixelSize;  ///< 1/metre per pixel
    std::optional<double> kilovolts;  ///< acceleration voltage
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

    /// Recognises SMV, TIFF and MRC files by their content. Headers are checked against the length of the
    /// file; throws Failure that names the file and what is wrong with it.
    static std::unique_ptr<FrameFile> open(const std::filesystem::path& path);

    const std::filesystem::path& path() const { return m_path; }
    int count() const { return static_cast<int>(m_infos.size()); }
    const FrameInfo& info(int frame) const { return m_infos.at(static_cast<std::size_t>(frame)); }
    /// Throws Failure when the frame cannot be read in full.
    virtual Frame read(int frame) const = 0;

protected:
    explicit FrameFile(std::filesystem::path path) : m_path(std::move(path)) {}
    /// Throws Failure: "cannot import PATH: REASON".
    [[noreturn]] void refuse(const std::string& reason) const;
    /// Refuses sizes that no camera has (1 to 16384 pixels).
    void checkSize(long long width, long long height) const;

    std::filesystem::path m_path;
    std::vector<FrameInfo> m_infos;  ///< one per frame
};

}  // namespace vrk
