#include "pipeline/frames/detail/Hdf5Access.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <functional>
#include <set>

#include "pipeline/base/MemoryLimit.h"
#include "pipeline/base/NumberText.h"

namespace vrk::detail {
namespace {

constexpr hsize_t kMostTextBytes = 1 << 20;
constexpr std::size_t kLongestPath = 4096;

Hdf5Id withoutLocks() {
    Hdf5Id access(H5Pcreate(H5P_FILE_ACCESS));
    H5Pset_file_locking(access.get(), false, true);
    return access;
}

bool isNumber(hid_t type) {
    const H5T_class_t kind = H5Tget_class(type);
    return kind == H5T_INTEGER || kind == H5T_FLOAT;
}

/// A text of fixed or variable length from a data set or an attribute.
std::string readText(hid_t type, hid_t space, const std::function<bool(hid_t, void*)>& read) {
    if (H5Tget_class(type) != H5T_STRING || H5Sget_simple_extent_npoints(space) != 1) return "";
    const Hdf5Id memory(H5Tcopy(H5T_C_S1));
    H5Tset_cset(memory.get(), H5Tget_cset(type));
    if (H5Tis_variable_str(type) > 0) {
        H5Tset_size(memory.get(), H5T_VARIABLE);
        char* text = nullptr;
        if (!read(memory.get(), &text) || !text) return "";
        std::string result(text);
        H5free_memory(text);
        return result;
    }
    const std::size_t size = H5Tget_size(type);
    if (size == 0 || size > kMostTextBytes) return "";
    H5Tset_size(memory.get(), size);
    // Text may fill its length; where it must end in a zero it would lose the last letter.
    H5Tset_strpad(memory.get(), H5T_STR_NULLPAD);
    std::string result(size, '\0');
    if (!read(memory.get(), result.data())) return "";
    result.erase(std::min(result.find('\0'), result.size()));
    result.erase(result.find_last_not_of(' ') + 1);
    return result;
}

std::vector<double> readNumbers(hid_t type, hid_t space, std::size_t most,
                                const std::function<bool(void*)>& read) {
    const hssize_t count = H5Sget_simple_extent_npoints(space);
    if (!isNumber(type) || count < 1 || static_cast<std::size_t>(count) > most) return {};
    std::vector<double> numbers(static_cast<std::size_t>(count));
    if (!read(numbers.data())) return {};
    return numbers;
}

/// A process that reads a file reads this one alone: where it lies, and what it named outside.
const FrameSource* theSource = nullptr;
std::string theFileOutside;
std::string theArrayOfItself;
std::vector<std::string> theArrays;       ///< one that is made of the next, and so on
std::set<std::string> theReadableArrays;  ///< of which that is known

/// Whether a file may be read that one in the folder \p near names. What is not there may be: it is missed
/// later.
bool mayRead(const std::filesystem::path& name, const std::filesystem::path& near) {
    if (!theSource || theSource->allowsOutside()) return true;
    const std::filesystem::path beside = near / name;
    std::error_code ignored;
    // The library also looks in the working folder, and puts numbers where a percent sign stands.
    const bool isBeside =
        std::filesystem::exists(beside, ignored) || name.string().find('%') != std::string::npos;
    const std::filesystem::path folder = std::filesystem::absolute(theSource->path()).parent_path();
    if (isBeside ? liesWithin(std::filesystem::absolute(beside), folder)
                 : !std::filesystem::exists(name, ignored))
        return true;
    if (theFileOutside.empty()) theFileOutside = isBeside ? beside.string() : name.string();
    return false;
}

herr_t onExternalLink(const char* file, const char*, const char* target, const char*, unsigned*, hid_t,
                      void*) {
    return mayRead(target, std::filesystem::path(file).parent_path()) ? 0 : -1;
}

std::string fileOf(const Hdf5Id& dataset) {
    std::array<char, kLongestPath> name{};
    return H5Fget_name(dataset.get(), name.data(), name.size()) < 0 ? "" : name.data();
}

std::string nameOf(const Hdf5Id& dataset) {
    std::array<char, kLongestPath> name{};
    return H5Iget_name(dataset.get(), name.data(), name.size()) < 0 ? "" : name.data();
}

/// Files that links lead to lie on disk, also when this one was unpacked in memory.
Hdf5Id followingLinks(hid_t kind) {
    Hdf5Id access(H5Pcreate(kind));
    H5Pset_elink_fapl(access.get(), withoutLocks().get());
    H5Pset_elink_cb(access.get(), onExternalLink, nullptr);
    return access;
}

/// Sizes of the pieces that an array is stored in; empty when it is stored in one.
std::vector<hsize_t> pieceOf(const Hdf5Id& dataset) {
    if (!isDataset(dataset)) return {};
    const Hdf5Id created(H5Dget_create_plist(dataset.get()));
    std::array<hsize_t, H5S_MAX_RANK> sizes{};
    const int rank = H5Pget_layout(created.get()) == H5D_CHUNKED
                         ? H5Pget_chunk(created.get(), H5S_MAX_RANK, sizes.data())
                         : 0;
    return {sizes.begin(), sizes.begin() + std::max(rank, 0)};
}

double bytesOfPiece(const Hdf5Id& dataset, const std::vector<hsize_t>& piece) {
    const Hdf5Id type(H5Dget_type(dataset.get()));
    auto bytes = static_cast<double>(H5Tget_size(type.get()));
    for (const hsize_t size : piece)
        bytes *= static_cast<double>(size);
    return bytes;
}

double piecesOfSlice(const std::vector<long long>& shape, const std::vector<hsize_t>& piece, int axis) {
    double count = 1;
    for (std::size_t i = 0; i < piece.size(); ++i)
        if (shape.size() != 3 || i != static_cast<std::size_t>(axis))
            count *= std::ceil(static_cast<double>(shape[i]) / static_cast<double>(piece[i]));
    return count;
}

/// Whether all pieces from \p start on are stored in no more bytes than packing can have made of them: the
/// library unpacks whatever is there, a thousand times as much.
bool arePiecesSound(const Hdf5Id& dataset, std::vector<hsize_t> start, const std::array<hsize_t, 3>& count) {
    const std::vector<hsize_t> piece = pieceOf(dataset);
    if (piece.size() != start.size()) return true;
    const double most = 2 * bytesOfPiece(dataset, piece) + 4096;
    std::vector<hsize_t> end(start);
    for (std::size_t i = 0; i < piece.size(); ++i) {
        end[i] += count[i];
        start[i] -= start[i] % piece[i];
    }
    for (std::vector<hsize_t> at = start;;) {
        hsize_t stored = 0;
        if (H5Dget_chunk_storage_size(dataset.get(), at.data(), &stored) >= 0 &&
            static_cast<double>(stored) > most)
            return false;
        std::size_t i = piece.size();
        while (i > 0 && (at[i - 1] += piece[i - 1]) >= end[i - 1]) {
            at[i - 1] = start[i - 1];
            --i;
        }
        if (i == 0) return true;
    }
}

/// Whether the files that an array takes its numbers from may be read, and those that arrays there do.
bool mayReadPartsOf(const Hdf5Id& dataset) {
    constexpr int kDeepest = 8;
    if (!theSource) return true;
    const Hdf5Id created(H5Dget_create_plist(dataset.get()));
    for (int i = 0; i < H5Pget_external_count(created.get()); ++i) {
        std::array<char, kLongestPath> name{};
        // Numbers without a format of their own, in a file named relative to the working folder.
        if (H5Pget_external(created.get(), static_cast<unsigned>(i), name.size() - 1, name.data(), nullptr,
                            nullptr) < 0 ||
            !mayRead(name.data(), ""))
            return false;
    }
    const auto parts = gatheredArrays(dataset);
    if (parts.empty()) return true;
    const std::filesystem::path own = fileOf(dataset);
    const std::string name = own.string() + ":" + nameOf(dataset);
    if (theReadableArrays.contains(name)) return true;
    if (theArrays.size() == kDeepest ||
        std::find(theArrays.begin(), theArrays.end(), name) != theArrays.end()) {
        if (theArrayOfItself.empty()) theArrayOfItself = nameOf(dataset);
        return false;
    }
    theArrays.push_back(name);
    const std::filesystem::path folder = own.parent_path();
    bool may = true;
    for (const auto& [file, array] : parts) {
        may = may && (file == "." || mayRead(file, folder));
        if (!may) break;
        const Hdf5Id part(file == "."
                              ? H5Iget_file_id(dataset.get())
                              : H5Fopen((folder / file).c_str(), H5F_ACC_RDONLY, withoutLocks().get()));
        may = objectAt(part.get(), array) || (theFileOutside.empty() && theArrayOfItself.empty());
    }
    theArrays.pop_back();
    if (may) theReadableArrays.insert(name);
    return may;
}

}  // namespace

std::string arrayOfItself() {
    return theArrayOfItself;
}

std::string fileOutside() {
    return theFileOutside;
}

Hdf5Id openHdf5(const FrameSource& source) {
    theSource = &source;
    const Hdf5Id access = withoutLocks();
    if (source.isPlainFile()) return Hdf5Id(H5Fopen(source.path().c_str(), H5F_ACC_RDONLY, access.get()));
    std::string bytes = source.everything(std::uint64_t{1} << 31);
    H5Pset_fapl_core(access.get(), 1 << 20, false);
    // The library keeps a copy of its own.
    H5Pset_file_image(access.get(), bytes.data(), bytes.size());
    // The name tells where linked files are looked for; there must not be a file of that name.
    std::string name = source.path().string();
    do
        name += ".memory";
    while (std::filesystem::exists(name));
    return Hdf5Id(H5Fopen(name.c_str(), H5F_ACC_RDONLY, access.get()));
}

Hdf5Id objectAt(hid_t place, const std::string& path) {
    const Hdf5Id linked = followingLinks(H5P_LINK_ACCESS);
    Hdf5Id object(H5Oopen(place, path.c_str(), linked.get()));
    return !isDataset(object) || mayReadPartsOf(object) ? std::move(object) : Hdf5Id();
}

Hdf5Id arrayAt(hid_t place, const std::string& path) {
    Hdf5Id array = objectAt(place, path);
    const std::vector<hsize_t> piece = pieceOf(array);
    const std::vector<long long> shape = shapeOf(array);
    if (piece.size() != 3 || piece[0] < 2 || shape.size() != 3) return array;
    // What is unpacked is in memory once in any case.
    const double most = std::min(2e9, static_cast<double>(memoryLeft()) / 2);
    const double bytes = bytesOfPiece(array, piece) * piecesOfSlice(shape, piece, 0);
    if (bytes > most) return array;
    const Hdf5Id access = followingLinks(H5P_DATASET_ACCESS);
    constexpr std::size_t kPlaces = 1009;
    H5Pset_chunk_cache(access.get(), kPlaces, static_cast<std::size_t>(bytes) + 1, 1.0);
    // The first who opens an array says how much memory it has.
    array = Hdf5Id();
    return Hdf5Id(H5Dopen2(place, path.c_str(), access.get()));
}

bool isDataset(const Hdf5Id& object) {
    return object && H5Iget_type(object.get()) == H5I_DATASET;
}

std::vector<long long> shapeOf(const Hdf5Id& dataset) {
    if (!isDataset(dataset)) return {};
    const Hdf5Id type(H5Dget_type(dataset.get()));
    const Hdf5Id space(H5Dget_space(dataset.get()));
    const int rank = H5Sget_simple_extent_ndims(space.get());
    if (!isNumber(type.get()) || rank < 1 || rank > H5S_MAX_RANK) return {};
    std::array<hsize_t, H5S_MAX_RANK> sizes{};
    H5Sget_simple_extent_dims(space.get(), sizes.data(), nullptr);
    return {sizes.begin(), sizes.begin() + rank};
}

std::vector<double> numbersAt(hid_t place, const std::string& path, std::size_t most) {
    const Hdf5Id dataset = objectAt(place, path);
    if (!isDataset(dataset)) return {};
    const Hdf5Id type(H5Dget_type(dataset.get()));
    const Hdf5Id space(H5Dget_space(dataset.get()));
    return readNumbers(type.get(), space.get(), most, [&](void* target) {
        return H5Dread(dataset.get(), H5T_NATIVE_DOUBLE, H5S_ALL, H5S_ALL, H5P_DEFAULT, target) >= 0;
    });
}

std::vector<double> attributeNumbers(hid_t object, const std::string& name) {
    const Hdf5Id attribute(H5Aopen(object, name.c_str(), H5P_DEFAULT));
    if (!attribute) return {};
    const Hdf5Id type(H5Aget_type(attribute.get()));
    const Hdf5Id space(H5Aget_space(attribute.get()));
    return readNumbers(type.get(), space.get(), 100, [&](void* target) {
        return H5Aread(attribute.get(), H5T_NATIVE_DOUBLE, target) >= 0;
    });
}

std::optional<double> numberAt(hid_t place, const std::string& path) {
    const std::vector<double> numbers = numbersAt(place, path);
    return numbers.empty() ? std::nullopt : std::optional(numbers.front());
}

std::string attributeText(hid_t object, const std::string& name) {
    const Hdf5Id attribute(H5Aopen(object, name.c_str(), H5P_DEFAULT));
    if (!attribute) return "";
    const Hdf5Id type(H5Aget_type(attribute.get()));
    const Hdf5Id space(H5Aget_space(attribute.get()));
    return readText(type.get(), space.get(), [&](hid_t memory, void* target) {
        return H5Aread(attribute.get(), memory, target) >= 0;
    });
}

std::vector<std::string> namesIn(hid_t group) {
    std::vector<std::string> names;
    const auto add = [](hid_t, const char* name, const H5L_info_t*, void* list) -> herr_t {
        constexpr std::size_t most = 10000;
        auto& all = *static_cast<std::vector<std::string>*>(list);
        all.emplace_back(name);
        return all.size() < most ? 0 : 1;
    };
    hsize_t position = 0;
    H5Literate(group, H5_INDEX_NAME, H5_ITER_INC, &position, add, &names);
    return names;
}

std::pair<std::string, std::string> externalTarget(hid_t group, const std::string& name) {
    H5L_info_t info{};
    if (H5Lget_info(group, name.c_str(), &info, H5P_DEFAULT) < 0 || info.type != H5L_TYPE_EXTERNAL ||
        info.u.val_size > kMostTextBytes)
        return {};
    std::vector<char> value(info.u.val_size);
    const char* file = nullptr;
    const char* object = nullptr;
    if (H5Lget_val(group, name.c_str(), value.data(), value.size(), H5P_DEFAULT) < 0 ||
        H5Lunpack_elink_val(value.data(), value.size(), nullptr, &file, &object) < 0)
        return {};
    return {file, object};
}

std::vector<std::pair<std::string, std::string>> gatheredArrays(const Hdf5Id& dataset) {
    const Hdf5Id created(H5Dget_create_plist(dataset.get()));
    std::size_t count = 0;
    if (H5Pget_layout(created.get()) != H5D_VIRTUAL || H5Pget_virtual_count(created.get(), &count) < 0)
        return {};
    const auto nameFrom = [&](auto function, std::size_t i) {
        const ssize_t length = function(created.get(), i, nullptr, 0);
        if (length < 1 || length > static_cast<ssize_t>(kMostTextBytes)) return std::string();
        std::string name(static_cast<std::size_t>(length) + 1, '\0');
        function(created.get(), i, name.data(), name.size());
        name.pop_back();
        return name;
    };
    std::vector<std::pair<std::string, std::string>> arrays;
    for (std::size_t i = 0; i < count; ++i) {
        std::pair<std::string, std::string> from{nameFrom(H5Pget_virtual_filename, i),
                                                 nameFrom(H5Pget_virtual_dsetname, i)};
        if (arrays.empty() || arrays.back() != from) arrays.push_back(std::move(from));
    }
    return arrays;
}

bool readSlice(const Hdf5Id& dataset, int axis, long long slice, std::vector<float>& pixels) {
    const std::vector<long long> shape = shapeOf(dataset);
    if (shape.size() != 2 && shape.size() != 3) return false;
    std::array<hsize_t, 3> start{};
    std::array<hsize_t, 3> count{};
    std::copy(shape.begin(), shape.end(), count.begin());
    if (shape.size() == 3) {
        start[static_cast<std::size_t>(axis)] = static_cast<hsize_t>(slice);
        count[static_cast<std::size_t>(axis)] = 1;
    }
    const Hdf5Id space(H5Dget_space(dataset.get()));
    H5Sselect_hyperslab(space.get(), H5S_SELECT_SET, start.data(), nullptr, count.data(), nullptr);
    const hsize_t total = pixels.size();
    const Hdf5Id memory(H5Screate_simple(1, &total, nullptr));
    if (H5Sget_select_npoints(space.get()) != static_cast<hssize_t>(total) ||
        !arePiecesSound(dataset, {start.begin(), start.begin() + static_cast<long>(shape.size())}, count))
        return false;
    return H5Dread(dataset.get(), H5T_NATIVE_FLOAT, memory.get(), space.get(), H5P_DEFAULT, pixels.data()) >=
           0;
}

std::string readColumn(const Hdf5Id& dataset, long long column) {
    const std::vector<long long> shape = shapeOf(dataset);
    if (shape.size() != 2 || column >= shape[1] || shape[0] > static_cast<long long>(kMostTextBytes))
        return "";
    const std::array<hsize_t, 2> start = {0, static_cast<hsize_t>(column)};
    const std::array<hsize_t, 2> count = {static_cast<hsize_t>(shape[0]), 1};
    const Hdf5Id space(H5Dget_space(dataset.get()));
    H5Sselect_hyperslab(space.get(), H5S_SELECT_SET, start.data(), nullptr, count.data(), nullptr);
    const Hdf5Id memory(H5Screate_simple(1, count.data(), nullptr));
    std::string text(static_cast<std::size_t>(shape[0]), '\0');
    if (H5Dread(dataset.get(), H5T_NATIVE_CHAR, memory.get(), space.get(), H5P_DEFAULT, text.data()) < 0)
        return "";
    return text.substr(0, text.find('\0'));
}

long long slicesWritten(const Hdf5Id& dataset, int axis) {
    const std::vector<long long> shape = shapeOf(dataset);
    const std::vector<hsize_t> piece = pieceOf(dataset);
    if (shape.size() != 3) return 1;
    const auto along = static_cast<std::size_t>(axis);
    hsize_t count = 0;
    const Hdf5Id space(H5Dget_space(dataset.get()));
    if (piece.size() != 3 || H5Dget_num_chunks(dataset.get(), space.get(), &count) < 0) return shape[along];
    const double written = std::ceil(static_cast<double>(count) / piecesOfSlice(shape, piece, axis)) *
                           static_cast<double>(piece[along]);
    return static_cast<long long>(std::min(written, static_cast<double>(shape[along])));
}

std::string obstacleIn(const Hdf5Id& dataset, int axis) {
    const Hdf5Id created(H5Dget_create_plist(dataset.get()));
    if (const std::vector<hsize_t> piece = pieceOf(dataset); !piece.empty()) {
        constexpr double most = 2e9, mostPieces = 100000, mebibyte = 1 << 20;
        const double bytes = bytesOfPiece(dataset, piece);
        const double stored = static_cast<double>(H5Dget_storage_size(dataset.get()));
        if (bytes > most || bytes > static_cast<double>(mostUnpacked(static_cast<std::uint64_t>(stored))))
            return formatted(
                "its pixels lie in pieces of %.0f MB, of which the file holds %.3f MB; it is damaged",
                bytes / 1e6, stored / 1e6);
        // Packed and unpacked, while the unpacked ones grow.
        const double left = static_cast<double>(memoryLeft());
        if (3 * bytes > left)
            return formatted(
                "its pixels lie in pieces of %.0f MiB, which take %.0f MiB of memory to unpack, and %.0f MiB "
                "may be taken (--max-memory); smaller pieces, as h5repack -l CHUNK makes them, need less",
                bytes / mebibyte, 3 * bytes / mebibyte, left / mebibyte);
        const double pieces = piecesOfSlice(shapeOf(dataset), piece, axis);
        if (pieces > mostPieces)
            return formatted(
                "each of its frames lies in %.0f pieces; h5repack -l CHUNK makes a file of larger ones",
                pieces);
    }
    for (unsigned i = 0; i < static_cast<unsigned>(std::max(0, H5Pget_nfilters(created.get()))); ++i) {
        unsigned flags = 0;
        std::size_t values = 0;
        std::array<char, 80> name{};
        const H5Z_filter_t filter =
            H5Pget_filter2(created.get(), i, &flags, &values, nullptr, name.size(), name.data(), nullptr);
        if (filter < 0 || H5Zfilter_avail(filter) > 0) continue;
        const std::string stated(name.data());
        const std::string title = filter == 32008   ? "bitshuffle"
                                  : filter == 32004 ? "LZ4"
                                  : filter == 32001 ? "Blosc"
                                  : filter == 307   ? "bzip2"
                                  : filter == 32015 ? "Zstandard"
                                                    : stated;
        return "its pixels are packed by the HDF5 filter " + std::to_string(filter) +
               (title.empty() ? "" : " (" + title + ")") +
               ", for which no plugin is installed; install one (on Debian the packages bitshuffle and "
               "hdf5-filter-plugin hold some) or set HDF5_PLUGIN_PATH to its folder";
    }
    return "";
}

}  // namespace vrk::detail
