#include "pipeline/frames/FrameCollection.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <set>

#include "pipeline/base/Failure.h"
#include "pipeline/frames/FrameFormat.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

bool naturalPaths(const fs::path& left, const fs::path& right) {
    return naturallyBefore(left.string(), right.string());
}

/// What lies in a folder.
struct FolderContents {
    std::map<std::string, std::vector<fs::path>> frames;  ///< by the name of their format
    std::vector<fs::path> lists;
    std::vector<fs::path> others;
    std::size_t folders = 0;
};

/// ".img", of packed files ".img.gz".
std::string endingOf(const fs::path& file) {
    const std::string last = file.extension().string();
    return last == ".gz" || last == ".bz2" ? file.stem().extension().string() + last : last;
}

/// Files that are called frames, as those are called that were recognised, and are none: they are empty, cut,
/// or may not be read. Without them the frames that follow would get the wrong places.
void addNamesakes(std::vector<fs::path>& frames, const std::vector<fs::path>& others) {
    std::set<std::string> endings;
    for (const fs::path& frame : frames)
        endings.insert(endingOf(frame));
    endings.erase("");
    for (const fs::path& file : others)
        if (endings.contains(endingOf(file))) frames.push_back(file);
    std::stable_sort(frames.begin(), frames.end(), naturalPaths);
}

/// "2 lists, 1 other file", "nothing"
std::string textOf(const FolderContents& contents) {
    std::string text;
    const auto add = [&](std::size_t count, const std::string& one, const std::string& many) {
        if (count > 0)
            text += (text.empty() ? "" : ", ") + std::to_string(count) + ' ' + (count == 1 ? one : many);
    };
    add(contents.lists.size(), "list", "lists");
    add(contents.others.size(), "file of another kind or that cannot be read",
        "files of other kinds or that cannot be read");
    add(contents.folders, "folder", "folders");
    return text.empty() ? "nothing" : text;
}

FolderContents contentsOf(const fs::path& folder) {
    FolderContents contents;
    std::error_code error;
    std::vector<fs::path> files;
    for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
        if (entry.path().filename().string().starts_with(".")) continue;
        if (entry.is_directory(error))
            ++contents.folders;
        else if (entry.is_regular_file(error))
            files.push_back(entry.path());
    }
    if (error) throw Failure("cannot read the folder " + folder.string() + ": " + error.message());
    std::sort(files.begin(), files.end(), naturalPaths);
    for (const fs::path& file : files) {
        const FrameFormat* format = nullptr;
        try {
            format = FrameFormat::of(FrameSource(file));
        } catch (const Failure&) {  // one of the others
        }
        if (format)
            contents.frames[format->name].push_back(file);
        else if (isFrameList(file))
            contents.lists.push_back(file);
        else
            contents.others.push_back(file);
    }
    return contents;
}

class Collector {
public:
    Collector(const CollectionSettings& settings, const std::function<void(const std::string&)>& warn,
              const std::function<bool()>& canceled)
        : m_settings(settings), m_warn(warn), m_canceled(canceled) {}

    FrameCollection run();

private:
    std::vector<fs::path> ordered() const;
    void add(const fs::path& path);
    void addFolder(const fs::path& folder);
    void addFile(const fs::path& path);
    void addList(const fs::path& path);
    std::shared_ptr<FrameFile> open(const fs::path& path);
    void fillIn(std::size_t first, const std::vector<fs::path>& lists);
    void dropParts();
    bool isPart(const fs::path& path) const;
    void refuseOrNote(const std::string& reason, const fs::path& path);

    const CollectionSettings& m_settings;
    const std::function<void(const std::string&)>& m_warn;
    const std::function<bool()>& m_canceled;
    FrameCollection m_result;
    std::set<fs::path> m_parts;  ///< files that hold frames of others
};

