/// \file
/// Progress reporting and cancellation: a long operation derives from VoxProgressObservable and reports
/// to the one VoxProgressObserver that the host has registered.
#pragma once

#include <cstdint>
#include <string>

#include "VRKCoreExport.h"

namespace Vox {

/// Kind of a message on the progress channel.
enum MessageType : std::int32_t {
    Normal = 0,
    Important = 1,
    Critical = 2,
    Error = 3,
    Debug = 4,
    Warning = 5
};

}  // namespace Vox

/// Implemented by the host.
class VRKCORE_EXPORT VoxProgressObserver {
public:
    VoxProgressObserver() = default;
    VoxProgressObserver(const VoxProgressObserver&) = default;
    VoxProgressObserver& operator=(const VoxProgressObserver&) = default;
    virtual ~VoxProgressObserver();

    /// Announces how many updateStep() calls to expect; \p title names the operation.
    virtual void setSteps(int steps, std::string title);
    virtual void updateStep(int step) = 0;
    virtual void logMessage(const char* message, Vox::MessageType type) = 0;

    int steps() const { return m_steps; }

    /// Asks the running operation to stop. The library never clears the flag.
    void cancel() { m_canceled = true; }
    bool canceled() const { return m_canceled; }

private:
    bool m_canceled = false;
    int m_steps = 0;
};

/// Base of every class that reports progress. Without an observer operations run to completion.
class VRKCORE_EXPORT VoxProgressObservable {
public:
    /// Replaces the observer (not owned); null detaches it.
    void registerObserver(VoxProgressObserver* observer) { m_observer = observer; }

protected:
    void setSteps(int steps, std::string title);
    void updateStep(int step);
    void logMessage(const char* message, Vox::MessageType type);
    bool canceled() const { return m_observer && m_observer->canceled(); }

    /// For operations that run other reporting operations on the same observer.
    VoxProgressObserver* observer() const { return m_observer; }

private:
    VoxProgressObserver* m_observer = nullptr;
};
