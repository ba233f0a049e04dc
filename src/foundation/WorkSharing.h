/// \file
/// How a host lends its threads to the loops of the library, which has none of its own.
#pragma once

#include <cstddef>
#include <functional>

#include "VRKCoreExport.h"

namespace VRK {

/// Implemented by a host that has threads. Loops whose items do not depend on each other (the patterns of a
/// series, the columns of a volume) hand their items to the one of the thread that called the library;
/// without one they do them one after the other. Results are the same to the last bit: an item writes where
/// no other does, and what is summed over items is summed in their order.
class VRKCORE_EXPORT WorkSharing {
public:
    /// Does one item. No two calls with the same lane overlap: scratch memory belongs to a lane.
    using Work = std::function<void(std::size_t item, std::size_t lane)>;
    /// How many items are done, all before them included. Called in the thread that called share() alone.
    /// False stops: items that were not begun are left out.
    using Progress = std::function<bool(std::size_t done)>;

    virtual ~WorkSharing();

    /// Upper limit of the lanes, at least 1.
    virtual std::size_t lanes() const = 0;
    /// Does the items 0 to \p items - 1, each once, and returns when none is worked on any more. What an item
    /// throws is thrown again here; of several the one of the lowest item. \returns false when stopped
    virtual bool share(std::size_t items, const Work& work, const Progress& progress) = 0;

    /// The one of this thread; null when loops are not shared, as within an item of another loop.
    static WorkSharing* ofThisThread();
};

/// Lends \p sharing, which must live as long, to what this thread calls while it lives; null: works alone.
/// Guards nest.
class VRKCORE_EXPORT SharedWork {
public:
    explicit SharedWork(WorkSharing* sharing);
    ~SharedWork();
    SharedWork(const SharedWork&) = delete;
    SharedWork& operator=(const SharedWork&) = delete;

private:
    WorkSharing* m_before;
};

}  // namespace VRK