/// A shell's alphabetical order puts frame_10 before frame_2.
std::vector<fs::path> Collector::ordered() const {
    std::vector<fs::path> files = m_settings.files;
    if (!std::is_sorted(files.begin(), files.end()) ||
        std::is_sorted(files.begin(), files.end(), naturalPaths))
        return files;
    std::stable_sort(files.begin(), files.end(), naturalPaths);
    m_warn(
        "the frames are taken in the order of the numbers in their names (2 before 10), not alphabetically");
    return files;
}

FrameCollection Collector::run() {
    for (const fs::path& path : ordered()) {
        add(path);
        if (m_canceled()) return std::move(m_result);
    }
    dropParts();
    const auto readable = [](const FrameReference& frame) { return frame.file != nullptr; };
    if (m_result.frames.empty()) throw Failure("there are no frames to import", FailureKind::Usage);
    if (std::none_of(m_result.frames.begin(), m_result.frames.end(), readable))
        throw Failure("none of the " + std::to_string(m_result.frames.size()) +
                      " frames can be read; the first: " + m_result.bad.front());
    return std::move(m_result);
}

void Collector::add(const fs::path& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) return addFolder(path);
    if (isPart(path)) return;
    if (isFrameList(path)) return addList(path);
    addFile(path);
}

void Collector::addFolder(const fs::path& folder) {
    FolderContents contents = contentsOf(folder);
    if (contents.frames.empty()) {
        if (contents.lists.size() == 1 && readFrameList(contents.lists[0]).namesFiles()) {
            m_warn("the frames are those that " + contents.lists[0].string() + " names");
            return addList(contents.lists[0]);
        }
        throw Failure("the folder " + folder.string() + " holds no frames (" + FrameFormat::names() +
                      "), but " + textOf(contents) + "; give the folder in which the frames themselves lie");
    }
    const auto most =
        std::max_element(contents.frames.begin(), contents.frames.end(),
                         [](const auto& a, const auto& b) { return a.second.size() < b.second.size(); });
    std::string others;
    for (const auto& [name, files] : contents.frames)
        if (name != most->first) others += ", " + std::to_string(files.size()) + " " + name;
    if (!others.empty())
        m_warn("of the frames in " + folder.string() + " the " + std::to_string(most->second.size()) + " " +
               most->first + " files are taken; left out are" + others.substr(1));
    const std::size_t first = m_result.frames.size();
    addNamesakes(most->second, contents.others);
    for (const fs::path& file : most->second) {
        if (!isPart(file)) addFile(file);
        if (m_canceled()) return;
    }
    fillIn(first, contents.lists);
}

void Collector::refuseOrNote(const std::string& reason, const fs::path& path) {
    if (!m_settings.skipBad) throw Failure(reason + "; --skip-bad leaves out what cannot be read");
    m_result.bad.push_back(reason);
    if (!path.empty()) m_result.frames.push_back({nullptr, path, 0, {}});
}

std::shared_ptr<FrameFile> Collector::open(const fs::path& path) {
    try {
        std::shared_ptr<FrameFile> file = FrameFile::open(path, m_settings.allowOutside);
        if (!file->damage().empty())
            refuseOrNote("cannot import all of " + path.string() + ": " + file->damage(), {});
        for (const fs::path& part : file->parts())
            m_parts.insert(part.lexically_normal());
        return file;
    } catch (const Failure& failure) {
        const std::string reason = failure.what();
        if (reason.find("--skip-bad") != std::string::npos) throw;
        refuseOrNote(reason, path);
        return nullptr;
    }
}

void Collector::addFile(const fs::path& path) {
    const std::shared_ptr<FrameFile> file = open(path);
    for (int i = 0; file && i < file->count(); ++i)
        m_result.frames.push_back({file, path, i, file->info(i)});
}

