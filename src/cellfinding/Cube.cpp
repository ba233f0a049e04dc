#include "cellfinding/Cube.h"

#include <string>

#include "foundation/VRKLogger.h"

void Cube::print() const {
    VRKLogger::getInstance()->log("Indexbereich = [" + std::to_string(m_startIdx) + ", " +
                                      std::to_string(m_endIdx) +
                                      "] - Kantenlaenge = " + std::to_string(m_edgeLength),
                                  VRK::Normal, VRK::Information);
}
