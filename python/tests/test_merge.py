"""Crystals of one cell in one data set, as the program merges them, and cells that are sorted."""

import json
import subprocess
import sys
from pathlib import Path

import numpy as np
import pytest

import vrkcore


@pytest.fixture(scope="module")
def folders(tmp_path_factory):
    """Two crystals with the same intensities and one with another cell."""
    base = tmp_path_factory.mktemp("results")
    how = dict(dmin=1, size=128, tilts=np.arange(-44, 45, 4), axis=20, write_axis=True)
    turns = [np.eye(3), [[0, 0, 1], [1, 0, 0], [0, 1, 0]]]
    for name, cell, turn in (("one", (4, 5, 6), 0), ("two", (4, 5, 6), 1), ("other", (4, 5, 7), 0)):
        series = vrkcore.simulate([*cell, 90, 90, 90], orientation=turns[turn], **how)
        vrkcore.run(series).write(base / name)
    return [base / name for name in ("one", "two", "other")]


def test_numbers_are_those_of_the_program(folders, tmp_path, program):
    by_program = json.loads(subprocess.run([program, "merge", *folders[:2], "-o", tmp_path / "by_program",
                                            "--no-pictures", "--json"], check=True, capture_output=True).stdout)
    merge = vrkcore.merge(folders[:2])
    by_module = merge.summary
    for differs in ("program", "warnings"):
        by_program.pop(differs), by_module.pop(differs)
    assert by_module == by_program
    written = {path.rsplit("/", 1)[1] for path in merge.write(tmp_path / "by_module", title="by_program")}
    for name in {"merged.hkl", "merged.mtz", "crystal.ins", "crystals.csv"} & written:
        assert (tmp_path / "by_module" / name).read_bytes() == (tmp_path / "by_program" / name).read_bytes(), name
    assert {"merged.hkl", "merged.mtz", "crystal.ins", "merge.json"} <= written
    assert len(merge.merged) == by_program["intensities"]["unique"]
    assert len(merge.observations) == by_program["intensities"]["observations"]
    assert set(merge.observations["crystal"]) == {0, 1}
    assert merge.cell.bravais == "oP" and merge.laue_class == by_program["intensities"]["laue"]["class"]
    np.testing.assert_allclose(merge.cell, (4, 5, 6, 90, 90, 90), rtol=0.01)


def test_settings_arrive(folders):
    with pytest.raises(vrkcore.UsageError, match="another cell"):
        vrkcore.merge(folders)
    with pytest.warns(vrkcore.VRKWarning, match="left out"):
        merge = vrkcore.merge(folders, leave_out=True)
    assert [crystal["used"] for crystal in merge.crystals] == [True, True, False]
    assert min(vrkcore.merge(folders[:2]).merged["d"]) < 1.15 < min(vrkcore.merge(folders[:2], d_min=1.2).merged["d"])
    with pytest.raises(vrkcore.UsageError, match="nothing says the cell"):
        (folders[0].parent / "x.hkl").write_text("   1   0   0  100.00    1.00\n")
        vrkcore.merge(folders[:2], reference=folders[0].parent / "x.hkl")
    with pytest.raises(vrkcore.UsageError, match="is not that of the crystals"):
        vrkcore.merge(folders[:2], reference=folders[0].parent / "x.hkl", reference_cell=(9, 9, 9, 90, 90, 90))
    with pytest.raises(TypeError, match="keep_all"):
        vrkcore.merge(folders[:2], keep_all="maybe")


def test_example(folders, tmp_path):
    example = Path(__file__).resolve().parents[2] / "examples" / "merge_crystals.py"
    done = subprocess.run([sys.executable, example, tmp_path / "merged", *folders], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    assert "its cell is another one" in done.stdout.splitlines()[2] and done.stdout.splitlines()[3].startswith("oP, ")
    assert (tmp_path / "merged" / "merged.hkl").exists()


def test_cells_are_sorted_whatever_their_setting():
    cells = [(4, 5, 6, 90, 90, 90), (6.01, 4.01, 5, 90, 90, 90), (7, 7, 9, 90, 90, 120),
             vrkcore.Cell(10, 10, 10, 90, 90, 90, bravais="cI"), (8.66, 8.66, 8.66, 109.4712, 109.4712, 109.4712),
             (5, 4, 6.02, 90, 90, 90), (1, 1, 1, 10, 10, 100)]
    found = vrkcore.cluster_cells(cells)
    np.testing.assert_array_equal(found.labels, [0, 0, 2, 1, 1, 0, -1])
    assert found.middles[0] in (0, 1, 5) and found.strains[found.middles[0]] == 0
    assert found.joins.shape == (5, 4) and found.joins[-1, 3] == 6 and (np.diff(found.joins[:, 2]) >= 0).all()
    assert len(set(vrkcore.cluster_cells(cells[:2], cut=1e-4).labels)) == 2
    assert len(set(vrkcore.cluster_cells([cells[3], cells[4]], "P").labels)) == 2
    with pytest.raises(ValueError):
        vrkcore.cluster_cells([(1, 2, 3)])
    with pytest.raises(ValueError):
        vrkcore.cluster_cells(cells, "PI")
