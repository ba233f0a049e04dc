/// \file
/// A point set with a label.
#pragma once

#include <utility>
#include <vector>

#include "cellfinding/PointSet.h"

/// P = Point<int>, Point<float>, Point<double>.
template <typename P>
class VRKCORE_EXPORT Cluster : public PointSet<P> {
public:
    /// A negative label becomes 0, with the warning "ClusterID has to be positiv. Use now clusterID 0.".
    Cluster(const P* point, int clusterID);
    Cluster(const std::vector<P*>* points, int clusterID);
    Cluster(const Cluster<P>& other);
    Cluster<P>& operator=(const Cluster<P>& other) = default;
    ~Cluster() override;

    int getClusterID() const { return m_clusterID; }
    /// A negative label is ignored.
    void setClusterID(int clusterID);

    /// Keeps the inner part of the cluster: the N * fraction points (truncated) that lie nearest to the
    /// centre when the moments differ by a factor of at most 10, nearest to the longest axis otherwise.
    /// Points at equal distances stay in their order. False, with nothing changed, unless
    /// 0 <= fraction < 1. A fraction that leaves no point empties the cluster.
    bool refineCluster(double fraction);

    /// Orders by the first member.
    static bool compareFunction(std::pair<double, P*> a, std::pair<double, P*> b) {
        return a.first < b.first;
    }

private:
    int m_clusterID = 0;
};

extern template class Cluster<Point<int>>;
extern template class Cluster<Point<float>>;
extern template class Cluster<Point<double>>;
