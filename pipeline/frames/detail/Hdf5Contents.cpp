#include "pipeline/frames/detail/Hdf5Contents.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <tuple>

#include "indexing/EwaldCurvature.h"
#include "pipeline/base/Angle.h"
#include "pipeline/base/JsonText.h"
#include "pipeline/base/NumberList.h"

namespace vrk::detail {
namespace {

bool looksLikeFrames(const std::vector<long long>& shape) {
    constexpr long long longest = 1000000;
    return (shape.size() == 2 || (shape.size() == 3 && *std::min_element(shape.begin(), shape.end()) > 0)) &&
           *std::max_element(shape.begin(), shape.end()) <= longest;
}

/// Notes a file that holds some of the frames; a problem when it is not there.
void addPart(Hdf5Contents& contents, const FrameSource& source, const std::string& name) {
    contents.parts.push_back(source.path().parent_path() / name);
    std::error_code error;
    if (!std::filesystem::exists(contents.parts.back(), error))
        contents.problem = "frames lie in " + contents.parts.back().string() +
                           ", which is not there; keep the files together";
}

/// Adds an array with the size of its frames. The problem says why when it cannot be one of frames.
void addStack(Hdf5Contents& contents, hid_t file, const FrameSource& source, const std::string& path,
              int axis = 0) {
    const Hdf5Id dataset = objectAt(file, path);
    std::vector<long long> shape = shapeOf(dataset);
    if (!looksLikeFrames(shape)) {
        contents.problem = path + (shape.size() == 4 ? " has four dimensions; scans are not tilt series"
                                                     : " is no array of frames");
        return;
    }
    contents.problem = obstacleIn(dataset, axis);
    if (!contents.problem.empty()) return;
    const Hdf5Id created(H5Dget_create_plist(dataset.get()));
    if (H5Pget_layout(created.get()) != H5D_VIRTUAL && H5Dget_storage_size(dataset.get()) == 0)
        contents.problem = "the pixels of " + path + " were never written";
    // The library reads zeros where what is gathered is missing.
    for (const auto& [linkedFile, array] : gatheredArrays(dataset)) {
        if (linkedFile != ".")
            addPart(contents, source, linkedFile);
        else if (!objectAt(file, array))
            contents.problem = "frames at " + array + " cannot be opened; keep the files together";
        if (!contents.problem.empty()) return;
    }
    if (!contents.problem.empty()) return;
    Hdf5Stack stack{path, axis, 1};
    if (shape.size() == 3) {
        stack.count = static_cast<int>(shape[static_cast<std::size_t>(axis)]);
        shape.erase(shape.begin() + axis);
    }
    // A series that was ended early has frames without pixels, but it has some with them.
    constexpr long long kMostEmpty = 1000, kMostEmptyEach = 100;
    const long long written = slicesWritten(dataset, axis);
    if (stack.count > kMostEmpty && stack.count / kMostEmptyEach > written) {
        contents.problem = path + " announces " + std::to_string(stack.count) + " frames, but holds " +
                           std::to_string(written) + "; the file is damaged";
        return;
    }
    constexpr std::size_t kMostFrames = 100000;
    if (contents.infos.size() + static_cast<std::size_t>(stack.count) > kMostFrames) {
        contents.problem = path + " is one of more than " + std::to_string(kMostFrames) +
                           " frames; no tilt series has so many";
        return;
    }
    FrameInfo info;
    info.height = static_cast<int>(shape[0]);
    info.width = static_cast<int>(shape[1]);
    contents.infos.insert(contents.infos.end(), static_cast<std::size_t>(stack.count), info);
    contents.stacks.push_back(std::move(stack));
}

/// The first member of a group that states this NeXus class; negative when there is none.
Hdf5Id memberOfClass(hid_t group, const std::string& className) {
    for (const std::string& name : namesIn(group)) {
        Hdf5Id member = objectAt(group, name);
        if (member && attributeText(member.get(), "NX_class") == className) return member;
    }
    return Hdf5Id();
}

/// A number with its unit, in \p wanted (metre or degree); values without a unit are in it already.
double factorTo(const std::string& unit) {
    static const std::map<std::string, double> factors = {{"mm", 1e-3},         {"um", 1e-6},
                                                          {"\u00b5m", 1e-6},    {"nm", 1e-9},
                                                          {"rad", 1 / kDegree}, {"radian", 1 / kDegree}};
    const auto found = factors.find(unit);
    return found == factors.end() ? 1 : found->second;
}

std::optional<double> inUnits(hid_t place, const std::string& path) {
    const std::optional<double> value = numberAt(place, path);
    const Hdf5Id dataset = objectAt(place, path);
    if (!value || !std::isfinite(*value)) return std::nullopt;
    return *value * factorTo(attributeText(dataset.get(), "units"));
}

/// The member of a NeXus file that turned while the frames were taken.
struct Rotation {
    std::vector<double> starts;                        ///< degrees, one a frame
    std::vector<double> widths;                        ///< degrees, one a frame or empty
    std::vector<double> vector;                        ///< its direction, empty when not stated
    std::set<std::pair<unsigned long, haddr_t>> seen;  ///< what was looked at: groups may hold each other
};

bool isNew(const Hdf5Id& object, Rotation& rotation) {
    H5O_info_t info{};
    return H5Oget_info(object.get(), &info) >= 0 && rotation.seen.emplace(info.fileno, info.addr).second;
}

double rangeOf(const std::vector<double>& values) {
    const auto [least, most] = std::minmax_element(values.begin(), values.end());
    return *most - *least;
}

/// Looks through the groups below a sample; the member whose angles differ most is the one that turned.
void findRotation(const Hdf5Id& group, std::size_t frames, int depth, Rotation& best) {
    if (!group || isDataset(group) || depth > 3 || !isNew(group, best)) return;
    for (const std::string& name : namesIn(group.get())) {
        const Hdf5Id member = objectAt(group.get(), name);
        if (!isDataset(member)) {
            findRotation(member, frames, depth + 1, best);
            continue;
        }
        static constexpr std::array<const char*, 6> angles = {"omega", "phi",   "chi",
                                                              "kappa", "alpha", "tilt"};
        const bool stated = attributeText(member.get(), "transformation_type") == "rotation";
        if (!stated && std::find(angles.begin(), angles.end(), name) == angles.end()) continue;
        if (!isNew(member, best)) continue;
        const std::vector<double> values = numbersAt(group.get(), name);
        if (values.size() != frames || (frames > 1 && !(rangeOf(values) > 0))) continue;
        const double factor = factorTo(attributeText(member.get(), "units"));
        Rotation found;
        for (const double value : values)
            found.starts.push_back(value * factor);
        if (!best.starts.empty() && rangeOf(found.starts) <= rangeOf(best.starts)) continue;
        const std::vector<double> ends = numbersAt(group.get(), name + "_end");
        for (std::size_t i = 0; ends.size() == frames && i < frames; ++i)
            found.widths.push_back((ends[i] - values[i]) * factor);
        for (const char* suffix : {"_increment_set", "_increment", "_range_average"}) {
            const std::vector<double> widths = numbersAt(group.get(), name + suffix);
            if (!found.widths.empty() || (widths.size() != 1 && widths.size() != frames)) continue;
            for (std::size_t i = 0; i < frames; ++i)
                found.widths.push_back(widths[widths.size() == 1 ? 0 : i] * factor);
        }
        found.vector = attributeNumbers(member.get(), "vector");
        found.seen = std::move(best.seen);
        best = std::move(found);
    }
}

/// The direction of the rotation axis among the pixels, from three vectors in the same laboratory frame.
std::optional<double> axisAngle(const Rotation& rotation, const Hdf5Id& detector) {
    const Hdf5Id fast = objectAt(detector.get(), "module/fast_pixel_direction");
    const Hdf5Id slow = objectAt(detector.get(), "module/slow_pixel_direction");
    if (!fast || !slow) return std::nullopt;
    const auto along = [&](const Hdf5Id& direction) {
        const std::vector<double> vector = attributeNumbers(direction.get(), "vector");
        double product = 0;
        for (std::size_t i = 0; i < 3 && vector.size() == 3 && rotation.vector.size() == 3; ++i)
            product += vector[i] * rotation.vector[i];
        return product;
    };
    const double x = along(fast);
    const double y = along(slow);
    if (!(std::hypot(x, y) > 0.5)) return std::nullopt;
    return std::atan2(-x, y) / kDegree;
}

/// Wavelength in Angstrom. Detectors made for X-rays state that of photons of the beam's energy.
double wavelengthOf(const Hdf5Id& instrument, const Hdf5Id& detector) {
    const double photon = numberAt(detector.get(), "detectorSpecific/photon_energy").value_or(0);
    constexpr double slowestElectrons = 60e3;
    if (photon >= slowestElectrons && photon < 2e6) return EwaldCurvature::wavelength(photon / 1000);
    const Hdf5Id beam = memberOfClass(instrument.get(), "NXbeam");
    for (const char* name : {"incident_wavelength", "wavelength"})
        if (const auto value = numberAt(beam.get(), name); value && *value > 0) return *value;
    return 0;
}

void readGeometry(const Hdf5Id& entry, Hdf5Contents& contents) {
    const std::size_t frames = contents.infos.size();
    const Hdf5Id instrument = memberOfClass(entry.get(), "NXinstrument");
    const Hdf5Id detector = memberOfClass(instrument.get(), "NXdetector");
    const double wavelength = wavelengthOf(instrument, detector);
    double distance = 0;
    for (const char* name : {"detector_distance", "distance"})
        if (distance <= 0) distance = inUnits(detector.get(), name).value_or(0);
    const double pixel = inUnits(detector.get(), "x_pixel_size").value_or(0);
    const std::optional<double> exposure = numberAt(detector.get(), "count_time");

    Rotation rotation;
    findRotation(memberOfClass(entry.get(), "NXsample"), frames, 0, rotation);
    const std::optional<double> axis = axisAngle(rotation, detector);
    for (std::size_t i = 0; i < frames; ++i) {
        FrameInfo& info = contents.infos[i];
        if (wavelength > 0) info.kilovolts = EwaldCurvature::kiloVolts(wavelength);
        if (wavelength > 0 && distance > 0 && pixel > 0)
            info.pixelSize = pixel / (distance * wavelength) * 1e10;
        if (exposure && *exposure > 0) info.exposure = exposure;
        if (rotation.starts.empty()) continue;
        const double width = rotation.widths.empty() ? 0 : rotation.widths[i];
        info.tilt = rotation.starts[i] + width / 2;
        if (width != 0) info.rotation = std::abs(width);
        info.axis = axis;
    }
    const auto pixels = static_cast<std::size_t>(contents.infos[0].width) *
                        static_cast<std::size_t>(contents.infos[0].height);
    for (const char* name : {"pixel_mask", "detectorSpecific/pixel_mask"}) {
        const std::vector<double> mask = numbersAt(detector.get(), name, pixels);
        if (contents.mask.empty() && mask.size() == pixels) contents.mask.assign(mask.begin(), mask.end());
    }
}

/// The arrays of a NeXus entry: one named data, or data_000001 and so on.
void readNexus(hid_t file, const FrameSource& source, Hdf5Contents& contents) {
    for (const std::string& entryName : namesIn(file)) {
        const Hdf5Id entry = objectAt(file, entryName);
        if (!entry || attributeText(entry.get(), "NX_class") != "NXentry") continue;
        const Hdf5Id data = objectAt(entry.get(), "data");
        if (!data || isDataset(data)) continue;
        const std::vector<std::string> names = namesIn(data.get());
        std::vector<std::string> arrays;
        std::copy_if(names.begin(), names.end(), std::back_inserter(arrays),
                     [](const std::string& name) { return name.starts_with("data_"); });
        // An array that gathers the others holds the same frames.
        if (std::find(names.begin(), names.end(), "data") != names.end() &&
            shapeOf(objectAt(data.get(), "data")).size() == 3)
            arrays = {"data"};
        for (const std::string& name : arrays) {
            const auto [linkedFile, linkedPath] = externalTarget(data.get(), name);
            if (!linkedFile.empty()) addPart(contents, source, linkedFile);
            if (!contents.problem.empty()) return;
            if (!objectAt(data.get(), name)) {
                contents.problem = "its frames at /" + entryName + "/data/" + name + " cannot be opened" +
                                   (linkedFile.empty() ? "" : "; " + linkedFile + " is damaged");
                return;
            }
            addStack(contents, file, source, entryName + "/data/" + name);
            if (!contents.problem.empty()) return;
        }
        if (contents.stacks.empty()) continue;
        contents.largestIsDead = true;
        readGeometry(entry, contents);
        return;
    }
}

/// A number that is stored as one or as text.
std::optional<double> numberIn(const nlohmann::ordered_json& json, const char* pointer) {
    const nlohmann::ordered_json value =
        json.value(nlohmann::ordered_json::json_pointer(pointer), nlohmann::ordered_json());
    double number = 0;
    if (value.is_number()) return value.get<double>();
    if (value.is_string() && parseNumber(value.get<std::string>(), number)) return number;
    return std::nullopt;
}

/// What the microscope noted about one frame, as JSON.
void readVeloxMetadata(const std::string& text, FrameInfo& info) {
    const auto json = parsedJson<nlohmann::ordered_json>(text);
    if (!json.is_object()) return;
    if (const auto tilt = numberIn(json, "/Stage/AlphaTilt")) info.tilt = *tilt / kDegree;
    if (const auto volts = numberIn(json, "/Optics/AccelerationVoltage"); volts && *volts > 0)
        info.kilovolts = *volts / 1000;
    const auto width = numberIn(json, "/BinaryResult/PixelSize/width");
    const std::string unit = jsonText(json.value(
        nlohmann::ordered_json::json_pointer("/BinaryResult/PixelUnitX"), nlohmann::ordered_json("")));
    if (width && *width > 0 && unit == "\"1/m\"") info.pixelSize = width;
    if (width && *width > 0 && unit == "\"rad\"" && info.kilovolts)
        info.pixelSize = *width / EwaldCurvature::wavelength(*info.kilovolts) * 1e10;
}

/// Frames of /Data/Image: rows, columns, frames. Of several images the one with the most frames.
void readVelox(hid_t file, const FrameSource& source, Hdf5Contents& contents) {
    const Hdf5Id images = objectAt(file, "Data/Image");
    if (!images || isDataset(images)) return;
    std::string best;
    long long most = 0;
    for (const std::string& name : namesIn(images.get())) {
        const std::vector<long long> shape = shapeOf(objectAt(images.get(), name + "/Data"));
        if (shape.size() == 3 && shape[2] > most) {
            most = shape[2];
            best = "Data/Image/" + name;
        }
    }
    if (best.empty()) return;
    addStack(contents, file, source, best + "/Data", 2);
    const Hdf5Id metadata = objectAt(file, best + "/Metadata");
    for (std::size_t i = 0; i < contents.infos.size(); ++i)
        readVeloxMetadata(readColumn(metadata, static_cast<long long>(i)), contents.infos[i]);
}

struct Candidates {
    std::vector<std::pair<std::string, std::vector<long long>>> arrays;
    bool scans = false;  ///< there are arrays of four dimensions
    bool deep = false;   ///< there are groups deeper in others than files of frames have them
};

herr_t addCandidate(hid_t root, const char* name, const H5O_info_t* info, void* target) {
    constexpr std::size_t most = 10000;
    constexpr long deepest = 64;
    auto& candidates = *static_cast<Candidates*>(target);
    // The time that the library takes grows with the third power of the depth.
    const std::string_view path(name);
    candidates.deep = std::count(path.begin(), path.end(), '/') >= deepest;
    if (candidates.deep) return 1;
    if (info->type != H5O_TYPE_DATASET) return 0;
    const std::vector<long long> shape = shapeOf(objectAt(root, name));
    if (shape.size() == 2 || shape.size() == 3) candidates.arrays.emplace_back(name, shape);
    candidates.scans = candidates.scans || shape.size() == 4;
    return candidates.arrays.size() < most ? 0 : 1;
}

double elements(const std::vector<long long>& shape) {
    double product = 1;
    for (const long long size : shape)
        product *= static_cast<double>(size);
    return product;
}

/// Dimensions of the EMD layout: which one is an angle, and how far pixels are apart in reciprocal space.
class EmdDimensions {
public:
    EmdDimensions(hid_t file, const std::string& array) {
        const std::size_t slash = array.rfind('/');
        m_group = objectAt(file, slash == std::string::npos ? "/" : array.substr(0, slash));
        m_known = m_group && attributeNumbers(m_group.get(), "emd_group_type") == std::vector<double>{1};
    }

