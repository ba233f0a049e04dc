#include "VoxCore/IO/VoxMRCFileHandler.h"

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <bit>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <limits>
#include <stdexcept>
#include <vector>

#include "VoxCore/DataModel/VoxHistogram.h"
#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "VoxCore/DataModel/detail/SliceReduction.h"
#include "VoxCore/DataModel/detail/Transposed.h"
#include "VoxCore/DataModel/detail/ValueCounts.h"
#include "VoxCore/IO/detail/MRCRecords.h"
#include "foundation/SharedLoop.h"
#include "foundation/detail/Log.h"

using VRK::detail::kMainHeaderBytes;
using VRK::detail::kSliceRecordBytes;
using VRK::detail::line;
using VRK::detail::SliceReduction;

namespace {

/// A file may lack this many bytes, or all but this share of what its header announces, and is still read.
constexpr std::uint64_t kMostMissing = std::uint64_t{16} << 20;
constexpr std::uint64_t kLeastShare = 16;
constexpr unsigned short kHistogramBins = 256;

std::uint64_t sliceBytes(const mrcH& header) {
    return 2 * static_cast<std::uint64_t>(header.nx) * static_cast<std::uint64_t>(header.ny);
}

std::uint64_t dataStart(const mrcH& header) {
    return kMainHeaderBytes + static_cast<std::uint64_t>(std::max(header.next, 0));
}

/// Only for headers that wrongWithSizes() has passed: larger products overflow.
std::uint64_t dataEnd(const mrcH& header) {
    return dataStart(header) + sliceBytes(header) * static_cast<std::uint64_t>(header.nz);
}

std::uint64_t recordBytes(const mrcH& header) {
    return kSliceRecordBytes * static_cast<std::uint64_t>(std::max(header.nz, 0));
}

/// Empty when the sizes of the data are possible.
std::string wrongWithSizes(const mrcH& h) {
    if (h.nx < 1 || h.ny < 1 || h.nz < 1)
        return line("the header announces ", h.nx, " x ", h.ny, " x ", h.nz,
                    " voxels; it is damaged or belongs to another format");
    const std::uint64_t most = std::numeric_limits<std::uint32_t>::max();
    const std::uint64_t area = sliceBytes(h) / 2;
    if (area > most || static_cast<std::uint64_t>(h.nz) > most / area)
        return line("the header announces ", h.nx, " x ", h.ny, " x ", h.nz,
                    " voxels, more than a data set holds (", most, "); bin the series or check the header");
    return {};
}

/// Empty when the extended header can be read.
std::string wrongWithExtendedHeader(const mrcH& h) {
    if (h.next <= 0) return {};
    if (h.nz > mrcH::kMaxSlices)
        return line("it has ", h.nz, " slices; a series may have ", mrcH::kMaxSlices,
                    ": sum neighbouring patterns to stay within that");
    if (static_cast<std::uint64_t>(h.next) < recordBytes(h))
        return line("its extended header of ", h.next, " bytes has no room for ", h.nz, " slice records of ",
                    kSliceRecordBytes, " bytes; convert the file first");
    return {};
}

/// Empty when the file holds enough of what its header announces. What is announced is also what reading
/// allocates.
std::string wrongWithLength(const mrcH& h, std::uint64_t fileLength) {
    const std::uint64_t announced = dataEnd(h);
    if (fileLength >= announced || announced - fileLength <= kMostMissing ||
        fileLength >= announced / kLeastShare)
        return {};
    return line("its header announces ", h.nx, " x ", h.ny, " x ", h.nz, " voxels, a file of ", announced,
                " bytes, but it has only ", fileLength,
                "; it was cut, is packed or belongs to another format");
}

/// Whether the twelfth value, the pixel size, is the same in all records of that length, and set.
bool equalPixelSizes(const std::vector<char>& records, std::size_t recordLength, int slices) {
    const std::size_t place = static_cast<std::size_t>(SliceValue::PixelSize) * sizeof(float);
    const float first = VRK::detail::decodeFloat(records.data() + place);
    if (!(first > 0)) return false;
    for (int z = 1; z < slices; ++z) {
        const std::size_t at = static_cast<std::size_t>(z) * recordLength + place;
        if (VRK::detail::decodeFloat(records.data() + at) != first) return false;
    }
    return true;
}

/// Microscopes also write records of 128 bytes, with the pixel size at the same place.
bool has128ByteRecords(const std::vector<char>& records, const mrcH& header) {
    constexpr int shorter = 128;
    return header.nz > 1 && header.next % shorter == 0 && equalPixelSizes(records, shorter, header.nz) &&
           !equalPixelSizes(records, kSliceRecordBytes, header.nz);
}

/// Lets the system provide the memory's pages in one go; faulting them in one by one while the file is
/// copied into them takes a sixth of the time that reading takes. Only a hint.
void providePages([[maybe_unused]] std::span<short> values) {
#ifdef MADV_POPULATE_WRITE
    const auto page = static_cast<std::uintptr_t>(sysconf(_SC_PAGESIZE));
    const std::size_t toPage = (page - reinterpret_cast<std::uintptr_t>(values.data()) % page) % page;
    if (values.size_bytes() < toPage + page) return;
    const std::size_t wholePages = (values.size_bytes() - toPage) / page * page;
    madvise(reinterpret_cast<char*>(values.data()) + toPage, wholePages, MADV_POPULATE_WRITE);
#endif
}

/// Sets bytes to 0. Fresh memory stays untouched, so that what a cut file lacks takes none.
void clear(std::span<char> bytes) {
    if (std::any_of(bytes.begin(), bytes.end(), [](char c) { return c != 0; }))
        std::fill(bytes.begin(), bytes.end(), '\0');
}

bool writeZeros(std::ofstream& file, std::uint64_t count) {
    const std::vector<char> zeros(std::min<std::uint64_t>(count, 65536), '\0');
    while (count > 0 && file) {
        const std::uint64_t part = std::min<std::uint64_t>(count, zeros.size());
        file.write(zeros.data(), static_cast<std::streamsize>(part));
        count -= part;
    }
    return file.good();
}

/// The header that belongs on disk when it is followed by data of these sizes.
void completeForDisk(mrcH& header) {
    if (header.type == MRCType::TILT_SERIES && header.next > 0) {
        header.next = std::max(header.next, static_cast<std::int32_t>(recordBytes(header)));
        return;
    }
    header.next = 0;
    const float width = static_cast<float>(header.nx);
    const float stated = header.xlen / width;
    if (stated == header.m_pixelsize || (std::isnan(stated) && std::isnan(header.m_pixelsize))) return;
    const bool known = header.m_pixelsize > 0 && std::isfinite(header.m_pixelsize);
    header.xlen = known ? header.m_pixelsize * width : 0.0F;
}

bool hasTilts(const mrcH& header) {
    const std::array<float, mrcH::kMaxSlices>& tilts =
        header.sliceValues[static_cast<std::size_t>(SliceValue::TiltAngle)];
    return std::any_of(tilts.begin(), tilts.end(), [](float tilt) { return tilt != 0; });
}

}  // namespace

