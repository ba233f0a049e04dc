/// \file
/// Reading and writing of MRC files: tilt series with their slice values, and reciprocal volumes.
#pragma once

#include <cstdint>
#include <functional>
#include <iosfwd>
#include <memory>
#include <span>
#include <string>

#include "VRKCoreExport.h"
#include "VoxCore/DataModel/VoxVolumeData.h"
#include "foundation/VoxProgressObserver.h"

class VRKLogger;
class VoxMRCData;
struct mrcH;

namespace VRK::detail {
class ValueCounts;
}

/// Reads and writes MRC files: a 1024-byte main header, `next` bytes of extended header, then nz slices of
/// ny rows of nx 16-bit signed integers, everything little-endian. The values of a slice stay in the
/// order of the file: x fastest for a series, y fastest for a volume that this library has written.
///
/// Main header, byte 0 on: 22 four-byte fields nx ... amean, ispg (88), nsymbt (90), next (92),
/// extraShort (96), extraWords (98), unused2 (134), idtype (162), lens, nd1, vd1, vd2, tiltangles (172),
/// the three origins (196), cmap (208), stamp, rms, nlabl, labl (224). mrcH's creatid, unused1, nint,
/// nreal and nd2 have no place in the file. The mode field is carried, not consulted: the data are always
/// 16-bit signed. Extended header: per slice 17 float32 in the order of SliceValue and 76 bytes without
/// meaning, 144 in all; what follows the last record is skipped, the data start at 1024 + next.
///
/// Input is checked before memory is sized by it. Every refusal logs one line (Error) with the file's
/// path and what is wrong and returns null:
/// - a path that cannot be opened or is no regular file: "ERROR: Error while opening file " + path ahead of
///   the line with the reason, and "Error while opening file" on the progress channel with type 3;
/// - a file shorter than its 1024-byte header;
/// - next above 0 but smaller than nz records; more than 300 slices with an extended header (volumes have
///   none and may have more layers than that);
/// - an extended header whose records evidently have 128 bytes instead of 144: read in steps of 144
///   its tilts would be other quantities;
/// - more than 16 MiB, and more than fifteen sixteenths of what the header announces, missing from the end
///   of the file: that is another format, or memory asked for nothing.
///
/// A file cut less than that is read: what is missing is 0, and the byte count is reported as an error.
/// Sizes that no data set can have (below 1, more than 2^32 - 1 voxels) and those that memory does not
/// suffice for end in an exception where the data are read; the header alone can still be.
///
/// Accepted with a warning: a negative next, which counts as 0; next that is no multiple of 144 bytes;
/// slices with unequal pixel sizes. Values that are not finite are carried like any other.
///
/// Long operations report one step per slice and poll for cancellation. A file whose writing failed or
/// was cancelled is left as it is; its byte count gives it away. One caller at a time.
class VRKCORE_EXPORT VoxMRCFileHandler : public VoxProgressObservable {
public:
    VoxMRCFileHandler();
    ~VoxMRCFileHandler();
    VoxMRCFileHandler(const VoxMRCFileHandler&) = delete;
    VoxMRCFileHandler& operator=(const VoxMRCFileHandler&) = delete;

    /// Reads a whole file. The result (owned by the caller) carries the header and a 256-bin histogram of
    /// all values. Its type is MRCVOLUME when the first and the last tilt are 0, else TILT_SERIES. The
    /// pixel size is that of the slices, 0 when they differ; without an extended header it is xlen/nx.
    ///
    /// Null: refused (above) or cancelled (" readMRCFile() canceled ...").
    /// The logged extrema start at 10000 and 0: data that lie above or below both are reported with these.
    /// \throw std::runtime_error when the data set cannot be allocated, after an Error line; what() tells the
    ///        path and the sizes
    VoxMRCData* readMRCFile(const std::string& path);

    /// Reads main and extended header (owned by the caller). The data are not looked at and may be
    /// missing, the sizes may be impossible. Null: refused.
    mrcH* readMRCFile_onlyHeader(const std::string& path);

