"""Cells against another program's, and the stub against the module."""

import ast
import inspect
from pathlib import Path

import numpy as np
import pytest

import vrkcore

CELLS = [((5, 6, 7, 90, 90, 90), "P", "oP"), ((12, 12, 12, 90, 90, 90), "I", "cI"), ((4, 4, 9, 90, 90, 120), "P", "hP"),
         ((7, 11, 5, 90, 103, 90), "C", "mC"), ((9, 8, 7, 91, 97, 105), "P", "aP"), ((5, 5, 13, 90, 90, 120), "R", "hR"),
         ((10, 10, 10, 90, 90, 90), "F", "cF")]


@pytest.mark.parametrize("cell, centring, bravais", CELLS)
def test_reduction_and_symmetry(cell, centring, bravais):
    gemmi = pytest.importorskip("gemmi")
    reduced = vrkcore.niggli(cell, centring)
    other = gemmi.GruberVector(gemmi.UnitCell(*cell), centring)
    other.niggli_reduce()
    np.testing.assert_allclose(reduced, other.cell_parameters(), atol=1e-6)
    best = vrkcore.lattice_symmetry(cell, centring)[0]
    assert best.bravais == bravais
    assert best.cell.volume == pytest.approx(vrkcore.Cell(*cell).volume)
    assert round(np.linalg.det(best.transformation)) == round(best.cell.volume / reduced.volume)


def test_tolerances_decide():
    cell = (5, 5.1, 8, 90, 90, 90)
    assert vrkcore.lattice_symmetry(cell)[0].bravais == "tP"
    assert vrkcore.lattice_symmetry(cell, length=0.001)[0].bravais == "oP"
    assert vrkcore.lattice_symmetry((5, 6, 8, 90, 91, 90))[0].bravais == "oP"
    assert vrkcore.lattice_symmetry((5, 6, 8, 90, 91, 90), angle=0.5)[0].bravais == "mP"


@pytest.mark.parametrize("numbers, centring", [((1, 2, 3, 90, 90), "P"), ((1, 2, 3, 90, 90, 200), "P"),
                                               ((5, 6, 7, 90, 90, 90), "X"), ((5, 6, 7, 90, 90, 90), "PP"),
                                               ((np.nan, 6, 7, 90, 90, 90), "P")])
def test_what_is_no_cell_is_refused(numbers, centring):
    with pytest.raises(vrkcore.Failure):
        vrkcore.niggli(numbers, centring)
    with pytest.raises(vrkcore.Failure):
        vrkcore.lattice_symmetry(numbers, centring)


def test_simulations_know_their_settings_and_their_truth():
    how = dict(tilts=[-10, 0, 10], size=64, dmin=2)
    one = vrkcore.simulate((5, 6, 7, 90, 90, 90), seed=3, voltage=300, axis=12, write_axis=True, **how)
    assert (one.voltage, one.axis, one.truth["tilt_axis_deg"] if "tilt_axis_deg" in one.truth else 12) == (300, 12, 12)
    assert (one.frames == vrkcore.simulate((5, 6, 7, 90, 90, 90), seed=3, voltage=300, axis=12, write_axis=True,
                                           **how).frames).all()
    assert (one.frames != vrkcore.simulate((5, 6, 7, 90, 90, 90), seed=4, **how).frames).any()
    with pytest.raises(TypeError, match="colour"):
        vrkcore.simulate((5, 6, 7, 90, 90, 90), colour="red", **how)
    with pytest.raises(TypeError, match="size"):
        vrkcore.simulate((5, 6, 7, 90, 90, 90), size="large")
    with pytest.raises(vrkcore.UsageError):
        vrkcore.simulate((5, 6, 7, 90, 90, 90), size=-5)
    with pytest.raises(vrkcore.UsageError):
        vrkcore.simulate()


def names_of(tree):
    """Parameters of functions and methods, by qualified name; dataclass fields count as attributes."""
    found = {}
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            found[node.name] = None
            found.update({f"{node.name}.{name}": what for name, what in names_of(node).items()})
        elif isinstance(node, ast.FunctionDef) and not node.name.startswith("_"):
            arguments = node.args
            found[node.name] = [a.arg for a in arguments.args + arguments.kwonlyargs if a.arg not in ("self", "cls")]
    return found


def test_the_stub_describes_the_module():
    stub = names_of(ast.parse(Path(vrkcore.__file__).with_suffix(".pyi").read_text()))
    assert set(vrkcore.__all__) <= set(stub)
    for name, parameters in stub.items():
        value = vrkcore
        for part in name.split("."):
            value = inspect.getattr_static(value, part) if isinstance(value, type) else getattr(value, part)
        value = getattr(value, "__func__", value)
        if parameters is None or name == "simulate" or not inspect.isfunction(value):
            continue
        real = [p for p in inspect.signature(value).parameters if p not in ("self", "cls")]
        assert parameters == real, name
    for owner in (vrkcore.Series, vrkcore.RunResult, vrkcore.MergedCrystals, vrkcore.Cell):
        public = {name for name in vars(owner) if not name.startswith("_")}
        known = {name.split(".")[1] for name in stub if name.startswith(owner.__name__ + ".")}
        assert public - known <= {"sigma", "bravais"}, owner
    # Every setting of a simulation that the stub names is one.
    for name in stub["simulate"]:
        if name in ("cell", "centring", "cif", "tilts", "progress", "log"):
            continue
        with pytest.raises((TypeError, vrkcore.UsageError)) as refusal:
            vrkcore.simulate((5, 6, 7, 90, 90, 90), **{name: object(), "size": -1})
        assert "there is no setting" not in str(refusal.value), name