VoxMRCFileHandler::VoxMRCFileHandler() : m_logger(VRKLogger::getInstance()) {}

VoxMRCFileHandler::~VoxMRCFileHandler() = default;

// ---- reading ----------------------------------------------------------------------------------------

VoxMRCData* VoxMRCFileHandler::readMRCFile(const std::string& path) {
    const std::time_t start = std::time(nullptr);
    std::unique_ptr<std::ifstream> file;
    const std::unique_ptr<mrcH> header = openSeries(path, file);
    if (!header) return nullptr;

    const auto size = [](std::int32_t n) { return static_cast<unsigned>(std::max(n, 0)); };
    std::unique_ptr<VoxMRCData> data(
        VoxMRCData::Create3D(size(header->nx), size(header->ny), size(header->nz)));
    if (!data) failAllocation(*header);
    data->m_Header = *header;
    data->print_MRCHeader();
    trace("### DEBUG VoxArray infos: ### ");
    trace(line("   DataSize: ", data->GetDataSize()));
    trace(line("  Depth: ", data->GetDepth()));
    trace(line("  Height: ", data->GetHeight()));
    trace(line("   Width: ", data->GetWidth()));
    trace(line("  ChunkCount: ", data->GetChunkCount()));
    trace(line("   ChunkSize: ", data->GetChunkSize()));
    trace("### END ### ");

    VRK::detail::ValueCounts counts;
    if (!readAll(*header, *data, counts)) return nullptr;
    log(line(" Volume: Min value: ", std::min<short>(counts.minimum(), 10000),
             "  max value: ", std::max<short>(counts.maximum(), 0)));
    log(" Create histogram on data ... ");
    auto histogram = std::make_unique<VoxHistogram<short>>(data.get(), kHistogramBins, std::vector<short>());
    histogram->UpdateFromCounts(counts);
    data->m_Histogram = histogram.release();
    log(" ... done.");
    reportByteCount(*header);
    log(line("VoxMRCFileHandler:readMRCFile() Completed in ", std::time(nullptr) - start, " sec."));
    return data.release();
}

