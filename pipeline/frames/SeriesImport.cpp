#include "pipeline/frames/SeriesImport.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <new>
#include <span>

#include "foundation/Version.h"
#include "pipeline/base/Failure.h"
#include "pipeline/base/Median.h"
#include "pipeline/base/NumberList.h"
#include "pipeline/base/UnitCheck.h"
#include "pipeline/frames/CountScale.h"
#include "pipeline/frames/FrameCollection.h"
#include "pipeline/frames/SeriesHeader.h"

namespace vrk {
namespace {

/// Tilts closer than this are the same tilt, degrees.
constexpr double kSameTilt = 1e-4;

std::string textOf(double value) {
    char text[40];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

/// The tilts of START:STEP.
std::vector<double> regularTilts(const std::string& text, std::size_t count) {
    if (text.find(':') == std::string::npos)
        throw Failure("--tilts " + text + " is neither a file nor START:STEP, for instance -30:0.5");
    const std::vector<double> range = numbersOf(text, ':', "--tilts");
    if (range.size() != 2 || range[1] == 0)
        throw Failure("--tilts takes START:STEP in degrees, for instance -30:0.5, not " + text,
                      FailureKind::Usage);
    std::vector<double> tilts;
    for (std::size_t i = 0; i < count; ++i)
        tilts.push_back(range[0] + static_cast<double>(i) * range[1]);
    return tilts;
}

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
    void assignTilts();
    void countFromMiddle();
    void dropBad();
    void checkSizes() const;
    void sortByTilt();
    void dropDuplicates();
    std::vector<Group> groupsOf(std::size_t sum) const;
    std::vector<Group> planGroups();
    void refuseSingleSlice(const std::vector<Group>& groups) const;
    double typicalStep() const;
    std::optional<Frame> readFrame(FrameReference& reference);
    bool addGroup(const Group& group, std::vector<float>& total, double& tilt, double& exposure);
    void addFrame(const Frame& frame, std::vector<float>& total) const;
    void store(const std::vector<float>& total, std::span<short> slice);
    bool readSlices(const std::vector<Group>& groups);
    bool readScaled(const std::vector<Group>& groups);
    void shortenSeries();
    void fillHeader();
    std::optional<StatedMotion> motion() const;
    template <class Member>
    std::optional<double> firstStated(Member member) const;
    void warnAboutLosses();
    bool canceled() const { return m_progress && m_progress->canceled(); }

    const ImportSettings& m_settings;
    VoxProgressObserver* m_progress;
    const std::function<void(const std::string&)>& m_warn;
    std::vector<FrameReference> m_frames;
    std::vector<std::filesystem::path> m_listsNear;
    std::vector<std::string> m_bad;
    ImportResult m_result;
    std::vector<double> m_tilts;      ///< of the slices
    std::vector<double> m_exposures;  ///< of the slices, seconds
    CountScale m_counts;
    int m_width = 0;  ///< of a slice
    int m_height = 0;
    int m_clippedSlices = 0;
    long long m_invalid = 0;   ///< pixels that were no finite numbers
    std::string m_emptyTilts;  ///< for the warning
};

void Importer::checkSettings() const {
    const auto require = [](bool good, const std::string& text) {
        if (!good) throw Failure(text, FailureKind::Usage);
    };
    require(m_settings.sum >= 0, "--sum takes the number of frames to add up, 1 or more");
    require(m_settings.bin >= 1 && m_settings.bin <= 64, "--bin takes 1 to 64");
    require(!m_settings.scale || *m_settings.scale > 0, "--scale takes a positive factor");
    require(!m_settings.pixelSize || *m_settings.pixelSize > 0,
            "--pixel-size takes a positive number of 1/metre");
}

void Importer::openFiles() {
    FrameCollection collection =
        collectFrames({m_settings.files, m_settings.skipBad, m_settings.allowOutside}, m_warn,
                      [this] { return canceled(); });
    m_frames = std::move(collection.frames);
    m_listsNear = std::move(collection.listsNear);
    m_bad = std::move(collection.bad);
    m_result.framesFound = static_cast<int>(m_frames.size());
}

void Importer::assignTilts() {
    std::vector<double> tilts;
    std::error_code error;
    if (std::filesystem::is_regular_file(m_settings.tilts, error)) {
        const FrameList list = readFrameList(m_settings.tilts);
        std::vector<std::filesystem::path> files;
        for (FrameReference& frame : m_frames) {
            files.push_back(frame.path);
            describeBy(list, frame.info, true);
        }
        tilts = list.tiltsFor(files);
    } else if (!m_settings.tilts.empty()) {
        tilts = regularTilts(m_settings.tilts, m_frames.size());
    }
    for (std::size_t i = 0; i < tilts.size(); ++i)
        m_frames[i].info.tilt = tilts[i];
}

/// Series that are counted from one end, as some programs do for falling angles, lie beyond the 90 degrees
/// that a stage reaches. A constant angle turns the crystal's frame and nothing else.
void Importer::countFromMiddle() {
    const auto [least, most] =
        std::minmax_element(m_frames.begin(), m_frames.end(),
                            [](const auto& a, const auto& b) { return *a.info.tilt < *b.info.tilt; });
    const double first = *least->info.tilt;
    const double last = *most->info.tilt;
    if ((first >= -90 && last <= 90) || last - first >= 180) return;
    const double middle = (first + last) / 2;
    m_warn("the tilts run from " + textOf(first) + " to " + textOf(last) + " degrees, beyond 90; " +
           textOf(middle) + " is subtracted from all");
    for (FrameReference& frame : m_frames)
        *frame.info.tilt -= middle;
}

void Importer::dropBad() {
    std::erase_if(m_frames, [](const FrameReference& frame) { return !frame.file; });
    for (const FrameReference& frame : m_frames) {
        if (frame.info.tilt) continue;
        std::string lists;
        for (const std::filesystem::path& list : m_listsNear)
            lists += (lists.empty() ? "; lists lie beside it: " : ", ") + list.string();
        throw Failure(frame.path.string() +
                      " does not say at which tilt it was taken; give --tilts with a list (.tlt, .rawtlt, "
                      ".mdoc, .ed3d, .pts, XDS.INP, cRED_log.txt) or START:STEP" +
                      lists);
    }
}

void Importer::checkSizes() const {
    const FrameInfo& first = m_frames.front().info;
    for (const FrameReference& frame : m_frames)
        if (frame.info.width != first.width || frame.info.height != first.height)
            throw Failure("the frames have different sizes: " + m_frames.front().path.string() + " " +
                          std::to_string(first.width) + " x " + std::to_string(first.height) + ", " +
                          frame.path.string() + " " + std::to_string(frame.info.width) + " x " +
                          std::to_string(frame.info.height) + "; import them separately");
    if (first.width < m_settings.bin || first.height < m_settings.bin)
        throw Failure("--bin " + std::to_string(m_settings.bin) + " leaves nothing of frames of " +
                          std::to_string(first.width) + " x " + std::to_string(first.height) + " pixels",
                      FailureKind::Usage);
}

void Importer::sortByTilt() {
    std::stable_sort(m_frames.begin(), m_frames.end(), [](const FrameReference& a, const FrameReference& b) {
        return *a.info.tilt < *b.info.tilt;
    });
}

void Importer::dropDuplicates() {
    std::vector<FrameReference> kept;
    std::string example;
    for (FrameReference& frame : m_frames) {
        if (!kept.empty() && *frame.info.tilt - *kept.back().info.tilt < kSameTilt) {
            if (example.empty())
                example = frame.path.string() + " at " + textOf(*frame.info.tilt) + " degrees";
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
    return medianOf(std::move(steps));
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

/// A single slice is no series, and readers would take it for a volume.
void Importer::refuseSingleSlice(const std::vector<Group>& groups) const {
    if (groups.size() > 1) return;
    if (m_frames.size() > 1)
        throw Failure("--sum " + std::to_string(m_settings.sum) + " adds up all " +
                          std::to_string(m_frames.size()) +
                          " frames to one slice, which is no series; use a smaller --sum or leave it out",
                      FailureKind::Usage);
    throw Failure("there is only one frame that can be used, " + m_frames.front().path.string() +
                  "; a tilt series needs frames at different tilts. Give all of them, or their folder");
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

/// None when the frame cannot be read and such frames are to be skipped.
std::optional<Frame> Importer::readFrame(FrameReference& reference) {
    try {
        return reference.file->read(reference.index);
    } catch (const Failure& failure) {
        const std::string reason = failure.what();
        if (!m_settings.skipBad) throw Failure(reason + "; --skip-bad leaves out what cannot be read");
        m_bad.push_back(reason);
        reference.file.reset();
        return std::nullopt;
    }
}

/// Sums the frames of a slice that are not empty; false when all are.
bool Importer::addGroup(const Group& group, std::vector<float>& total, double& tilt, double& exposure) {
    std::fill(total.begin(), total.end(), 0.0F);
    int added = 0;
    tilt = exposure = 0;
    for (std::size_t i = group.first; i < group.first + group.count; ++i) {
        FrameReference& reference = m_frames[i];
        std::optional<Frame> frame = reference.file ? readFrame(reference) : std::nullopt;
        if (!frame) continue;
        m_invalid += clearInvalid(frame->pixels);
        if (std::all_of(frame->pixels.begin(), frame->pixels.end(), [](float pixel) { return pixel == 0; })) {
            if (++m_result.empty <= 5)
                m_emptyTilts += (m_result.empty > 1 ? ", " : "") + textOf(*reference.info.tilt);
            continue;
        }
        addFrame(*frame, total);
        tilt += *reference.info.tilt;
        exposure += reference.info.exposure.value_or(0);
        ++added;
    }
    m_result.framesUsed += added;
    if (added > 0) tilt /= added;
    return added > 0;
}

void Importer::store(const std::vector<float>& total, std::span<short> slice) {
    const long long clipped = storeScaled(total, m_result.scale, slice);
    m_result.clipped += clipped;
    m_clippedSlices += clipped > 0 ? 1 : 0;
}

/// Fills the series with the scale as it stands; false when cancelled.
bool Importer::readSlices(const std::vector<Group>& groups) {
    const std::size_t pixels = m_result.series->GetChunkSize();
    std::vector<float> total(pixels);
    m_tilts.clear();
    m_exposures.clear();
    m_emptyTilts.clear();
    m_result.framesUsed = m_result.empty = m_clippedSlices = 0;
    m_result.clipped = m_invalid = 0;
    m_counts = CountScale();
    if (m_progress) m_progress->setSteps(static_cast<int>(groups.size()), "import");
    for (std::size_t i = 0; i < groups.size(); ++i) {
        if (m_progress) m_progress->updateStep(static_cast<int>(i));
        if (canceled()) return false;
        double tilt = 0;
        double exposure = 0;
        if (!addGroup(groups[i], total, tilt, exposure)) continue;
        m_counts.add(total);
        store(total, {m_result.series->GetChunkPointer(static_cast<unsigned>(m_tilts.size())), pixels});
        m_tilts.push_back(tilt);
        m_exposures.push_back(exposure);
    }
    if (m_tilts.empty()) throw Failure("all frames are empty: every pixel is zero");
    return true;
}

/// What the best scale is, is known when all frames have been seen.
bool Importer::readScaled(const std::vector<Group>& groups) {
    m_result.scale = m_settings.scale.value_or(1);
    if (!readSlices(groups)) return false;
    if (m_settings.scale || m_counts.choice() == 1) return true;
    m_result.scale = m_counts.choice();
    m_warn("the counts are multiplied by " + textOf(m_result.scale) + " to " +
           (m_result.scale > 1 ? "keep their fractions in" : "fit into") + " 16-bit integers (" +
           textOf(m_counts.smallest()) + " to " + textOf(m_counts.largest()) +
           "); --scale sets another factor");
    return readSlices(groups);
}

/// Leaves out the room of slices of which all frames were empty.
void Importer::shortenSeries() {
    if (m_tilts.size() == m_result.series->GetChunkCount()) return;
    std::unique_ptr<VoxMRCData> shorter = emptySeries(m_width, m_height, m_tilts.size());
    for (unsigned z = 0; z < shorter->GetChunkCount(); ++z)
        std::copy_n(m_result.series->GetChunkPointer(z), shorter->GetChunkSize(),
                    shorter->GetChunkPointer(z));
    m_result.series = std::move(shorter);
}

/// The first frame's value of a quantity that all frames ought to agree on.
template <class Member>
std::optional<double> Importer::firstStated(Member member) const {
    for (const FrameReference& frame : m_frames)
        if (frame.info.*member) return frame.info.*member;
    return std::nullopt;
}

/// What a slice's frames did together. Nothing when not all frames state one rotation, or one that does not
/// go into the distance of their tilts.
std::optional<StatedMotion> Importer::motion() const {
    constexpr double kSame = 0.01;  // of the rotation
    constexpr double kTooFar = 1.05;
    const std::optional<double>& stated = m_frames.front().info.rotation;
    if (!stated || !std::all_of(m_frames.begin(), m_frames.end(), [&](const FrameReference& frame) {
            return frame.info.rotation &&
                   std::abs(*frame.info.rotation - *stated) <= kSame * std::abs(*stated);
        }))
        return std::nullopt;
    const double rotation = std::abs(*stated);
    const double step = typicalStep();
    if (rotation > kTooFar * step) {
        m_warn("the files state that every frame turns by " + textOf(rotation) +
               " degrees, but their tilts are " + textOf(step) + " apart: that is not believed");
        return std::nullopt;
    }
    const double others = rotation > 0 ? step * (m_result.sum - 1) : 0;
    return StatedMotion{rotation + others, m_frames.front().info.precession.value_or(0)};
}

void Importer::fillHeader() {
    VoxMRCData& series = *m_result.series;
    const std::optional<double> stated = firstStated(&FrameInfo::pixelSize);
    if (!m_settings.pixelSize && stated)
        for (const FrameReference& frame : m_frames)
            if (frame.info.pixelSize && std::abs(*frame.info.pixelSize / *stated - 1) > 1e-3) {
                m_warn("the frames state different pixel sizes, " + textOf(*stated) + " and " +
                       textOf(*frame.info.pixelSize) + " 1/m; the first is used, --pixel-size sets another");
                break;
            }
    const double pixelSize = m_settings.pixelSize.value_or(stated.value_or(0)) * m_settings.bin;
    if (pixelSize == 0)
        m_warn("the files do not state the pixel size: without --pixel-size (1/m) a cell has no scale");
    if (m_settings.kilovolts && *m_settings.kilovolts != 0) refuseImpossibleVoltage(*m_settings.kilovolts);
    const double kilovolts = m_settings.kilovolts.value_or(firstStated(&FrameInfo::kilovolts).value_or(0));
    const double axis = m_settings.axis.value_or(firstStated(&FrameInfo::axis).value_or(0));

    series.m_Header =
        tiltSeriesHeader(m_width, m_height, m_tilts, pixelSize,
                         std::string("vrk import ") + VRK::kVersion +
                             (m_result.scale != 1 ? ", counts x " + textOf(m_result.scale) : ""));
    for (int z = 0; z < series.m_Header.nz; ++z) {
        series.m_Header.setValue(SliceValue::HighTension, z, static_cast<float>(kilovolts));
        series.m_Header.setValue(SliceValue::TiltAxis, z, static_cast<float>(axis));
        series.m_Header.setValue(SliceValue::ExposureTime, z,
                                 static_cast<float>(m_exposures[static_cast<std::size_t>(z)]));
    }
    if (const std::optional<StatedMotion> turned = motion()) stateMotion(series.m_Header, *turned);
    setDensities(series);
}

void Importer::warnAboutLosses() {
    if (m_result.empty > 0)
        m_warn(std::to_string(m_result.empty) + " empty frames left out, at tilts " + m_emptyTilts +
               (m_result.empty > 5 ? ", ..." : ""));
    if (m_invalid > 0)
        m_warn(std::to_string(m_invalid) + " pixels that are marked as dead or are no numbers were set to 0");
    if (m_result.clipped > 0)
        m_warn(std::to_string(m_result.clipped) + " pixels in " + std::to_string(m_clippedSlices) +
               " slices did not fit into 16 bits and were clipped; the largest was " +
               textOf(m_counts.largest()) + "; --scale " + textOf(m_counts.keepingAll()) +
               " keeps all, at the cost of weak reflections");
    if (m_settings.scale && !m_counts.whole() && m_counts.largest() * *m_settings.scale < 100)
        m_warn("the largest pixel becomes " + textOf(m_counts.largest() * *m_settings.scale) +
               ": with a larger --scale, or without it, more of the intensities is kept");
    if (m_bad.empty()) return;
    constexpr std::size_t named = 10;
    std::string text;
    for (std::size_t i = 0; i < std::min(named, m_bad.size()); ++i)
        text += (i > 0 ? "; " : "") + m_bad[i];
    m_warn(std::to_string(m_bad.size()) + " files or frames left out, wholly or in part: " + text +
           (m_bad.size() > named ? "; ..." : ""));
    m_result.bad = static_cast<int>(m_bad.size());
}

ImportResult Importer::run() {
    checkSettings();
    openFiles();
    if (canceled()) return {};
    assignTilts();
    dropBad();
    countFromMiddle();
    checkSizes();
    sortByTilt();
    dropDuplicates();
    const std::vector<Group> groups = planGroups();
    refuseSingleSlice(groups);
    m_width = m_frames.front().info.width / m_settings.bin;
    m_height = m_frames.front().info.height / m_settings.bin;

    m_result.series = emptySeries(m_width, m_height, groups.size());
    if (!readScaled(groups)) return {};
    shortenSeries();
    fillHeader();
    warnAboutLosses();
    return std::move(m_result);
}

}  // namespace

ImportResult importSeries(const ImportSettings& settings, VoxProgressObserver* progress,
                          const std::function<void(const std::string&)>& warn) {
    return Importer(settings, progress, warn).run();
}

}  // namespace vrk
