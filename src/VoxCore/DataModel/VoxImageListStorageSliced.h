/// \file
/// A view of images each of which lies in a block of memory of its own.
#pragma once

#include <cstdint>
#include <vector>

#include "VRKCoreExport.h"

/// Owns neither the images nor the vector of pointers to them (VoxArray::ToVectorArray() makes one of a
/// sliced array): both have to outlive the view. Copies refer to the same images.
/// \tparam T short, unsigned short, int, unsigned int or float; the library holds the code for these.
template <typename T>
class VRKCORE_EXPORT VoxImageListStorageSliced {
public:
    VoxImageListStorageSliced(const int& width, const int& height, const int& count, std::vector<T*>* data);

    int getImageWidth() const { return m_Width; }
    int getImageHeight() const { return m_Height; }
    int getImageCount() const { return m_Count; }
    /// Pixels of all images together.
    std::int64_t getSize() const { return std::int64_t{m_Width} * m_Height * m_Count; }
    std::vector<T*>* getData() const { return m_Data; }
    /// Null when there is no image of that number.
    T* getImage(int i) const;

private:
    std::vector<T*>* m_Data;
    int m_Height;
    int m_Width;
    int m_Count;
};

extern template class VoxImageListStorageSliced<short>;
extern template class VoxImageListStorageSliced<unsigned short>;
extern template class VoxImageListStorageSliced<int>;
extern template class VoxImageListStorageSliced<unsigned int>;
extern template class VoxImageListStorageSliced<float>;
