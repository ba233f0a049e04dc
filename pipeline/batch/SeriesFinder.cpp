#include "pipeline/batch/SeriesFinder.h"

#include <algorithm>
#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>

#include "VoxCore/DataModel/mrcH.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"
#include "foundation/Narration.h"
#include "pipeline/base/Failure.h"
#include "pipeline/frames/FileContent.h"
#include "pipeline/frames/FrameCollection.h"
#include "pipeline/frames/FrameFile.h"
#include "pipeline/frames/FrameFormat.h"
#include "pipeline/frames/FrameList.h"

namespace vrk {
namespace {

namespace fs = std::filesystem;

bool naturalPaths(const fs::path& left, const fs::path& right) {
    return naturallyBefore(left.string(), right.string());
}

/// Absolute, and the same however it was written.
fs::path placeOf(const fs::path& path) {
    const fs::path place = fs::absolute(path).lexically_normal();
    return place.has_filename() ? place : place.parent_path();
}

std::uint64_t sizeOf(const fs::path& file) {
    std::error_code error;
    const std::uintmax_t size = fs::file_size(file, error);
    return error ? 0 : size;
}

/// The list of tilts that programs leave beside a stack: stack.mrc.mdoc, stack.rawtlt ...
fs::path tiltsBeside(const fs::path& stack) {
    std::error_code error;
    for (const char* ending : {".mdoc", ".rawtlt", ".tlt"})
        for (const fs::path& list :
             {fs::path(stack.string() + ending), fs::path(stack).replace_extension(ending)})
            if (fs::is_regular_file(list, error)) return placeOf(list);
    return {};
}

/// What an MRC file that is a tilt series by itself holds; nothing for others.
std::optional<FoundSeries> mrcSeries(const fs::path& file) {
    if (FileContent::of(file).kind != FileContent::Kind::Mrc) return std::nullopt;
    const VRK::QuietNarration quiet;
    VoxMRCFileHandler handler;
    const std::unique_ptr<mrcH> header(handler.readMRCFile_onlyHeader(file.string()));
    if (!header || header->nz < 2 || header->nz > mrcH::kMaxSlices) return std::nullopt;
    if (header->tilt(0) == 0.0F && header->tilt(header->nz - 1) == 0.0F) return std::nullopt;
    return FoundSeries{placeOf(file), false, {}, sizeOf(file), header->nx, header->ny, header->nz};
}

/// A file of several frames; nothing for one of a single frame.
std::optional<FoundSeries> stackSeries(const fs::path& file, std::set<fs::path>* parts = nullptr) {
    const std::unique_ptr<FrameFile> frames = FrameFile::open(file);
    FoundSeries series{placeOf(file), true, {}, sizeOf(file), 0, 0, frames->count()};
    for (const fs::path& part : frames->parts()) {
        series.bytes += sizeOf(part);
        if (parts) parts->insert(placeOf(part));
    }
    if (frames->count() < 2) return std::nullopt;
    series.columns = frames->info(0).width;
    series.rows = frames->info(0).height;
    if (!frames->info(0).tilt) series.tilts = tiltsBeside(file);
    return series;
}

/// The frames that a list names, or those of a folder.
FoundSeries framesSeries(const fs::path& input, const std::vector<fs::path>& files) {
    FoundSeries series{placeOf(input), true, {}, 0, 0, 0, static_cast<int>(files.size())};
    for (const fs::path& file : files)
        series.bytes += sizeOf(file);
    if (files.empty()) return series;
    const std::unique_ptr<FrameFile> first = FrameFile::open(files.front());
    series.columns = first->info(0).width;
    series.rows = first->info(0).height;
    return series;
}

FoundSeries listSeries(const fs::path& file) {
    const FrameList list = readFrameList(file);
    if (!list.namesFiles()) throw Failure(file.string() + " lists tilts, but no frames");
    std::vector<fs::path> files;
    for (const FrameList::Entry& entry : list.frames)
        files.push_back(entry.path);
    return framesSeries(file, files);
}

/// Whatever programs leave in folders of results.
bool isOfResults(const fs::path& folder) {
    std::error_code error;
    return fs::exists(folder / "summary.json", error) || fs::exists(folder / "batch.json", error);
}

class Finder {
public:
    explicit Finder(const std::function<void(const std::string&)>& warn) : m_warn(warn) {}

    void search(const fs::path& folder) {
        if (isOfResults(folder)) return;
        std::vector<fs::path> folders, files;
        sort(folder, folders, files);
        const std::size_t before = m_found.size();
        const std::set<fs::path> named = takeLists(folder, files);
        takeFiles(folder, files);
        const bool isWhole = m_found.size() == before + 1 && m_found.back().input == placeOf(folder);
        for (const fs::path& inner : folders)
            // The frames of a list in this folder lie there: they are no series of their own.
            if (!isWhole && !named.contains(placeOf(inner))) search(inner);
    }

    std::vector<FoundSeries> take() { return std::move(m_found); }

private:
    static void sort(const fs::path& folder, std::vector<fs::path>& folders, std::vector<fs::path>& files) {
        std::error_code error;
        for (const fs::directory_entry& entry : fs::directory_iterator(folder, error)) {
            if (entry.path().filename().string().starts_with(".")) continue;
            std::error_code unreadable;
            if (entry.is_directory(unreadable))
                folders.push_back(entry.path());
            else if (entry.is_regular_file(unreadable))
                files.push_back(entry.path());
        }
        if (error) throw Failure("cannot read the folder " + folder.string() + ": " + error.message());
        std::sort(folders.begin(), folders.end(), naturalPaths);
        std::sort(files.begin(), files.end(), naturalPaths);
    }

