#include "VoxCore/DataModel/VoxImageList.h"

template <typename T>
VoxImageList<T>::VoxImageList(const int& width, const int& height, const int& count, T* data)
    : m_Data(data), m_Height(height), m_Width(width), m_Count(count) {}

template class VoxImageList<short>;
template class VoxImageList<unsigned short>;
template class VoxImageList<int>;
template class VoxImageList<unsigned int>;
template class VoxImageList<float>;