    bool known() const { return m_known; }
    int angleAxis() const {
        for (int axis = 0; axis < 3; ++axis)
            if (toDegrees(axis) != 0) return axis;
        return 0;
    }
    void describe(int axis, std::vector<FrameInfo>& infos) const {
        const std::vector<double> angles = numbersAt(m_group.get(), name(axis));
        const std::vector<double> columns = numbersAt(m_group.get(), name(axis == 2 ? 1 : 2));
        const double perMetre = toReciprocalMetres(axis == 2 ? 1 : 2);
        for (std::size_t i = 0; i < infos.size(); ++i) {
            if (toDegrees(axis) != 0 && angles.size() == infos.size())
                infos[i].tilt = angles[i] * toDegrees(axis);
            if (perMetre > 0 && columns.size() > 1 && columns[1] > columns[0])
                infos[i].pixelSize = (columns[1] - columns[0]) * perMetre;
        }
    }

private:
    static std::string name(int axis) { return "dim" + std::to_string(axis + 1); }
    std::string unit(int axis) const {
        const Hdf5Id dimension = objectAt(m_group.get(), name(axis));
        std::string text = dimension ? attributeText(dimension.get(), "units") : "";
        std::erase_if(text, [](char c) { return c == '[' || c == ']' || c == ' ' || c == '_'; });
        return text;
    }
    double toDegrees(int axis) const {
        const std::string text = unit(axis);
        if (text == "deg" || text == "degree" || text == "degrees" || text == "\u00b0") return 1;
        return text == "rad" ? 1 / kDegree : 0;
    }
    double toReciprocalMetres(int axis) const {
        const std::string text = unit(axis);
        if (text == "nm^-1" || text == "1/nm") return 1e9;
        if (text == "A^-1" || text == "1/A" || text == "\u00c5^-1" || text == "1/\u00c5") return 1e10;
        return text == "m^-1" || text == "1/m" ? 1 : 0;
    }

