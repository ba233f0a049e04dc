#include "foundation/VoxProgressObserver.h"

#include <utility>

VoxProgressObserver::~VoxProgressObserver() = default;

void VoxProgressObserver::setSteps(int steps, std::string /*title*/) {
    m_steps = steps;
}

void VoxProgressObservable::setSteps(int steps, std::string title) {
    if (m_observer) m_observer->setSteps(steps, std::move(title));
}

void VoxProgressObservable::updateStep(int step) {
    if (m_observer) m_observer->updateStep(step);
}

void VoxProgressObservable::logMessage(const char* message, Vox::MessageType type) {
    if (m_observer) m_observer->logMessage(message, type);
}
