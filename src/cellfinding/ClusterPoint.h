/// \file
/// A point with the label that the clustering gives it.
#pragma once

#include "cellfinding/Point.h"

/// Labels: -1 not yet classified, 0 noise, 1 and up the cluster's number.
template <typename T>
class VRKCORE_EXPORT ClusterPoint : public Point<T> {
public:
    /// All coordinates 0.
    ClusterPoint(unsigned char dimension, short clusterID) : Point<T>(dimension), m_clusterID(clusterID) {}
    ClusterPoint(const T* data, unsigned char dimension, short clusterID)
        : Point<T>(data, dimension), m_clusterID(clusterID) {}
    /// Copies \p other with its label; null gives an unclassified point of dimension 0.
    explicit ClusterPoint(const ClusterPoint<T>* other)
        : Point<T>(other), m_clusterID(other ? other->m_clusterID : short(-1)) {}

    short getClusterID() const { return m_clusterID; }
    void setClusterID(short clusterID) { m_clusterID = clusterID; }

    /// Logs "( x, y, z ) - clusterID = " and the label.
    void print() const;

private:
    short m_clusterID;
};

extern template class ClusterPoint<int>;
extern template class ClusterPoint<float>;
extern template class ClusterPoint<double>;
