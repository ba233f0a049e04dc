/// \file
/// A point with what the DDSC clustering notes about it.
#pragma once

#include "cellfinding/Point.h"

/// Labels as ClusterPoint: -1 not yet classified, 0 noise, 1 and up the cluster's number.
template <typename T>
class VRKCORE_EXPORT ClusterPointDDSC : public Point<T> {
public:
    /// All coordinates 0.
    ClusterPointDDSC(unsigned char dimension, short clusterID, int sizeOfNeighbourhood)
        : Point<T>(dimension), m_clusterID(clusterID), m_sizeOfNeighbourhood(sizeOfNeighbourhood) {}
    ClusterPointDDSC(const T* data, unsigned char dimension, short clusterID, int sizeOfNeighbourhood)
        : Point<T>(data, dimension), m_clusterID(clusterID), m_sizeOfNeighbourhood(sizeOfNeighbourhood) {}
    /// Copies \p other, the size of its neighbourhood as getSizeOfNeighbourhood() tells it; null gives an
    /// unclassified point of dimension 0.
    explicit ClusterPointDDSC(const ClusterPointDDSC<T>* other)
        : Point<T>(other),
          m_clusterID(other ? other->m_clusterID : short(-1)),
          m_sizeOfNeighbourhood(other ? other->getSizeOfNeighbourhood() : -1),
          m_distToCurrentPoint(other ? other->m_distToCurrentPoint : 0.0) {}
    ClusterPointDDSC(const ClusterPointDDSC<T>& other) : ClusterPointDDSC(&other) {}
    ClusterPointDDSC<T>& operator=(const ClusterPointDDSC<T>&) = default;
    ~ClusterPointDDSC() = default;

    short getClusterID() const { return m_clusterID; }
    void setClusterID(short clusterID) { m_clusterID = clusterID; }

    /// The number of neighbours as a 16-bit value: callers see sizes above 32767 wrapped (40000 reads as
    /// -25536).
    short getSizeOfNeighbourhood() const { return static_cast<short>(m_sizeOfNeighbourhood); }
    void setSizeOfNeighbourhood(int size) { m_sizeOfNeighbourhood = size; }

    double getDistToCurrentPoint() const { return m_distToCurrentPoint; }
    /// Stores the distance to \p point, the one that the clustering examines (0 for another dimension).
    void setDistToCurrentPoint(const Point<double>* point) {
        m_distToCurrentPoint = this->distTo(point->getData(), point->getDimension());
    }

    /// True when \p a is nearer than \p b to the point that is being examined.
    static bool sortFunction(const ClusterPointDDSC<T>* a, const ClusterPointDDSC<T>* b) {
        return a->m_distToCurrentPoint < b->m_distToCurrentPoint;
    }

    /// Logs "( x, y, z ) - clusterID = ", the label, " - nSize = " and the size of the neighbourhood.
    void print() const;

private:
    short m_clusterID;
    int m_sizeOfNeighbourhood;
    double m_distToCurrentPoint = 0.0;
};

extern template class ClusterPointDDSC<int>;
extern template class ClusterPointDDSC<float>;
extern template class ClusterPointDDSC<double>;