    /// A list that names frames stands for its folder, when it is the only one.
    /// \returns the folders of the frames
    std::set<fs::path> takeLists(const fs::path& folder, std::vector<fs::path>& files) {
        std::vector<fs::path> lists;
        for (const fs::path& file : files)
            if (isList(file)) lists.push_back(file);
        std::set<fs::path> folders;
        for (const fs::path& path : lists) {
            const FrameList list = readFrameList(path);
            if (!list.namesFiles()) continue;
            for (const FrameList::Entry& entry : list.frames)
                folders.insert(placeOf(entry.path).parent_path());
            // Of frames in the folder itself the importer takes what the list says.
            if (folders.contains(placeOf(folder))) continue;
            m_found.push_back(listSeries(path));
            break;
        }
        std::erase_if(files, [&](const fs::path& file) {
            return std::find(lists.begin(), lists.end(), file) != lists.end();
        });
        return folders;
    }

    static bool isList(const fs::path& file) {
        try {
            // Frames are many and are not searched for text.
            return formatOf(file).empty() && isFrameList(file);
        } catch (const Failure&) {
            return false;
        }
    }

    /// Files of one frame by their format make the folder a series, each file of several is one.
    void takeFiles(const fs::path& folder, const std::vector<fs::path>& files) {
        std::map<std::string, std::vector<fs::path>> single;
        std::vector<FoundSeries> several;
        std::set<fs::path> parts;
        for (const fs::path& file : files)
            if (const std::string format = formatOf(file); !format.empty())
                takeFile(file, format, single, several, parts);
        std::erase_if(several, [&](const FoundSeries& s) { return isPart(s.input, parts); });
        for (auto& [format, list] : single)
            std::erase_if(list, [&](const fs::path& file) { return isPart(file, parts); });
        const auto most = std::max_element(single.begin(), single.end(), [](const auto& a, const auto& b) {
            return a.second.size() < b.second.size();
        });
        const bool isFolder = most != single.end() && most->second.size() > 1;
        if (isFolder && several.empty()) {
            m_found.push_back(framesSeries(folder, most->second));
            return;
        }
        if (isFolder)
            m_warn(folder.string() + " holds series and single frames; the " +
                   std::to_string(most->second.size()) + " frames are left out, move them into a folder");
        m_found.insert(m_found.end(), several.begin(), several.end());
    }

    static bool isPart(const fs::path& file, const std::set<fs::path>& parts) {
        return parts.contains(placeOf(file));
    }

    static std::string formatOf(const fs::path& file) {
        try {
            const FrameFormat* format = FrameFormat::of(FrameSource(file));
            return format ? format->name : "";
        } catch (const Failure&) {
            return "";
        }
    }

    void takeFile(const fs::path& file, const std::string& format,
                  std::map<std::string, std::vector<fs::path>>& single, std::vector<FoundSeries>& several,
                  std::set<fs::path>& parts) {
        // Where two files hold a frame each, so do the thousand others of their kind.
        std::vector<fs::path>& alike = single[format];
        if (alike.size() > 1 && several.empty()) {
            alike.push_back(file);
            return;
        }
        try {
            std::optional<FoundSeries> series = mrcSeries(file);
            if (!series) series = stackSeries(file, &parts);
            if (!series) {
                alike.push_back(file);
            } else if (format == "MRC" && series->needsImport && series->tilts.empty()) {
                m_warn(file.string() + " states no tilts: it is left out; name it with its tilts in a table");
            } else {
                several.push_back(std::move(*series));
            }
        } catch (const Failure& failure) {
            m_warn(std::string("left out: ") + failure.what());
        }
    }

    const std::function<void(const std::string&)>& m_warn;
    std::vector<FoundSeries> m_found;
};

}  // namespace

FoundSeries seriesAt(const fs::path& path) {
    std::error_code error;
    if (fs::is_directory(path, error)) {
        const std::function<void(const std::string&)> silent = [](const std::string&) {};
        Finder finder(silent);
        finder.search(path);
        const std::vector<FoundSeries> found = finder.take();
        if (found.size() != 1)
            throw Failure(path.string() + " holds " + std::to_string(found.size()) +
                          " series; name a folder of the frames of one");
        return found.front();
    }
    if (!fs::is_regular_file(path, error)) throw Failure("there is no series " + path.string());
    if (std::optional<FoundSeries> series = mrcSeries(path)) return *series;
    if (isFrameList(path)) return listSeries(path);
    if (std::optional<FoundSeries> series = stackSeries(path)) return *series;
    throw Failure(path.string() + " holds a single frame; name the folder in which the frames lie");
}

std::vector<FoundSeries> findSeries(const fs::path& folder,
                                    const std::function<void(const std::string&)>& warn) {
    Finder finder(warn);
    finder.search(folder);
    std::vector<FoundSeries> found = finder.take();
    std::sort(found.begin(), found.end(),
              [](const auto& a, const auto& b) { return naturalPaths(a.input, b.input); });
    return found;
}

}  // namespace vrk
