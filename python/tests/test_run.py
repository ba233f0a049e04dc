"""Runs: the numbers of the program, tables, files, progress, and how they end early."""

import gc
import json
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import vrkcore


def test_numbers_are_those_of_the_program(series, tmp_path, program):
    path = tmp_path / "series.mrc"
    series.write(path)
    done = subprocess.run([program, "run", path, "-o", tmp_path / "by_program", "--no-pictures", "--json"],
                          check=True, capture_output=True)
    by_program = json.loads(done.stdout)
    result = vrkcore.run(path)
    by_module = result.summary
    for differs in ("seconds", "memory_mib", "peak_memory_mib", "files", "input", "inputs", "program"):
        by_program.pop(differs), by_module.pop(differs)
    assert by_module == by_program

    written = result.write(tmp_path / "by_module", title="series")
    names = {os.path.basename(name) for name in written}
    assert {"reflections.hkl", "peaks.txt", "summary.json", "merged.mtz"} <= names | {"summary.json"}
    # These two tell how long it took.
    for name in sorted(names - {"summary.json", "report.html"}):
        ours, theirs = (tmp_path / folder / name for folder in ("by_module", "by_program"))
        assert ours.read_bytes() == theirs.read_bytes(), name
    vrkcore.write_report([tmp_path / "by_module"], tmp_path / "page.html")
    again = (tmp_path / "page.html").read_text()
    assert len(again) > 0.9 * len((tmp_path / "by_module" / "report.html").read_text()) and result.bravais in again
    for write, name in ((result.write_mtz, "merged.mtz"), (result.write_cif, "merged.cif"),
                        (result.write_unmerged_mtz, "unmerged.mtz"), (result.write_xds, "XDS_ASCII.HKL"),
                        (result.write_dynamical, "dynamical.cif_pets")):
        write(tmp_path / "one", title="series")
        assert (tmp_path / "one").read_bytes() == (tmp_path / "by_program" / name).read_bytes(), name
    result.write_shelx(tmp_path / "crystal.hkl", title="series")
    assert (tmp_path / "crystal.ins").read_bytes() == (tmp_path / "by_program" / "crystal.ins").read_bytes()
    result.write_frames(tmp_path / "one")
    assert (tmp_path / "one").read_bytes() == (tmp_path / "by_program" / "frames.csv").read_bytes()


def test_tables_tell_what_the_summary_counts(series, result):
    summary = result.summary
    reflections = result.reflections
    assert len(reflections) == summary["reflections"]["found"]
    assert reflections["indexed"].sum() == summary["reflections"]["indexed"]
    assert len(result.observations) == summary["intensities"]["reflections"]["observations"]
    assert len(result.merged) == summary["intensities"]["reflections"]["unique"]
    assert len(result.intensities) == summary["intensities"]["reflections"]["predicted"]
    np.testing.assert_array_equal(result.frames["tilt"], series.tilts)
    assert result.cell.parameters == tuple(summary["cell"]["conventional"][k] for k in
                                           ("a", "b", "c", "alpha", "beta", "gamma"))
    assert result.cell.volume == pytest.approx(summary["cell"]["conventional"]["volume"], rel=1e-9)
    assert result.reduced_cell.sigma[0] == summary["cell"]["esd"]["reduced"]["a"]
    assert (result.bravais, result.axis, result.confidence) == ("oP", 20, summary["confidence"]["level"])

    good = reflections[reflections["indexed"]]
    spacing = 1 / np.sqrt(sum((good[i] / edge) ** 2 for i, edge in zip("hkl", result.cell)))
    assert np.median(abs(good["d"] / spacing - 1)) < 0.005
    length = np.sqrt(sum(good[i] ** 2 for i in "xyz")) * series.pixel_size
    np.testing.assert_allclose(good["d"], 1e10 / length, rtol=1e-6)

    mtz = result.to_gemmi()
    assert mtz.nreflections == len(result.merged)
    assert mtz.cell.a == pytest.approx(summary["intensities"]["cell"]["a"], abs=1e-4)
    assert result.cell.to_gemmi().b == result.cell.b


def test_tables_are_columns_of_a_data_frame(result):
    pandas = pytest.importorskip("pandas")
    table = pandas.DataFrame(result.reflections)
    assert list(table.columns) == list(result.reflections.dtype.names)
    assert table["indexed"].dtype == bool


def test_volume_has_the_order_of_the_axes(result):
    volume = result.volume
    depth, height, width = volume.shape
    assert (width, height, depth) == tuple(result.summary["volume"]["dims"])
    assert volume.dtype == np.int16 and not volume.flags.writeable
    # Strong reflections are bright where the table says they are, up to what the sphere's curvature moved them.
    origin = (np.array(volume.shape) - 1) / 2
    table = result.reflections
    strong = np.sort(table[table["indexed"] & ~table["cut"]], order="intensity")[-20:]
    bright = 0
    for one in strong:
        z, y, x = np.rint(origin + [one["z"], one["y"], one["x"]]).astype(int)
        bright += volume[z - 2 : z + 3, y - 2 : y + 3, x - 2 : x + 3].max() > 100
    assert bright >= 15
    before = volume.copy()
    del result
    gc.collect()
    np.testing.assert_array_equal(volume, before)


