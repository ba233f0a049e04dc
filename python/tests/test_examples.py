"""The programs of examples/ and the notebook."""

import json
import os
import shutil
import subprocess
import sys
import warnings
from pathlib import Path

import numpy as np
import pytest

import vrkcore

EXAMPLES = Path(__file__).resolve().parents[2] / "examples"


def output_of(name, *arguments):
    done = subprocess.run([sys.executable, EXAMPLES / name, *arguments], capture_output=True, text=True)
    assert done.returncode == 0, done.stderr
    return done.stdout


@pytest.fixture(scope="module")
def path(series, tmp_path_factory):
    path = tmp_path_factory.mktemp("series") / "a.mrc"
    series.write(path)
    return path


def test_cells_are_found(path, tmp_path, result, series):
    rows = result.reflections
    np.savetxt(tmp_path / "list", np.c_[rows["x"], rows["y"], rows["z"], rows["intensity"]])
    for within, *arguments in ((0.01, "file_to_cell.py", path), (0.03, "own_stage.py", path),
                               (0.02, "own_reflections.py", tmp_path / "list", str(series.pixel_size))):
        bravais, *numbers = output_of(*arguments).split()[:7]
        assert bravais == "oP", arguments
        np.testing.assert_allclose([float(one) for one in numbers], [4, 5, 6, 90, 90, 90], rtol=within)


def test_volume_slice(path, tmp_path, result):
    assert output_of("volume_slice.py", path, tmp_path / "a.pgm") == "128 x 128 of 83 slices\n"
    pixels = np.frombuffer((tmp_path / "a.pgm").read_bytes()[-128 * 128 :], np.uint8).reshape(128, 128)
    np.testing.assert_array_equal(pixels, np.clip(result.volume[41] // 4, 0, 255))


def test_screen_folder(path, tmp_path):
    shutil.copy(path, tmp_path / "a.mrc")
    (tmp_path / "b.mrc").write_text("no series")
    lines = output_of("screen_folder.py", tmp_path).splitlines()
    assert lines[0].startswith("a.mrc: oP ") and lines[0].endswith("confidence high")
    assert lines[1].startswith("b.mrc: ") and len(lines) == 2


def test_notebook(tmp_path, monkeypatch, capsys):
    monkeypatch.chdir(tmp_path)
    measured = os.environ.get("VRKCORE_GARNET")
    monkeypatch.setenv("GARNET", measured or "")
    notebook = json.loads((EXAMPLES / "garnet.ipynb").read_text())
    code = [cell for cell in notebook["cells"] if cell["cell_type"] == "code"]
    lines = [line for cell in code for line in cell["source"]]
    assert len(lines) <= 24
    names = {}
    with warnings.catch_warnings():
        warnings.simplefilter("ignore", vrkcore.VRKWarning)
        for cell in code:
            exec(compile("".join(cell["source"]), cell["id"], "exec"), names)
    result = names["result"]
    assert result.bravais == "cI"
    assert result.cell.a == pytest.approx(11.95, rel=0.03)
    assert names["view"].shape == result.volume.shape[1:]
    assert (tmp_path / "garnet.hkl").stat().st_size > 1000 and (tmp_path / "garnet.ins").exists()