    Hdf5Id m_group;
    bool m_known = false;
};

/// The array at a path, or in the group at a path.
void readNamed(hid_t file, const FrameSource& source, const std::string& path, Hdf5Contents& contents) {
    const Hdf5Id object = objectAt(file, path);
    if (!object) {
        contents.problem = "there is nothing at " + path;
        return;
    }
    const std::string array = isDataset(object) ? path : path + "/data";
    const EmdDimensions dimensions(file, array);
    const bool three = shapeOf(objectAt(file, array)).size() == 3;
    const int axis = dimensions.known() && three ? dimensions.angleAxis() : 0;
    addStack(contents, file, source, array, axis);
    if (dimensions.known() && contents.problem.empty() && three) dimensions.describe(axis, contents.infos);
}

void readLargest(hid_t file, const FrameSource& source, Hdf5Contents& contents) {
    Candidates candidates;
    H5Ovisit(file, H5_INDEX_NAME, H5_ITER_INC, addCandidate, &candidates);
    auto& arrays = candidates.arrays;
    // Three dimensions before two, arrays of the EMD layout before others, then by size.
    const auto rank = [&](const auto& array) {
        return std::make_tuple(array.second.size(), EmdDimensions(file, array.first).known(),
                               elements(array.second));
    };
    const auto best = std::max_element(arrays.begin(), arrays.end(),
                                       [&](const auto& a, const auto& b) { return rank(a) < rank(b); });
    if (best == arrays.end()) {
        contents.problem = candidates.deep ? "its groups lie too deep in each other; name the array as " +
                                                 source.path().string() + ":/PATH"
                           : candidates.scans ? "its arrays have four dimensions; scans are not tilt series"
                                              : "it holds no array of frames (of two or three dimensions)";
        return;
    }
    std::string others;
    constexpr std::size_t kLongestList = 200;
    const auto rankOfBest = rank(*best);
    for (auto one = arrays.begin(); one != arrays.end(); ++one)
        if (one != best && rank(*one) == rankOfBest) {
            if (others.size() > kLongestList) {
                others += " and more";
                break;
            }
            others += " and /" + one->first;
        }
    if (others.empty()) return readNamed(file, source, best->first, contents);
    contents.problem = "several arrays could be the frames, /" + best->first + others + "; name one as " +
                       source.path().string() + ":/" + best->first;
}

}  // namespace

Hdf5Contents contentsOf(const Hdf5Id& file, const FrameSource& source) {
    Hdf5Contents contents;
    if (!source.inside().empty()) {
        readNamed(file.get(), source, source.inside(), contents);
        return contents;
    }
    readNexus(file.get(), source, contents);
    if (contents.stacks.empty() && contents.problem.empty()) readVelox(file.get(), source, contents);
    if (contents.stacks.empty() && contents.problem.empty()) readLargest(file.get(), source, contents);
    return contents;
}

}  // namespace vrk::detail
