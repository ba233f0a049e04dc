/// \file
/// Lists beside the frames: of tilts, of frames, of what the experiment was.
#pragma once

#include <filesystem>
#include <iosfwd>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace vrk {

/// What a list says. Absent where it says nothing.
struct FrameList {
    struct Entry {
        std::filesystem::path path;  ///< empty in lists that only count
        double tilt = 0;             ///< degrees
        int frame = -1;              ///< which frame of the file, from 0; -1: the only one
    };
    /// A rotation with constant steps: the frame with the number n is taken at start + (n - first) step.
    struct Sweep {
        double start = 0;  ///< degrees, the middle of the first frame
        double step = 0;   ///< degrees
        long long first = 1;
        std::optional<long long> count;  ///< of the frames, where it is stated
    };

    std::filesystem::path source;
    std::vector<Entry> frames;
    std::optional<Sweep> sweep;
    std::optional<double> kilovolts;
    std::optional<double> pixelSize;   ///< 1/metre per pixel
    std::optional<double> rotation;    ///< degrees per frame; 0: the tilt stands still
    std::optional<double> precession;  ///< half angle of the beam's precession cone, degrees
    std::optional<double> axis;        ///< degrees, as in FrameInfo

    bool namesFiles() const { return !frames.empty() && !frames.front().path.empty(); }
    /// The tilts of frames in these files, in this order. Names are compared without folders and extensions,
    /// so that a list also serves frames that were converted; where they do not fit, the order counts. A
    /// sweep goes by the numbers in the names when some are missing. Throws Failure when there are not as
    /// many tilts as frames.
    std::vector<double> tiltsFor(const std::vector<std::filesystem::path>& files) const;
};

/// The lines of a list, with what its readers need in common.
class ListText {
public:
    /// Throws Failure when the file cannot be read or has more than 50 MB.
    explicit ListText(const std::filesystem::path& path);
    /// A list that is not in a file of its own. \param path  for messages, and the folder of the files it
    /// names
    ListText(std::filesystem::path path, std::istream& text);

    const std::filesystem::path& path() const { return m_path; }
    const std::vector<std::string>& lines() const { return m_lines; }
    /// A path as the list writes it, relative to its folder.
    std::filesystem::path file(std::string name) const;
    /// A tilt; throws Failure that names the line when it is none.
    double tilt(std::size_t line, const std::string& text) const;
    [[noreturn]] void refuse(std::size_t line, const std::string& reason) const;

private:
    void readLines(std::istream& text);

    std::filesystem::path m_path;
    std::vector<std::string> m_lines;
};

/// A kind of list. Each is one source in lists/.
struct ListFormat {
    std::string name;  ///< as messages call it
    bool (*recognise)(const ListText& text);
    FrameList (*read)(const ListText& text);

    struct Registration {
        explicit Registration(ListFormat format);
    };
};

/// Whether a file is a list of a kind with a mark of its own; plain columns of numbers are not.
bool isFrameList(const std::filesystem::path& path);
/// Throws Failure when the file is no list.
FrameList readFrameList(const std::filesystem::path& path);
FrameList readFrameList(const ListText& text);

}  // namespace vrk
