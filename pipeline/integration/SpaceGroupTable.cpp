#include "pipeline/integration/SpaceGroupTable.h"

#include <algorithm>
#include <gemmi/symmetry.hpp>
#include <set>

namespace vrk {
namespace {

/// gemmi's operators act on coordinates; on indices, as a column, acts the transposed matrix.
gemmi::Op::Rot matrixOf(const IndexRotation& rotation, int sign) {
    gemmi::Op::Rot rot{};
    for (std::size_t i = 0; i < 3; ++i)
        for (std::size_t j = 0; j < 3; ++j)
            rot[i][j] = sign * gemmi::Op::DEN * rotation.matrix[j][i];
    return rot;
}

std::set<gemmi::Op::Rot> laueMatrices(const LaueRotations& rotations) {
    std::set<gemmi::Op::Rot> matrices;
    for (const IndexRotation& rotation : rotations)
        for (const int sign : {1, -1})
            matrices.insert(matrixOf(rotation, sign));
    return matrices;
}

}  // namespace

const gemmi::SpaceGroup* symmorphicGroup(const LaueRotations& rotations, char centring) {
    gemmi::GroupOps operations;
    operations.sym_ops.push_back(gemmi::Op::identity());
    for (const gemmi::Op::Rot& rot : laueMatrices(rotations))
        if (rot != gemmi::Op::identity().rot) operations.sym_ops.push_back({rot, {0, 0, 0}});
    operations.cen_ops = gemmi::centring_vectors(centring);
    return gemmi::find_spacegroup_by_ops(operations);
}

std::vector<const gemmi::SpaceGroup*> spaceGroupsOf(const LaueRotations& rotations, char centring) {
    const std::set<gemmi::Op::Rot> wanted = laueMatrices(rotations);
    std::vector<const gemmi::SpaceGroup*> groups;
    for (const gemmi::SpaceGroup& group : gemmi::spacegroup_tables::main) {
        if (group.centring_type() != centring || group.ext == '1') continue;
        std::set<gemmi::Op::Rot> matrices;
        for (const gemmi::Op& operation : group.operations().sym_ops) {
            matrices.insert(operation.rot);
            matrices.insert(operation.negated_rot());
        }
        if (matrices == wanted) groups.push_back(&group);
    }
    return groups;
}

}  // namespace vrk