mrcH* VoxMRCFileHandler::readMRCFile_onlyHeader(const std::string& path) {
    const std::unique_ptr<std::ifstream> file = openToRead(path);
    if (!file) return nullptr;
    trace(line(" actual stream pos: ", file->tellg()));
    return readMRCHeader(file.get());
}

std::unique_ptr<std::ifstream> VoxMRCFileHandler::openToRead(const std::string& path) {
    m_path = path;
    std::error_code status;
    // Opening a pipe would wait for its writer, and a folder opens but does not read.
    const bool regular = std::filesystem::is_regular_file(path, status);
    auto file = std::make_unique<std::ifstream>();
    if (regular) file->open(path, std::ios::binary | std::ios::ate);
    if (!regular || !*file) {
        const std::string reason = status ? status.message() : regular ? std::strerror(errno) : "not a file";
        error("ERROR: Error while opening file " + path);
        refuse("cannot be opened for reading (" + reason + ")");
        logMessage("Error while opening file", Vox::Error);
        return nullptr;
    }
    m_fileLength = static_cast<std::uint64_t>(file->tellg());
    file->seekg(0);
    log(line(" file length: ", m_fileLength));
    return file;
}

std::unique_ptr<mrcH> VoxMRCFileHandler::openSeries(const std::string& path,
                                                    std::unique_ptr<std::ifstream>& file) {
    log(" --------------------  read MRC file --------------- ");
    log("----" + path + " ---- ");
    file = openToRead(path);
    if (!file) return nullptr;
    std::unique_ptr<mrcH> header(readMRCHeader(file.get()));
    if (!header) return nullptr;
    log("Read data ...");
    // Sizes that no data set can have end where it is created.
    const std::string wrong =
        wrongWithSizes(*header).empty() ? wrongWithLength(*header, m_fileLength) : std::string();
    if (wrong.empty()) return header;
    refuse(wrong);
    return nullptr;
}

mrcH* VoxMRCFileHandler::readMRCHeader(std::ifstream* file) {
    auto header = std::make_unique<mrcH>();
    header->type = MRCType::UNINITIALISED;
    trace("----------------------");
    log(" Read MRC header ...");
    std::array<char, kMainHeaderBytes> bytes{};
    file->read(bytes.data(), bytes.size());
    if (refuseUnreadable(file->bad())) return nullptr;
    if (!*file) {
        refuse(line("it has ", m_fileLength, " bytes, less than the ", kMainHeaderBytes,
                    " of an MRC header; it is empty, was cut or is no MRC file"));
        return nullptr;
    }
    VRK::detail::decodeMainHeader(bytes, *header);
    trace(line(" actual stream pos:", file->tellg()));
    if (const std::string wrong = wrongWithExtendedHeader(*header); !wrong.empty()) {
        refuse(wrong);
        return nullptr;
    }
    if (header->next < 0)
        m_logger->log(line(m_path, ": the size of the extended header is negative (", header->next,
                           "); the file is read as one without"),
                      VRK::Warning);

    if (header->next > 0) {
        if (!readExtendedHeader(*file, *header)) return nullptr;
    } else {
        header->m_pixelsize = header->xlen / static_cast<float>(header->nx);
    }
    log(line("MRCHeader->m_pixelsize was set to", header->m_pixelsize));
    log("... MRC header read into.");
    const float first = header->tilt(0);
    const float last = header->tilt(std::max(header->nz, 1) - 1);
    log(line(" tilting from", first, " to", last));
    header->type = first == 0 && last == 0 ? MRCType::MRCVOLUME : MRCType::TILT_SERIES;
    log(line("###### MRC file TYPE:", static_cast<int>(header->type)));
    return header.release();
}

