/// \file
/// Loops whose items may be shared by the threads of the host.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "foundation/WorkSharing.h"

namespace VRK {

/// How many lanes a loop of this thread has, 1 or more.
inline std::size_t lanes() {
    const WorkSharing* sharing = WorkSharing::ofThisThread();
    return sharing ? sharing->lanes() : 1;
}

/// Calls visit(item, lane) for every item (WorkSharing); progress(done) before each where nothing is shared.
/// \returns false when progress() stopped it
template <typename Visit, typename Progress>
bool shareItems(std::size_t items, Visit visit, Progress progress) {
    if (WorkSharing* sharing = WorkSharing::ofThisThread(); sharing && sharing->lanes() > 1 && items > 1)
        return sharing->share(items, std::ref(visit), std::ref(progress));
    for (std::size_t item = 0; item < items; ++item) {
        if (!progress(item)) return false;
        visit(item, std::size_t{0});
    }
    return true;
}

template <typename Visit>
void shareItems(std::size_t items, Visit visit) {
    shareItems(items, std::move(visit), [](std::size_t) { return true; });
}

/// Something that every lane of a loop has for itself, made when the lane needs it first.
template <typename Value>
class PerLane {
public:
    template <typename Make>
    explicit PerLane(Make make) : m_make(std::move(make)), m_values(lanes()) {}

    Value& operator[](std::size_t lane) {
        std::optional<Value>& value = m_values[lane];
        if (!value) value.emplace(m_make());
        return *value;
    }
    /// Those that were made, in no order that means anything.
    template <typename Visit>
    void forEach(Visit visit) const {
        for (const std::optional<Value>& value : m_values)
            if (value) visit(*value);
    }

private:
    std::function<Value()> m_make;
    std::vector<std::optional<Value>> m_values;
};

}  // namespace VRK