    /// Writes data with their header. The extended header is written for a TILT_SERIES with next > 0 only.
    ///
    /// On disk the header tells what the file holds: nx, ny, nz are the sizes of the data; next is 0
    /// when no extended header is written, and at least nz records when one is. Without one, xlen is
    /// set so that xlen/nx gives m_pixelsize back, 0 where that is not known: a volume neither loses its
    /// pixel size nor takes over that of another file. The caller's header stays as it is. Tilts that are
    /// lost because next is 0 are warned of.
    ///
    /// False, each with one Error line: no data, more than 300 slices with an extended header, a file that
    /// cannot be opened or not be written to the end. False with " writeMRCFile() canceled ...": cancelled.
    bool writeMRCFile(VoxMRCData* data, const std::string& path);

    /// A synthetic tilt series with known lattice (DummyCrystal.h) and no noise, the same on every call;
    /// owned by the caller. With histogram and extended header. Throws like readMRCFile().
    VoxMRCData* createTestDummyMRCFile();

    /// Reads a file for display, averaged over blocks of \p reduction voxels along each axis; of a series
    /// only along x and y, as slices are patterns of different tilts. 1 (and anything below) keeps the full
    /// size. Only the reduced view is held in memory. The result is owned by the caller. Failures as in
    /// readMRCFile().
    VoxVolumeData* readMRCFile_asVolumeData(const std::string& path, int reduction);
    /// The same with the blocks' means or maxima.
    VoxVolumeData* readMRCFile_asVolumeData(const std::string& path, int reduction,
                                            VoxVolumeData::Block block);

    /// Writes a view, reduced like in reading, in the in-slice order that its type has in files. Failures as
    /// in writing of MRC data.
    bool writeMRCFile(const VoxVolumeData* volume, const std::string& path, int reduction);

    /// The series of createTestDummyMRCFile() as a view, reduced like in reading; owned by the caller.
    VoxVolumeData* createTestDummyMRCFile_asVolumeData(int reduction);

private:
    /// Where the values of a slice go to or come from.
    using SliceTarget = std::function<std::span<short>(int slice)>;
    using SliceSource = std::function<std::span<const short>(int slice)>;
    using SliceVisitor = std::function<void(int slice, std::span<const short> values)>;

    mrcH* readMRCHeader(std::ifstream* file);
    bool writeMRCHeader(mrcH* header, std::ofstream* file);
    float checkPixelSizeInImages(mrcH* header);
    mrcH* createDummyMRCTiltHeader();

    /// Opens a file for one of the reading operations and logs its length; null on failure.
    std::unique_ptr<std::ifstream> openToRead(const std::string& path);
    /// The frame of the reading operations: open, header, check of the file's length. Null on failure.
    std::unique_ptr<mrcH> openSeries(const std::string& path, std::unique_ptr<std::ifstream>& file);
    bool readExtendedHeader(std::ifstream& file, mrcH& header);
    /// Reads every slice into its target and shows it to the visitor; false when cancelled.
    bool readSlices(std::ifstream& file, const mrcH& header, const SliceTarget& target,
                    const SliceVisitor& visitor);
    /// Reads every slice of a file into the data and counts its values; false when that fails or is
    /// cancelled. Threads share the slices (foundation/WorkSharing.h).
    bool readAll(const mrcH& header, VoxMRCData& data, VRK::detail::ValueCounts& counts);
    void reportByteCount(const mrcH& header);
    /// The header is changed into what belongs on disk.
    bool writeSlices(const std::string& path, mrcH header, const SliceSource& source);
    [[noreturn]] void failAllocation(const mrcH& header);

    void log(const std::string& text);
    void trace(const std::string& text);
    void error(const std::string& text);
    /// Logs the refusal of the file at hand.
    void refuse(const std::string& reason);
    /// Whether reading failed, which is then told; the end of the file is no failure.
    bool refuseUnreadable(bool failed);

    VRKLogger* m_logger;
    std::string m_path;              ///< the file at hand
    std::uint64_t m_fileLength = 0;  ///< of the file being read, bytes
};