bool VoxMRCFileHandler::readExtendedHeader(std::ifstream& file, mrcH& header) {
    log(" Read extended header ...");
    log(line("   next value is", header.next));
    // The rest behind the records holds nothing; the records alone are at most 300 x 144 bytes.
    const std::size_t records = recordBytes(header);
    const std::uint64_t rest = static_cast<std::uint64_t>(header.next) - records;
    std::vector<char> bytes(records);
    file.read(bytes.data(), static_cast<std::streamsize>(records));
    if (refuseUnreadable(file.bad())) return false;
    file.clear();  // of a cut file, what is missing is 0 like the data behind it
    if (header.next % static_cast<int>(kSliceRecordBytes) != 0) {
        if (has128ByteRecords(bytes, header)) {
            refuse(line("the slice records of its extended header have 128 bytes, not ", kSliceRecordBytes,
                        "; convert the file first"));
            return false;
        }
        m_logger->log(line(m_path, ": the extended header of ", header.next, " bytes is no whole number of ",
                           kSliceRecordBytes, "-byte slice records; check the tilt angles"),
                      VRK::Warning);
    }
    for (int z = 0; z < header.nz; ++z) {
        const auto record =
            std::span<const char>(bytes).subspan(static_cast<std::size_t>(z) * kSliceRecordBytes);
        VRK::detail::decodeSliceRecord(record.first<kSliceRecordBytes>(), header, z);
        m_logger->log(
            line("   stream pos:", kMainHeaderBytes + static_cast<std::size_t>(z + 1) * kSliceRecordBytes),
            VRK::Debug, VRK::LoopControl);
    }
    header.m_pixelsize = checkPixelSizeInImages(&header);
    trace(line("   emtyExHeader size is", rest));
    file.seekg(static_cast<std::streamoff>(dataStart(header)));
    trace(line("   seek to end of extended header:", file.tellg()));
    return true;
}

float VoxMRCFileHandler::checkPixelSizeInImages(mrcH* header) {
    const float first = header->value(SliceValue::PixelSize, 0);
    for (int z = 0; z < header->nz; ++z) {
        if (header->value(SliceValue::PixelSize, z) != first) {
            m_logger->log("ERROR: Pixelsize in the Extended MRC Header is not the same!!", VRK::Warning);
            return 0;
        }
    }
    return first;
}

bool VoxMRCFileHandler::readAll(const mrcH& header, VoxMRCData& data, VRK::detail::ValueCounts& counts) {
    struct Lane {
        std::ifstream file;
        VRK::detail::ValueCounts counts;
    };
    VRK::PerLane<Lane> lanes([this] { return Lane{std::ifstream(m_path, std::ios::binary), {}}; });
    std::atomic<bool> failed = false;
    setSteps(header.nz, " ");
    const auto read = [&](std::size_t z, std::size_t number) {
        Lane& lane = lanes[number];
        const std::span<short> values(data.GetChunkPointer(static_cast<unsigned>(z)), data.GetChunkSize());
        const std::uint64_t begin = dataStart(header) + sliceBytes(header) * z;
        if (begin + values.size_bytes() <= m_fileLength) providePages(values);
        const std::span<char> bytes(reinterpret_cast<char*>(values.data()), values.size_bytes());
        lane.file.clear();
        lane.file.seekg(static_cast<std::streamoff>(begin));
        lane.file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (lane.file.bad() || !lane.file.is_open()) failed = true;
        clear(bytes.subspan(static_cast<std::size_t>(lane.file.gcount())));
        VRK::detail::swapLittleEndian(values);
        lane.counts.add(values);
    };
    const auto goesOn = [&](std::size_t done) {
        updateStep(static_cast<int>(done));
        return !failed && !canceled();
    };
    const bool complete = VRK::shareItems(static_cast<std::size_t>(header.nz), read, goesOn);
    if (refuseUnreadable(failed)) return false;
    if (!complete || canceled()) {
        log(" readMRCFile() canceled ...");
        return false;
    }
    lanes.forEach([&](const Lane& lane) { counts.add(lane.counts); });
    return true;
}

bool VoxMRCFileHandler::refuseUnreadable(bool failed) {
    if (failed) refuse("cannot be read to its end: the disk or the network reports an error; copy it anew");
    return failed;
}

bool VoxMRCFileHandler::readSlices(std::ifstream& file, const mrcH& header, const SliceTarget& target,
                                   const SliceVisitor& visitor) {
    setSteps(header.nz, " ");
    for (int z = 0; z < header.nz; ++z) {
        updateStep(z);
        const std::span<short> values = target(z);
        const std::span<char> bytes(reinterpret_cast<char*>(values.data()), values.size_bytes());
        file.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
        if (refuseUnreadable(file.bad())) return false;
        clear(bytes.subspan(static_cast<std::size_t>(file.gcount())));
        VRK::detail::swapLittleEndian(values);
        visitor(z, values);
        if (canceled()) {
            log(" readMRCFile() canceled ...");
            return false;
        }
    }
    return true;
}

