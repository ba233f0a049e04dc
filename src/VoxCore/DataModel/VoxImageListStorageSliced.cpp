#include "VoxCore/DataModel/VoxImageListStorageSliced.h"

#include <cstddef>

template <typename T>
VoxImageListStorageSliced<T>::VoxImageListStorageSliced(const int& width, const int& height, const int& count,
                                                        std::vector<T*>* data)
    : m_Data(data), m_Height(height), m_Width(width), m_Count(count) {}

template <typename T>
T* VoxImageListStorageSliced<T>::getImage(int i) const {
    if (!m_Data || i < 0 || static_cast<std::size_t>(i) >= m_Data->size()) return nullptr;
    return (*m_Data)[static_cast<std::size_t>(i)];
}

template class VoxImageListStorageSliced<short>;
template class VoxImageListStorageSliced<unsigned short>;
template class VoxImageListStorageSliced<int>;
template class VoxImageListStorageSliced<unsigned int>;
template class VoxImageListStorageSliced<float>;
