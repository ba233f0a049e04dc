#include "cellfinding/ClusterPoint.h"

#include <sstream>

#include "cellfinding/detail/PointText.h"
#include "foundation/VRKLogger.h"

template <typename T>
void ClusterPoint<T>::print() const {
    std::ostringstream text;
    text << "( ";
    VRK::detail::writeList(text, this->getData(), this->getDimension());
    text << " ) - clusterID = " << m_clusterID;
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}

template class ClusterPoint<int>;
template class ClusterPoint<float>;
template class ClusterPoint<double>;