void VoxMRCFileHandler::reportByteCount(const mrcH& header) {
    const std::uint64_t end = dataEnd(header);
    log(line(" stream end pos: ", end));
    log(line(" file length   : ", m_fileLength));
    if (end == m_fileLength) {
        log(" Byte count correkt.");
        return;
    }
    error(" ERROR: Byte count incorrekt!!!");
    if (end < m_fileLength)
        m_logger->log(line(m_path, ": ", m_fileLength - end, " bytes behind the data were not read"),
                      VRK::Warning);
    else if (m_fileLength <= dataStart(header))
        m_logger->log(line(m_path, ": the file is cut before its data; all voxels were set to 0"),
                      VRK::Warning);
    else
        m_logger->log(line(m_path, ": the file is cut in slice ",
                           (m_fileLength - dataStart(header)) / sliceBytes(header), " of 0 ... ",
                           header.nz - 1, "; the missing voxels were set to 0"),
                      VRK::Warning);
}

// ---- writing ----------------------------------------------------------------------------------------

bool VoxMRCFileHandler::writeMRCFile(VoxMRCData* data, const std::string& path) {
    m_path = path;
    if (!data || data->GetDataSize() == 0 || data->GetDimCount() != 3) {
        refuse("there are no data to write");
        return false;
    }
    mrcH header = data->m_Header;
    header.nx = static_cast<std::int32_t>(data->GetWidth());
    header.ny = static_cast<std::int32_t>(data->GetHeight());
    header.nz = static_cast<std::int32_t>(data->GetDepth());
    return writeSlices(path, header, [data](int z) {
        return std::span<const short>(data->GetChunkPointer(static_cast<unsigned>(z)), data->GetChunkSize());
    });
}

bool VoxMRCFileHandler::writeSlices(const std::string& path, mrcH header, const SliceSource& source) {
    const std::time_t start = std::time(nullptr);
    m_path = path;
    log(" --------------------  write MRC file --------------- ");
    log(path);
    if (header.type == MRCType::TILT_SERIES && header.next > 0 && header.nz > mrcH::kMaxSlices) {
        refuse(line("a series of ", header.nz, " slices cannot be written; ", mrcH::kMaxSlices,
                    " are possible"));
        return false;
    }
    if (header.type == MRCType::TILT_SERIES && header.next <= 0 && hasTilts(header))
        m_logger->log(
            path + ": the tilt angles are not written, as the header has no extended header (next is 0)",
            VRK::Warning);
    completeForDisk(header);

    std::ofstream file(path, std::ios::binary);
    if (!file) {
        const std::string reason = std::strerror(errno);
        error("VoxMRCFileHandler::saveMRCFile()  Error while opening file to write in ...");
        refuse("cannot be opened for writing (" + reason + ")");
        return false;
    }
    bool written = writeMRCHeader(&header, &file);
    log(" write data ... ");
    setSteps(header.nz, " ");
    std::vector<short> swapped;
    for (int z = 0; z < header.nz && written; ++z) {
        updateStep(z);
        std::span<const short> values = source(z);
        if constexpr (std::endian::native == std::endian::big) {
            swapped.assign(values.begin(), values.end());
            VRK::detail::swapLittleEndian(swapped);
            values = swapped;
        }
        file.write(reinterpret_cast<const char*>(values.data()),
                   static_cast<std::streamsize>(values.size_bytes()));
        written = file.good();
        if (canceled()) {
            log(" writeMRCFile() canceled ...");
            return false;
        }
    }
    if (written) file.close();
    if (!written || !file) {
        refuse(line("could not be written to the end (", std::strerror(errno),
                    "); free space or name another place"));
        return false;
    }
    log(line("VoxMRCFileHandler:writeMRCFile() Completed in ", std::time(nullptr) - start, " sec."));
    return true;
}