void Collector::addList(const fs::path& path) {
    const FrameList list = readFrameList(path);
    if (!list.namesFiles())
        throw Failure(path.string() + " lists tilts, but no frames; give it with --tilts, and the frames");
    std::shared_ptr<FrameFile> file;
    for (const FrameList::Entry& entry : list.frames) {
        if (m_canceled()) return;
        if (!m_settings.allowOutside && !liesWithin(entry.path, path.parent_path()))
            throw Failure(path.string() + " names " + entry.path.string() +
                          ", which lies outside its folder; --allow-outside takes frames from anywhere");
        if (!file || file->path() != entry.path) file = open(entry.path);
        if (!file) {
            m_result.frames.back().info.tilt = entry.tilt;
            continue;
        }
        if (entry.frame < 0 ? file->count() != 1 : entry.frame >= file->count())
            throw Failure(
                "cannot import " + path.string() + ": " + entry.path.string() + " holds " +
                std::to_string(file->count()) + " frames" +
                (entry.frame < 0 ? ", more than the one that is named" : ", not as many as are named"));
        const int index = std::max(entry.frame, 0);
        FrameInfo info = file->info(index);
        info.tilt = entry.tilt;
        describeBy(list, info, true);
        m_result.frames.push_back({file, entry.path, index, info});
    }
}

/// Takes over what a list in the folder says and its frames do not.
void Collector::fillIn(std::size_t first, const std::vector<fs::path>& lists) {
    m_result.listsNear.insert(m_result.listsNear.end(), lists.begin(), lists.end());
    if (lists.size() != 1 || m_settings.files.size() != 1) return;
    const FrameList list = readFrameList(lists[0]);
    std::vector<fs::path> files;
    for (std::size_t i = first; i < m_result.frames.size(); ++i)
        files.push_back(m_result.frames[i].path);
    std::vector<double> tilts;
    try {
        tilts = list.tiltsFor(files);
    } catch (const Failure&) {  // a list of other frames
        return;
    }
    m_warn("what the frames do not state is taken from " + lists[0].string());
    for (std::size_t i = first; i < m_result.frames.size(); ++i) {
        FrameInfo& info = m_result.frames[i].info;
        if (!info.tilt) info.tilt = tilts[i - first];
        describeBy(list, info, false);
    }
}

bool Collector::isPart(const fs::path& path) const {
    return m_parts.contains(path.lexically_normal());
}

void Collector::dropParts() {
    std::erase_if(m_result.frames, [&](const FrameReference& frame) { return isPart(frame.path); });
}

}  // namespace

FrameCollection collectFrames(const CollectionSettings& settings,
                              const std::function<void(const std::string&)>& warn,
                              const std::function<bool()>& canceled) {
    return Collector(settings, warn, canceled).run();
}

void describeBy(const FrameList& list, FrameInfo& info, bool overwrite) {
    const auto take = [&](std::optional<double>& value, const std::optional<double>& listed) {
        if (listed && (overwrite || !value)) value = listed;
    };
    take(info.kilovolts, list.kilovolts);
    take(info.pixelSize, list.pixelSize);
    take(info.rotation, list.rotation);
    take(info.precession, list.precession);
    take(info.axis, list.axis);
}

bool naturallyBefore(const std::string& left, const std::string& right) {
    const auto isDigit = [](char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; };
    std::size_t i = 0;
    std::size_t j = 0;
    while (i < left.size() && j < right.size()) {
        if (isDigit(left[i]) && isDigit(right[j])) {
            while (i < left.size() && left[i] == '0')
                ++i;
            while (j < right.size() && right[j] == '0')
                ++j;
            std::size_t endLeft = i;
            std::size_t endRight = j;
            while (endLeft < left.size() && isDigit(left[endLeft]))
                ++endLeft;
            while (endRight < right.size() && isDigit(right[endRight]))
                ++endRight;
            if (endLeft - i != endRight - j) return endLeft - i < endRight - j;
            const int order = left.compare(i, endLeft - i, right, j, endRight - j);
            if (order != 0) return order < 0;
            i = endLeft;
            j = endRight;
            continue;
        }
        if (left[i] != right[j]) return left[i] < right[j];
        ++i;
        ++j;
    }
    return left.size() - i < right.size() - j;
}

}  // namespace vrk
