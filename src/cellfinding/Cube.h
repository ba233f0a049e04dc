/// \file
/// One cell of the cubic grid.
#pragma once

#include "VRKCoreExport.h"

/// The range of the grid's point list that lies in one cell; the default one is empty.
class VRKCORE_EXPORT Cube {
public:
    Cube() = default;
    /// An edge length below 1 counts as 1.
    Cube(int startIdx, int endIdx, int edgeLength)
        : m_startIdx(startIdx), m_endIdx(endIdx), m_edgeLength(edgeLength < 1 ? 1 : edgeLength) {}

    int getStartIdx() const { return m_startIdx; }
    /// The last point's index; startIdx - 1 in an empty cell.
    int getEndIdx() const { return m_endIdx; }
    int getEdgeLength() const { return m_edgeLength; }
    int getNumberOfPoints() const { return m_endIdx - m_startIdx + 1; }
    /// Negative values are ignored.
    void setStartIdx(int index) {
        if (index >= 0) m_startIdx = index;
    }
    void setEndIdx(int index) {
        if (index >= 0) m_endIdx = index;
    }
    /// Values below 1 are ignored.
    void setEdgeLength(int length) {
        if (length >= 1) m_edgeLength = length;
    }

    /// Logs "Indexbereich = [first, last] - Kantenlaenge = length".
    void print() const;

private:
    int m_startIdx = -1;
    int m_endIdx = -2;
    int m_edgeLength = 1;
};