def test_arrays_give_the_series_that_they_are(series, result):
    frames = series.frames
    assert frames.shape == series.shape == (21, 128, 128) and len(series) == 21
    same = vrkcore.Series.from_array(frames, series.tilts, series.pixel_size, series.voltage, series.axis)
    np.testing.assert_array_equal(same.frames, frames)
    again = vrkcore.run(same, integrate=False)
    np.testing.assert_array_equal(again.reflections, result.reflections)
    assert len(again.merged) == 0 and again.laue_class is None and again.space_groups == []
    with pytest.raises(vrkcore.UsageError, match="no intensities"):
        again.write_xds("/tmp/none")


def test_settings_reach_the_run(series):
    summary = vrkcore.run(series, integrate=False, axis=20.5, pixel_size=2e8, voltage=300, threshold=30,
                          zero_beam=15.0, eps=0.8, clustering="dbscan").summary
    axis = summary["tilt_axis"]
    assert axis.get("stated_deg", axis["angle_deg"]) == 20.5
    assert summary["input"]["pixel_size"] == 2e8
    parameters = summary["parameters"]
    assert (parameters["threshold"], parameters["zero_beam"]) == (30, 15)
    assert (parameters["eps"], parameters["voltage_kv"]) == (0.8, 300)
    for wrong in (dict(axis="up"), dict(mode="wild"), dict(clustering="none"), dict(crystals=0),
                  dict(distortion="/none"), dict(eps=-1)):
        with pytest.raises(vrkcore.Failure):
            vrkcore.run(series, **wrong)
    with pytest.raises(TypeError):
        vrkcore.run(series, threshold="high")


def test_progress_rises_to_the_end_and_every_line_is_logged(series):
    shares, lines = [], []
    vrkcore.run(series, integrate=False, progress=lambda share, name: shares.append(share),
                log=lambda text, level: lines.append(level))
    assert shares == sorted(shares) and shares[0] < 0.2 and shares[-1] == 1
    assert {"info", "debug"} & set(lines)
    tqdm = pytest.importorskip("tqdm")
    with open(os.devnull, "w") as nowhere:
        with tqdm.tqdm(file=nowhere) as bar:
            vrkcore.run(series, integrate=False, progress=bar)
            assert bar.n == pytest.approx(1)


def test_what_a_callback_raises_ends_the_run(series):
    def raising(share, name):
        if share > 0.3:
            raise KeyError(name)

    with pytest.raises(KeyError):
        vrkcore.run(series, progress=raising)


def test_failures_say_what_is_wrong(series, tmp_path, capfd):
    with pytest.raises(vrkcore.Failure, match="none.mrc"):
        vrkcore.run(tmp_path / "none.mrc")
    with pytest.raises(vrkcore.Failure, match="frames"):
        vrkcore.Series.from_frames([tmp_path])
    noise = np.random.default_rng(1).poisson(9, (11, 64, 64))
    with pytest.raises(vrkcore.NothingFound, match="assumed"), pytest.warns(vrkcore.VRKWarning):
        vrkcore.run(vrkcore.Series.from_array(noise, np.arange(-50, 51, 10), 1e8))
    with pytest.raises(TypeError):
        vrkcore.Series(series.frames)
    assert capfd.readouterr() == ("", "")


def test_frames_come_from_files(series, tmp_path):
    series.write(tmp_path / "stack.mrc")
    some = vrkcore.Series.from_frames(tmp_path / "stack.mrc", bin=2, scale=0.1, pixel_size=1e8,
                                      voltage=120, axis=-30)
    assert some.shape == (21, 64, 64)
    assert (some.pixel_size, some.voltage, some.axis) == (2e8, 120, -30)
    expected = series.frames.astype(int).reshape(21, 64, 2, 64, 2).sum((2, 4))
    np.testing.assert_array_equal(some.frames, np.floor(expected * 0.1 + 0.5))


def test_runs_go_on_side_by_side(series, result):
    found, ticks = [], []
    threads = [threading.Thread(target=lambda: found.append(vrkcore.run(series))) for _ in range(2)]
    for thread in threads:
        thread.start()
    while any(thread.is_alive() for thread in threads):
        ticks.append(time.monotonic())
        time.sleep(0.01)
    assert len(ticks) > 5, "the interpreter is free meanwhile"
    for one in found:
        np.testing.assert_array_equal(one.reflections, result.reflections)
        np.testing.assert_array_equal(one.merged, result.merged)


def test_ctrl_c_stops_a_run():
    code = """
import os, signal, threading, vrkcore
series = vrkcore.simulate([20, 21, 22, 90, 90, 90], dmin=1, size=256)
threading.Timer(0.3, os.kill, (os.getpid(), signal.SIGINT)).start()
try:
    vrkcore.run(series)
except KeyboardInterrupt:
    print("stopped")
"""
    done = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=60)
    assert done.stdout == "stopped\n", done.stderr
    assert done.returncode != -signal.SIGINT
