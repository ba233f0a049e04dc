#include "reflections/ReflexOnGrid.h"

#include <algorithm>
#include <iostream>
#include <limits>
#include <string>

#include "foundation/VRKLogger.h"
#include "reflections/VolumeMath.h"
#include "reflections/detail/RegionGrower.h"

using VRK::detail::Region;
using VRK::detail::RegionGrower;
using VRK::detail::VoxelGrid;

ReflexOnGrid::ReflexOnGrid(int x, int y, int z, const VoxMRCData* volume, bool markVisited, bool* visited)
    : Reflex(x, y, z), m_minValue(std::numeric_limits<float>::infinity()), m_volume(volume) {
    m_intensity = 0.0;
    m_minX = m_maxX = x;
    m_minY = m_maxY = y;
    m_minZ = m_maxZ = z;
    setPosition(x, y, z);
    const int start = VolumeMath::getIndex(volume, x, y, z);
    if (start < 0) {
        setPosition(0.0, 0.0, 0.0);
        VRKLogger::getInstance()->log("Startvoxel not correct.", VRK::Error, VRK::Information);
        return;
    }
    if (VolumeMath::isZero(volume, start)) return;
    detectReflex(x, y, z, markVisited, visited);
    integrate();
}

ReflexOnGrid::ReflexOnGrid(const int* xyz, const VoxMRCData* volume, bool markVisited, bool* visited)
    : Reflex(xyz[0], xyz[1], xyz[2]), m_volume(volume) {
    const ReflexOnGrid marking(xyz[0], xyz[1], xyz[2], volume, markVisited, visited);
}

ReflexOnGrid::ReflexOnGrid(const VoxMRCData* volume, Region& region)
    : Reflex(0.0, 0.0, 0.0), m_volume(volume) {
    adopt(region);
    integrate();
}

void ReflexOnGrid::setPosition(double x, double y, double z) {
    m_centerOfGravity[0] = m_weightedSums[0] = m_x = x;
    m_centerOfGravity[1] = m_weightedSums[1] = m_y = y;
    m_centerOfGravity[2] = m_weightedSums[2] = m_z = z;
}

void ReflexOnGrid::detectReflex(int x, int y, int z, bool markVisited, bool* visited) {
    const VoxelGrid grid(m_volume);
    const int start = grid.index(x, y, z);
    if (start < 0) return;
    RegionGrower grower(*m_volume, grid);
    Region& region = grower.grow(start);
    if (markVisited)
        std::for_each(region.voxels.begin() + 1, region.voxels.end(),
                      [&](int index) { visited[index] = true; });
    adopt(region);
}

void ReflexOnGrid::adopt(Region& region) {
    std::copy(region.weightedSums.begin(), region.weightedSums.end(), m_weightedSums);
    m_x = region.sums[0];
    m_y = region.sums[1];
    m_z = region.sums[2];
    m_centerOfGravity[0] = region.brightest.x;
    m_centerOfGravity[1] = region.brightest.y;
    m_centerOfGravity[2] = region.brightest.z;
    m_minValue = region.minValue;
    m_maxValue = region.maxValue;
    m_sumOfValues = region.sumOfValues;
    m_minX = region.lowest.x;
    m_minY = region.lowest.y;
    m_minZ = region.lowest.z;
    m_maxX = region.highest.x;
    m_maxY = region.highest.y;
    m_maxZ = region.highest.z;
    VRK::detail::sortAscending(region.voxels);
    m_sorted.assign(region.voxels.begin(), region.voxels.end());
    m_points.clear();
}

std::set<int>& ReflexOnGrid::points() {
    // From sorted numbers the set is built in linear time.
    if (!m_sorted.empty()) m_points = std::set<int>(m_sorted.begin(), m_sorted.end());
    std::vector<int>().swap(m_sorted);
    return m_points;
}

