/// \file
/// Space groups by their symbols.
#pragma once

#include <gemmi/symmetry.hpp>
#include <string>

#include "pipeline/base/Failure.h"

namespace vrk::detail {

/// \param name  extended Hermann-Mauguin symbol
/// Throws Failure (Usage) when there is no such group.
inline const gemmi::SpaceGroup& spaceGroupNamed(const std::string& name) {
    const gemmi::SpaceGroup* group = gemmi::find_spacegroup_by_name(name);
    if (!group) throw Failure("there is no space group \"" + name + '"', FailureKind::Usage);
    return *group;
}

}  // namespace vrk::detail
