#include "pipeline/frames/SeriesImport.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <new>
#include <span>

#include "foundation/Version.h"
#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Failure.h"
#include "pipeline/frames/FrameFile.h"
#include "pipeline/frames/SeriesHeader.h"
#include "pipeline/frames/TiltList.h"

namespace vrk {
namespace {

/// Tilts closer than this are the same tilt, degrees.
constexpr double kSameTilt = 1e-4;

std::string textOf(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

/// A frame to be imported. Files are opened again for reading, so that not all of them are open at a time.
struct Candidate {
    std::shared_ptr<FrameFile> file;
    int index = 0;
    FrameInfo info;
};

/// Frames that become one slice: candidates first ... first + count - 1.
struct Group {
    std::size_t first = 0;
    std::size_t count = 0;
};

class Importer {
public:
    Importer(const ImportSettings& settings, VoxProgressObserver* progress,
             const std::function<void(const std::string&)>& warn)
        : m_settings(settings), m_progress(progress), m_warn(warn) {}

    ImportResult run();

private:
    void checkSettings() const;
    void openFiles();
    void openList(const std::filesystem::path& path);
    void orderNames(std::vector<std::filesystem::path>& files) const;
    void assignTilts();
    void checkSizes() const;
    void sortByTilt();
    void dropDuplicates();
    std::vector<Group> groupsOf(std::size_t sum) const;
    std::vector<Group> planGroups();
    double typicalStep() const;
    bool addGroup(const Group& group, std::vector<float>& total, double& tilt, double& exposure);
    void addFrame(const Frame& frame, std::vector<float>& total) const;
    void store(const std::vector<float>& total, std::span<short> slice);
    std::unique_ptr<VoxMRCData> readSlices(const std::vector<Group>& groups, std::vector<double>& tilts,
                                           std::vector<double>& exposures);
    void fillHeader(VoxMRCData& series, const std::vector<double>& tilts,
                    const std::vector<double>& exposures);
    template <class Member>
    std::optional<double> firstStated(Member member) const;
    void warnAboutLosses();

    const ImportSettings& m_settings;
    VoxProgressObserver* m_progress;
    const std::function<void(const std::string&)>& m_warn;
    std::vector<Candidate> m_frames;
    ImportResult m_result;
    int m_width = 0;  ///< of a slice
    int m_height = 0;
    bool m_cancelled = false;
    bool m_fractions = false;  ///< some pixel was no integer
    double m_largest = 0;      ///< largest pixel before rounding
    long long m_invalid = 0;   ///< pixels that were no finite numbers
    std::string m_emptyTilts;  ///< for the warning
};

void Importer::checkSettings() const {
    const auto require = [](bool good, const std::string& text) {
        if (!good) throw Failure(text, FailureKind::Usage);
    };
    require(m_settings.sum >= 0, "--sum takes the number of frames to add up, 1 or more");
    require(m_settings.bin >= 1 && m_settings.bin <= 64, "--bin takes 1 to 64");
    require(m_settings.scale > 0, "--scale takes a positive factor");
    require(!m_settings.pixelSize || *m_settings.pixelSize > 0,
            "--pixel-size takes a positive number of 1/metre");
}

void Importer::openFiles() {
    std::vector<std::filesystem::path> files = m_settings.files;
    orderNames(files);
    for (const std::filesystem::path& path : files) {
        if (path.extension() == ".ed3d") {
            openList(path);
            continue;
        }
        const std::shared_ptr<FrameFile> file = FrameFile::open(path);
        if (!file->damage().empty()) throw Failure("cannot import " + path.string() + ": " + file->damage());
        for (int i = 0; i < file->count(); ++i)
            m_frames.push_back({file, i, file->info(i)});
        if (m_progress && m_progress->canceled()) {
            return;
        }
    }
    m_result.framesFound = static_cast<int>(m_frames.size());
}

/// A shell's alphabetical order puts frame_10 before frame_2.
void Importer::orderNames(std::vector<std::filesystem::path>& files) const {
    const auto before = [](const auto& a, const auto& b) { return naturallyBefore(a.string(), b.string()); };
    if (!std::is_sorted(files.begin(), files.end()) || std::is_sorted(files.begin(), files.end(), before))
        return;
    std::stable_sort(files.begin(), files.end(), before);
    m_warn(
        "the frames are taken in the order of the numbers in their names (2 before 10), not alphabetically");
}

void Importer::openList(const std::filesystem::path& path) {
    const FrameList list = readFrameList(path);
    for (const FrameList::Entry& entry : list.frames) {
        const std::shared_ptr<FrameFile> file = FrameFile::open(entry.path);
        if (file->count() != 1)
            throw Failure("cannot import " + path.string() + ": " + entry.path.string() +
                          " holds more than one frame");
        FrameInfo info = file->info(0);
        info.tilt = entry.tilt;
        if (list.rotation) info.rotation = list.rotation;
        if (list.pixelSize) info.pixelSize = list.pixelSize;
        if (list.wavelength) info.kilovolts = EwaldCurvature::kiloVolts(*list.wavelength);
        if (list.axis) info.axis = list.axis;
        m_frames.push_back({file, 0, info});
    }
}

void Importer::assignTilts() {
    if (!m_settings.tilts.empty()) {
        const TiltList list = readTilts(m_settings.tilts, m_frames.size());
        for (std::size_t i = 0; i < m_frames.size(); ++i) {
            m_frames[i].info.tilt = list.tilts[i];
            if (!m_frames[i].info.kilovolts) m_frames[i].info.kilovolts = list.kilovolts;
        }
    }
    for (const Candidate& frame : m_frames)
        if (!frame.info.tilt)
            throw Failure(
                frame.file->path().string() +
                " does not say at which tilt it was taken; give --tilts with a list (.tlt, .rawtlt, .mdoc) "
                "or START:STEP");
}

void Importer::checkSizes() const {
    const FrameInfo& first = m_frames.front().info;
    for (const Candidate& frame : m_frames)
        if (frame.info.width != first.width || frame.info.height != first.height)
            throw Failure("the frames have different sizes: " + m_frames.front().file->path().string() + " " +
                          std::to_string(first.width) + " x " + std::to_string(first.height) + ", " +
                          frame.file->path().string() + " " + std::to_string(frame.info.width) + " x " +
                          std::to_string(frame.info.height) + "; import them separately");
    if (first.width < m_settings.bin || first.height < m_settings.bin)
        throw Failure("--bin " + std::to_string(m_settings.bin) + " leaves nothing of frames of " +
                          std::to_string(first.width) + " x " + std::to_string(first.height) + " pixels",
                      FailureKind::Usage);
}

void Importer::sortByTilt() {
    std::stable_sort(m_frames.begin(), m_frames.end(),
                     [](const Candidate& a, const Candidate& b) { return *a.info.tilt < *b.info.tilt; });
}

void Importer::dropDuplicates() {
    std::vector<Candidate> kept;
    std::string example;
    for (Candidate& frame : m_frames) {
        if (!kept.empty() && *frame.info.tilt - *kept.back().info.tilt < kSameTilt) {
            if (example.empty())
                example = frame.file->path().string() + " at " + textOf(*frame.info.tilt) + " degrees";
            ++m_result.duplicates;
            continue;
        }
        kept.push_back(std::move(frame));
    }
    if (kept.size() == 1 && m_result.duplicates > 0)
        throw Failure("all " + std::to_string(m_result.framesFound) + " frames have the tilt " +
                      textOf(*kept.front().info.tilt) + " degrees; give the true ones with --tilts");
    m_frames = std::move(kept);
    if (m_result.duplicates > 0)
        m_warn(std::to_string(m_result.duplicates) +
               " frames left out whose tilt another frame has already (the first is " + example + ")");
}

/// The median difference of neighbouring tilts.
double Importer::typicalStep() const {
    std::vector<double> steps;
    for (std::size_t i = 1; i < m_frames.size(); ++i)
        steps.push_back(*m_frames[i].info.tilt - *m_frames[i - 1].info.tilt);
    if (steps.empty()) return 0;
    const auto middle = steps.begin() + static_cast<std::ptrdiff_t>(steps.size() / 2);
    std::nth_element(steps.begin(), middle, steps.end());
    return *middle;
}

/// Every \p sum neighbours, starting anew after a gap in the tilts.
std::vector<Group> Importer::groupsOf(std::size_t sum) const {
    const double gap = 1.5 * typicalStep();
    std::vector<Group> groups;
    for (std::size_t i = 0; i < m_frames.size(); ++i) {
        const bool afterGap = i > 0 && *m_frames[i].info.tilt - *m_frames[i - 1].info.tilt > gap;
        if (groups.empty() || groups.back().count == sum || (sum > 1 && afterGap)) groups.push_back({i, 0});
        ++groups.back().count;
    }
    return groups;
}

std::vector<Group> Importer::planGroups() {
    constexpr std::size_t most = mrcH::kMaxSlices;
    std::size_t least = 1;
    while (least < m_frames.size() && groupsOf(least).size() > most)
        ++least;
    const auto wanted = static_cast<std::size_t>(m_settings.sum);
    std::vector<Group> groups = groupsOf(wanted > 0 ? wanted : least);
    if (groups.size() > most)
        throw Failure(std::to_string(m_frames.size()) + " frames with --sum " + std::to_string(wanted) +
                      " make " + std::to_string(groups.size()) + " slices, a series holds " +
                      std::to_string(most) + "; use --sum " + std::to_string(least) + " or leave --sum out");
    m_result.sum = static_cast<int>(wanted > 0 ? wanted : least);
    if (wanted == 0 && least > 1)
        m_warn("a series holds " + std::to_string(most) + " slices: of the " +
               std::to_string(m_frames.size()) + " frames every " + std::to_string(least) +
               " neighbours are added up (--sum " + std::to_string(least) + ")");
    const auto partial = std::count_if(groups.begin(), groups.end(), [&](const Group& group) {
        return group.count < static_cast<std::size_t>(m_result.sum);
    });
    if (partial > 0)
        m_warn(std::to_string(partial) + " slices hold fewer than " + std::to_string(m_result.sum) +
               " frames (before gaps in the tilts or at the end)");
    return groups;
}

void Importer::addFrame(const Frame& frame, std::vector<float>& total) const {
    const int bin = m_settings.bin;
    const int left = (frame.width - m_width * bin) / 2;
    const int top = (frame.height - m_height * bin) / 2;
    for (int y = 0; y < m_height * bin; ++y) {
        const float* from = frame.pixels.data() + static_cast<std::ptrdiff_t>(top + y) * frame.width + left;
        float* to = total.data() + static_cast<std::ptrdiff_t>(y / bin) * m_width;
        if (bin == 1) {
            for (int x = 0; x < m_width; ++x)
                to[x] += from[x];
            continue;
        }
        for (int x = 0; x < m_width * bin; ++x)
            to[x / bin] += from[x];
    }
}

/// Sums the frames of a slice that are not empty; false when all are.
bool Importer::addGroup(const Group& group, std::vector<float>& total, double& tilt, double& exposure) {
    std::fill(total.begin(), total.end(), 0.0F);
    int added = 0;
    tilt = exposure = 0;
    for (std::size_t i = group.first; i < group.first + group.count; ++i) {
        const Candidate& candidate = m_frames[i];
        Frame frame = candidate.file->read(candidate.index);
        for (float& pixel : frame.pixels)
            if (!std::isfinite(pixel)) {
                pixel = 0;
                ++m_invalid;
            }
        if (std::all_of(frame.pixels.begin(), frame.pixels.end(), [](float pixel) { return pixel == 0; })) {
            if (++m_result.empty <= 5)
                m_emptyTilts += (m_result.empty > 1 ? ", " : "") + textOf(*candidate.info.tilt);
            continue;
        }
        addFrame(frame, total);
        tilt += *candidate.info.tilt;
        exposure += candidate.info.exposure.value_or(0);
        ++added;
    }
    m_result.framesUsed += added;
    if (added > 0) tilt /= added;
    return added > 0;
}

void Importer::store(const std::vector<float>& total, std::span<short> slice) {
    for (std::size_t i = 0; i < total.size(); ++i) {
        const double value = total[i] * m_settings.scale;
        const double rounded = std::floor(value + 0.5);
        m_fractions = m_fractions || value != rounded;
        m_largest = std::max(m_largest, value);
        if (rounded < -32768 || rounded > 32767) ++m_result.clipped;
        slice[i] = static_cast<short>(std::clamp(rounded, -32768.0, 32767.0));
    }
}

std::unique_ptr<VoxMRCData> create(int width, int height, std::size_t slices) {
    std::unique_ptr<VoxMRCData> series(VoxMRCData::Create3D(
        static_cast<unsigned>(width), static_cast<unsigned>(height), static_cast<unsigned>(slices)));
    if (!series) throw std::bad_alloc();
    return series;
}

std::unique_ptr<VoxMRCData> Importer::readSlices(const std::vector<Group>& groups, std::vector<double>& tilts,
                                                 std::vector<double>& exposures) {
    std::unique_ptr<VoxMRCData> series = create(m_width, m_height, groups.size());
    const std::size_t pixels = series->GetChunkSize();
    std::vector<float> total(pixels);
    if (m_progress) m_progress->setSteps(static_cast<int>(groups.size()), "import");
    for (std::size_t i = 0; i < groups.size(); ++i) {
        if (m_progress) m_progress->updateStep(static_cast<int>(i));
        if (m_progress && m_progress->canceled()) return nullptr;
        double tilt = 0;
        double exposure = 0;
        if (!addGroup(groups[i], total, tilt, exposure)) continue;
        store(total, {series->GetChunkPointer(static_cast<unsigned>(tilts.size())), pixels});
        tilts.push_back(tilt);
        exposures.push_back(exposure);
    }
    if (tilts.empty()) throw Failure("all frames are empty: every pixel is zero");
    if (tilts.size() == groups.size()) return series;

    std::unique_ptr<VoxMRCData> shorter = create(m_width, m_height, tilts.size());
    for (unsigned z = 0; z < shorter->GetChunkCount(); ++z)
        std::copy_n(series->GetChunkPointer(z), pixels, shorter->GetChunkPointer(z));
    return shorter;
}

/// The first frame's value of a quantity that all frames ought to agree on.
template <class Member>
std::optional<double> Importer::firstStated(Member member) const {
    for (const Candidate& frame : m_frames)
        if (frame.info.*member) return frame.info.*member;
    return std::nullopt;
}

void Importer::fillHeader(VoxMRCData& series, const std::vector<double>& tilts,
                          const std::vector<double>& exposures) {
    const std::optional<double> stated = firstStated(&FrameInfo::pixelSize);
    if (!m_settings.pixelSize && stated)
        for (const Candidate& frame : m_frames)
            if (frame.info.pixelSize && std::abs(*frame.info.pixelSize / *stated - 1) > 1e-3) {
                m_warn("the frames state different pixel sizes, " + textOf(*stated) + " and " +
                       textOf(*frame.info.pixelSize) + " 1/m; the first is used, --pixel-size sets another");
                break;
            }
    const double pixelSize = m_settings.pixelSize.value_or(stated.value_or(0)) * m_settings.bin;
    if (pixelSize == 0)
        m_warn("the files do not state the pixel size: without --pixel-size (1/m) a cell has no scale");
    const double kilovolts = m_settings.kilovolts.value_or(firstStated(&FrameInfo::kilovolts).value_or(0));
    const double axis = m_settings.axis.value_or(firstStated(&FrameInfo::axis).value_or(0));

    series.m_Header =
        tiltSeriesHeader(m_width, m_height, tilts, pixelSize, std::string("vrk import ") + VRK::kVersion);
    for (int z = 0; z < series.m_Header.nz; ++z) {
        series.m_Header.setValue(SliceValue::HighTension, z, static_cast<float>(kilovolts));
        series.m_Header.setValue(SliceValue::TiltAxis, z, static_cast<float>(axis));
        series.m_Header.setValue(SliceValue::ExposureTime, z,
                                 static_cast<float>(exposures[static_cast<std::size_t>(z)]));
    }
    setDensities(series);
}

void Importer::warnAboutLosses() {
    if (m_result.empty > 0)
        m_warn(std::to_string(m_result.empty) + " empty frames left out, at tilts " + m_emptyTilts +
               (m_result.empty > 5 ? ", ..." : ""));
    if (m_invalid > 0) m_warn(std::to_string(m_invalid) + " pixels that were no numbers were set to 0");
    if (m_result.clipped > 0)
        m_warn(std::to_string(m_result.clipped) +
               " pixels did not fit into 16 bits and were clipped; the largest was " + textOf(m_largest) +
               (m_largest > 32767
                    ? "; --scale " + textOf(std::floor(32767e3 / m_largest) / 1e3) + " keeps all"
                    : ""));
    if (m_fractions && m_largest < 100)
        m_warn("the largest pixel is " + textOf(m_largest) +
               " and pixels are rounded to integers: with --scale more of the intensities is kept");
}

ImportResult Importer::run() {
    checkSettings();
    openFiles();
    if (m_progress && m_progress->canceled()) return {};
    if (m_frames.empty()) throw Failure("there are no frames to import", FailureKind::Usage);
    assignTilts();
    checkSizes();
    sortByTilt();
    dropDuplicates();
    const std::vector<Group> groups = planGroups();
    m_width = m_frames.front().info.width / m_settings.bin;
    m_height = m_frames.front().info.height / m_settings.bin;

    std::vector<double> tilts;
    std::vector<double> exposures;
    m_result.series = readSlices(groups, tilts, exposures);
    if (!m_result.series) return {};
    fillHeader(*m_result.series, tilts, exposures);
    warnAboutLosses();
    return std::move(m_result);
}

}  // namespace

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

ImportResult importSeries(const ImportSettings& settings, VoxProgressObserver* progress,
                          const std::function<void(const std::string&)>& warn) {
    return Importer(settings, progress, warn).run();
}

}  // namespace vrk
