"""The crystals of several results that have the commonest cell, in one data set: merge_crystals.py OUTPUT RESULT ..."""

import sys
import warnings

import vrkcore

warnings.simplefilter("ignore", vrkcore.VRKWarning)
output, *folders = sys.argv[1:]
merge = vrkcore.merge(folders, leave_out=True)
merge.write(output)
for crystal in merge.crystals:
    print(crystal["name"], f"correlation {crystal['correlation']:.3f}" if crystal["used"] else crystal["reason"])
quality = merge.summary["intensities"]["cc_half_of_crystals"]
print(f"{merge.cell.bravais}, {len(merge.merged)} reflections, CC1/2 of the crystals {quality:.3f}")
