#include "cellfinding/ClusterPointDDSC.h"

#include <sstream>

#include "cellfinding/detail/PointText.h"
#include "foundation/VRKLogger.h"

template <typename T>
void ClusterPointDDSC<T>::print() const {
    std::ostringstream text;
    text << "( ";
    VRK::detail::writeList(text, this->getData(), this->getDimension());
    text << " ) - clusterID = " << m_clusterID << " - nSize = " << getSizeOfNeighbourhood();
    VRKLogger::getInstance()->log(text.str(), VRK::Normal, VRK::Information);
}

template class ClusterPointDDSC<int>;
template class ClusterPointDDSC<float>;
template class ClusterPointDDSC<double>;
