/// \file
/// The few things that the readers ask of HDF5 files.
#pragma once

#include <hdf5.h>

#include <filesystem>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "pipeline/frames/FrameSource.h"

namespace vrk::detail {

/// An identifier of the library, given back on destruction. Negative when what was asked for is not there.
class Hdf5Id {
public:
    explicit Hdf5Id(hid_t id = -1) : m_id(id) {}
    ~Hdf5Id() {
        if (m_id >= 0) H5Idec_ref(m_id);
    }
    Hdf5Id(Hdf5Id&& other) noexcept : m_id(std::exchange(other.m_id, -1)) {}
    Hdf5Id& operator=(Hdf5Id&& other) noexcept {
        std::swap(m_id, other.m_id);
        return *this;
    }

    hid_t get() const { return m_id; }
    explicit operator bool() const { return m_id >= 0; }

private:
    hid_t m_id;
};

/// Opens for reading without locks, so that files on read-only media can be read, too.
Hdf5Id openHdf5(const FrameSource& source);

/// A group or data set below \p place, links followed. Negative when they, or what a data set is made of,
/// lead to a file outside the folder of the one that was opened, unless its source allows that.
Hdf5Id objectAt(hid_t place, const std::string& path);
/// The first file that was not read because it lies outside; empty when there was none.
std::string fileOutside();
/// An array that was not opened because it is made of itself, or of arrays that are made of others in turn,
/// eight times; empty when there was none.
std::string arrayOfItself();
/// An array as objectAt() opens it, with memory for a piece that holds several frames, so that it is unpacked
/// once and not for each of them.
Hdf5Id arrayAt(hid_t place, const std::string& path);
bool isDataset(const Hdf5Id& object);
/// Sizes of the dimensions, the slowest first; empty for objects that are no arrays of numbers.
std::vector<long long> shapeOf(const Hdf5Id& dataset);

/// Numbers of a data set or an attribute, at most \p most; empty when there are none or more.
std::vector<double> numbersAt(hid_t place, const std::string& path, std::size_t most = 1000000);
std::vector<double> attributeNumbers(hid_t object, const std::string& name);
/// The first number.
std::optional<double> numberAt(hid_t place, const std::string& path);
/// Empty when there is no such text.
std::string attributeText(hid_t object, const std::string& name);

/// Names of what a group holds, in alphabetical order, at most 10,000.
std::vector<std::string> namesIn(hid_t group);
/// The file and the path within it that a link leads to; empty for links within the file.
std::pair<std::string, std::string> externalTarget(hid_t group, const std::string& name);

/// The files (a dot for its own) and the arrays in them that an array gathers its pixels from, when it is one
/// that gathers ("virtual").
std::vector<std::pair<std::string, std::string>> gatheredArrays(const Hdf5Id& dataset);

/// Reads one slice: index \p slice of dimension \p axis (ignored for arrays of two dimensions) and all of the
/// other two. False when that fails, or where more is stored for a piece than packing can have made of it.
bool readSlice(const Hdf5Id& dataset, int axis, long long slice, std::vector<float>& pixels);
/// Reads column \p column of an array of bytes.
std::string readColumn(const Hdf5Id& dataset, long long column);

/// How many slices along \p axis have been written at most; all of them where that cannot be told.
long long slicesWritten(const Hdf5Id& dataset, int axis);

/// What keeps the pixels from being read: the name of a filter that is not installed, or chunks larger or
/// smaller than any camera needs; empty when nothing does.
std::string obstacleIn(const Hdf5Id& dataset, int axis);

}  // namespace vrk::detail