bool ReflexOnGrid::add(int x, int y, int z, int* index, bool markVisited, bool* visited) {
    *index = VolumeMath::getIndex(m_volume, x, y, z);
    if (*index < 0 || points().contains(*index)) return false;
    const short value = VolumeMath::getValue(m_volume, *index);
    if (VolumeMath::isZero(value)) return false;
    m_points.insert(*index);
    if (markVisited) visited[*index] = true;

    const auto level = static_cast<float>(value);
    m_x += x;
    m_y += y;
    m_z += z;
    updateDimensions(x, y, z);
    m_sumOfValues += level;
    m_weightedSums[0] += static_cast<double>(value) * x;
    m_weightedSums[1] += static_cast<double>(value) * y;
    m_weightedSums[2] += static_cast<double>(value) * z;
    m_minValue = std::min(m_minValue, level);
    if (level > m_maxValue) {
        m_maxValue = level;
        m_centerOfGravity[0] = x;
        m_centerOfGravity[1] = y;
        m_centerOfGravity[2] = z;
    }
    return true;
}

void ReflexOnGrid::updateDimensions(int x, int y, int z) {
    m_minX = std::min(m_minX, x);
    m_maxX = std::max(m_maxX, x);
    m_minY = std::min(m_minY, y);
    m_maxY = std::max(m_maxY, y);
    m_minZ = std::min(m_minZ, z);
    m_maxZ = std::max(m_maxZ, z);
}

double ReflexOnGrid::getCenter(int axis, int type) {
    switch (type) {
        case 1:
            return getCenterOfGravity(axis);
        case 2:
            return getCenter(axis);
        case 3:
            return getWeightedCenter(axis);
        default:
            return 0.0;
    }
}

double ReflexOnGrid::getCenter(int axis) {
    if (voxelCount() == 0) return 0.0;
    return (axis == 0 ? m_x : axis == 1 ? m_y : m_z) / static_cast<double>(voxelCount());
}

void ReflexOnGrid::getCenter(double& x, double& y, double& z) {
    const auto count = static_cast<double>(voxelCount());
    x = m_x / count;
    y = m_y / count;
    z = m_z / count;
}

double ReflexOnGrid::getCenterInX() {
    return getCenter(0);
}

double ReflexOnGrid::getCenterInY() {
    return getCenter(1);
}

double ReflexOnGrid::getCenterInZ() {
    return getCenter(2);
}

double ReflexOnGrid::getWeightedCenter(int axis) const {
    return m_weightedSums[axis] / static_cast<double>(m_sumOfValues);
}

void ReflexOnGrid::getCenterOfGravity(double& x, double& y, double& z) const {
    x = m_centerOfGravity[0];
    y = m_centerOfGravity[1];
    z = m_centerOfGravity[2];
}

bool ReflexOnGrid::isInside(int x, int y, int z) {
    return isInside(VolumeMath::getIndex(m_volume, x, y, z));
}

bool ReflexOnGrid::isInside(int index) const {
    return m_points.contains(index) || std::binary_search(m_sorted.begin(), m_sorted.end(), index);
}

int ReflexOnGrid::getNumberOfVoxels() {
    return static_cast<int>(voxelCount());
}

std::set<int>* ReflexOnGrid::getPoints() {
    return &points();
}

void ReflexOnGrid::print() {
    std::cout << "---------- Information about reflection ----------\n"
              << "Max. value: " << m_maxValue << '\n'
              << "Min value: " << m_minValue << '\n'
              << "Width (in voxels): " << getWidth() << '\n'
              << "Hieght (in voxels): " << getHeight() << '\n'
              << "Depth (in voxels): " << getDepth() << '\n'
              << "Volume (in voxels): " << getNumberOfVoxels() << '\n'
              << "Center of gravity: [" << m_centerOfGravity[0] << "," << m_centerOfGravity[1] << ","
              << m_centerOfGravity[2] << "]\n"
              << "Arithmetical mean: [" << m_x << "," << m_y << "," << m_z << "]\n"
              << "Weighted arithmetical mean: [" << m_weightedSums[0] << "," << m_weightedSums[1] << ","
              << m_weightedSums[2] << "]\n"
              << "HKL: [" << m_h << "," << m_k << "," << m_l << "]\n"
              << "Intensity: " << m_intensity << '\n'
              << "--------------------------------------------------" << std::endl;
    VRKLogger::getInstance()->log(std::string(), VRK::Normal, VRK::Information);
}