bool VoxMRCFileHandler::writeMRCHeader(mrcH* header, std::ofstream* file) {
    trace("----------------------");
    log(" write MRC-Header ...");
    std::array<char, kMainHeaderBytes> bytes{};
    VRK::detail::encodeMainHeader(*header, bytes);
    file->write(bytes.data(), bytes.size());
    log(line("   next value is", header->next, "  AND type =", static_cast<int>(header->type)));
    if (header->type == MRCType::TILT_SERIES && header->next > 0) {
        log(" write EXTENDED MRC-Header ...");
        std::array<char, kSliceRecordBytes> record{};
        for (int z = 0; z < header->nz; ++z) {
            VRK::detail::encodeSliceRecord(*header, z, record);
            file->write(record.data(), record.size());
        }
        const std::uint64_t rest = static_cast<std::uint64_t>(header->next) - recordBytes(*header);
        trace(line("   emtyExHeader size is", rest, " (check:", file->tellp(), ")"));
        writeZeros(*file, rest);
        trace(line("   seek to end of extended header:", file->tellp()));
    }
    log("... MRC header written.");
    return file->good();
}

// ---- volume views ------------------------------------------------------------------------------------

VoxVolumeData* VoxMRCFileHandler::readMRCFile_asVolumeData(const std::string& path, int reduction) {
    return readMRCFile_asVolumeData(path, reduction, VoxVolumeData::Block::Mean);
}

VoxVolumeData* VoxMRCFileHandler::readMRCFile_asVolumeData(const std::string& path, int reduction,
                                                           VoxVolumeData::Block block) {
    std::unique_ptr<std::ifstream> file;
    const std::unique_ptr<mrcH> header = openSeries(path, file);
    if (!header) return nullptr;
    if (!wrongWithSizes(*header).empty()) failAllocation(*header);
    try {
        SliceReduction view(*header, reduction, block, SliceReduction::orderOf(*header));
        std::vector<short> slice(static_cast<std::size_t>(header->nx) * static_cast<std::size_t>(header->ny));
        const auto target = [&slice](int) { return std::span<short>(slice); };
        const auto add = [&view](int z, std::span<const short> values) { view.add(z, values); };
        if (!readSlices(*file, *header, target, add)) return nullptr;
        reportByteCount(*header);
        return std::make_unique<VoxVolumeData>(view.take()).release();
    } catch (const std::bad_alloc&) {
        failAllocation(*header);
    }
}

bool VoxMRCFileHandler::writeMRCFile(const VoxVolumeData* volume, const std::string& path, int reduction) {
    m_path = path;
    if (!volume) {
        refuse("there are no data to write");
        return false;
    }
    if (reduction > 1) {
        const VoxVolumeData coarser = volume->reduced(reduction);
        return writeMRCFile(&coarser, path, 1);
    }
    const std::size_t width = volume->width();
    const std::size_t height = volume->height();
    const bool turn = SliceReduction::orderOf(volume->header()) == SliceReduction::Order::YFastest;
    std::vector<short> turned(turn ? width * height : 0);
    return writeSlices(path, volume->header(), [&](int z) -> std::span<const short> {
        const auto slice =
            volume->voxels().subspan(static_cast<std::size_t>(z) * width * height, width * height);
        if (!turn) return slice;
        VRK::detail::transpose(slice.data(), height, width, turned.data());
        return turned;
    });
}

VoxVolumeData* VoxMRCFileHandler::createTestDummyMRCFile_asVolumeData(int reduction) {
    const std::unique_ptr<VoxMRCData> series(createTestDummyMRCFile());
    return std::make_unique<VoxVolumeData>(VoxVolumeData::fromData(*series, reduction)).release();
}

// ---- messages ---------------------------------------------------------------------------------------

void VoxMRCFileHandler::failAllocation(const mrcH& header) {
    error("ERROR: Could not creat data set. Maybe the mrc-file is corrupted!");
    std::string reason = wrongWithSizes(header);
    if (reason.empty())
        reason = line("no memory for the ", header.nx, " x ", header.ny, " x ", header.nz,
                      " voxels that its header announces; bin the series or use a larger machine");
    throw std::runtime_error(m_path + ": " + reason);
}

void VoxMRCFileHandler::log(const std::string& text) {
    m_logger->log(text);
}

void VoxMRCFileHandler::trace(const std::string& text) {
    m_logger->log(text, VRK::Debug);
}

void VoxMRCFileHandler::error(const std::string& text) {
    m_logger->log(text, VRK::Error);
}

void VoxMRCFileHandler::refuse(const std::string& reason) {
    error("ERROR: " + m_path + ": " + reason);
}
