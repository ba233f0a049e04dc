#include <iostream>
#include <memory>

#include "VoxCore/DataModel/VoxMRCData.h"
#include "VoxCore/IO/VoxMRCFileHandler.h"

int main() {
    const std::unique_ptr<VoxMRCData> series(VoxMRCFileHandler().createTestDummyMRCFile());
    std::cout << series->GetDepth() << " patterns from " << series->m_Header.tilt(0) << " degrees\n";
}
