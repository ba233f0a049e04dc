/// \file
/// A view of images that lie one after another in memory.
#pragma once

#include <cstdint>

#include "VRKCoreExport.h"

/// Owns nothing: the images have to outlive the view. Copies refer to the same images.
/// \tparam T short, unsigned short, int, unsigned int or float; the library holds the code for these.
template <typename T>
class VRKCORE_EXPORT VoxImageList {
public:
    VoxImageList(const int& width, const int& height, const int& count, T* data);

    int getImageWidth() const { return m_Width; }
    int getImageHeight() const { return m_Height; }
    int getImageCount() const { return m_Count; }
    /// Pixels of all images together.
    std::int64_t getSize() const { return std::int64_t{m_Width} * m_Height * m_Count; }
    T* getData() const { return m_Data; }

private:
    T* m_Data;
    int m_Height;
    int m_Width;
    int m_Count;
};

extern template class VoxImageList<short>;
extern template class VoxImageList<unsigned short>;
extern template class VoxImageList<int>;
extern template class VoxImageList<unsigned int>;
extern template class VoxImageList<float>;
