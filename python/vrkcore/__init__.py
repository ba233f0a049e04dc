"""Three-dimensional electron diffraction: from a tilt series to cell and intensities.

    >>> import vrkcore
    >>> series = vrkcore.Series.from_mrc("series.mrc")
    >>> result = vrkcore.run(series)
    >>> result.cell
    Cell(a=11.93, b=11.93, c=11.93, alpha=90.0, beta=90.0, gamma=90.0)

Lengths of cells are in Angstrom, angles in degrees, pixel sizes in 1/m per pixel, voltages in kV. Arrays have the axes
(z, y, x): frames are (frame, row, column). Long calls release the interpreter's lock, take ``progress`` and ``log``, and
stop on Ctrl-C. What a user should know is a ``VRKWarning``, what went wrong a ``Failure`` with the sentence that the
program ``vrk`` would print.
"""

from __future__ import annotations

import json as _json
import os as _os
import tempfile as _tempfile
from dataclasses import dataclass as _dataclass, field as _field
from functools import cached_property as _cached_property

import numpy as _np

from . import _vrkcore
from ._vrkcore import Canceled, Failure, NothingFound, UsageError, VRKWarning, __version__

__all__ = [
    "Canceled",
    "Cell",
    "CellClusters",
    "Failure",
    "FoundCell",
    "LatticeType",
    "MergedCrystals",
    "NothingFound",
    "RunResult",
    "Series",
    "UsageError",
    "VRKWarning",
    "cluster_cells",
    "dbscan",
    "find_cell",
    "lattice_symmetry",
    "merge",
    "niggli",
    "run",
    "simulate",
    "write_report",
]


@_dataclass(frozen=True)
class Cell:
    """A direct cell; as a sequence its six numbers.

    Edges in Angstrom, angles in degrees, ``sigma`` the standard uncertainties of the six numbers (0 where symmetry
    fixes one) or None, ``bravais`` the lattice type as "cI" or None.
    """

    a: float
    b: float
    c: float
    alpha: float
    beta: float
    gamma: float
    sigma: tuple | None = _field(default=None, repr=False)
    bravais: str | None = None

    @property
    def parameters(self):
        """The six numbers."""
        return (self.a, self.b, self.c, self.alpha, self.beta, self.gamma)

    def __iter__(self):
        return iter(self.parameters)

    def __len__(self):
        return 6

    def __getitem__(self, index):
        return self.parameters[index]

    @property
    def volume(self):
        """Volume in cubic Angstrom."""
        cosines = _np.cos(_np.radians(self.parameters[3:]))
        root = 1.0 - (cosines**2).sum() + 2.0 * cosines.prod()
        return float(self.a * self.b * self.c * _np.sqrt(max(root, 0.0)))

    def to_gemmi(self):
        """The cell as gemmi.UnitCell."""
        import gemmi

        return gemmi.UnitCell(*self.parameters)


class _Bar:
    """A bar of tqdm that follows the share of all parts."""

    def __init__(self, bar):
        self._bar = bar
        bar.total = 1.0

    def __call__(self, share, name):
        self._bar.set_description(name, refresh=False)
        self._bar.update(share - self._bar.n)


def _progress_of(progress):
    """What the extension calls with part, parts, name and share."""
    if progress is None or progress is False:
        return None
    if progress is True:
        from tqdm.auto import tqdm

        progress = _Bar(tqdm(total=1.0, bar_format="{l_bar}{bar}| {elapsed}"))
    elif hasattr(progress, "update") and hasattr(progress, "set_description"):
        progress = _Bar(progress)
    farthest = 0.0

    def tell(part, parts, name, share):
        nonlocal farthest
        whole = (max(part, 1) - 1 + share) / max(parts, 1)
        farthest = max(farthest, min(whole, 1.0))
        progress(farthest, name)

    return tell


def _path(path):
    return _os.fspath(path)


class Series:
    """A tilt series: patterns with their tilts, pixel size and voltage.

    Made by :meth:`from_mrc`, :meth:`from_frames`, :meth:`from_array` or :func:`simulate`. The pixels never change.
    """

    def __init__(self, series, truth=None):
        if not isinstance(series, _vrkcore.TiltSeries):
            raise TypeError("a Series is made by from_mrc, from_frames, from_array or simulate")
        self._series = series
        self._truth = truth

    @classmethod
    def from_mrc(cls, path):
        """The series of an MRC file."""
        return cls(_vrkcore.TiltSeries.from_mrc(_path(path)))

    @classmethod
    def from_frames(
        cls,
        files,
        *,
        tilts=None,
        pixel_size=None,
        voltage=None,
        axis=None,
        sum=None,
        bin=None,
        scale=None,
        skip_bad=None,
        allow_outside=None,
        progress=None,
        log=None,
    ):
        """The series of frames in files of any format, of folders, or of lists that name frames.

        :param files: a path or several
        :param tilts: a list file, or "START:STEP" in degrees; otherwise what the files say
        :param pixel_size: of the frames as they are in the files, 1/m per pixel
        :param voltage: kV
        :param axis: direction of the tilt axis, degrees, along (-sin t, cos t), x to the right, y down
        :param sum: neighbouring frames to add up; otherwise as few as fit into 300 slices
        :param bin: pixels along each edge to add up
        :param scale: factor on the counts, which become 16-bit integers; otherwise chosen
        :param skip_bad: leave out frames that cannot be read
        :param allow_outside: lists and HDF5 files may name frames outside their folders
        """
        if isinstance(files, (str, bytes, _os.PathLike)):
            files = [files]
        settings = dict(
            tilts=None if tilts is None else _path(tilts),
            pixel_size=pixel_size,
            voltage=voltage,
            axis=axis,
            sum=sum,
            bin=bin,
            scale=scale,
            skip_bad=skip_bad,
            allow_outside=allow_outside,
        )
        paths = [_path(file) for file in files]
        return cls(_vrkcore.TiltSeries.from_frames(paths, settings, _progress_of(progress), log))

    @classmethod
    def from_array(cls, frames, tilts, pixel_size, voltage=None, axis=None):
        """The series of an array.

        Counts are kept as 16-bit integers: whole numbers that fit as they are, others multiplied by a factor that is
        told in a warning, as are pixels that are no numbers, which become 0.

        :param frames: shape (frames, rows, columns), real numbers of any type and strides; neighbours of more than 300 are added up
        :param tilts: shape (frames,), degrees, in any order
        :param pixel_size: 1/m per pixel
        :param voltage: kV
        :param axis: direction of the tilt axis in degrees; 0 counts as not known, see ``run(axis=...)``
        """
        return cls(_vrkcore.TiltSeries.from_array(_np.asarray(frames), tilts, pixel_size, voltage, axis))

    @property
    def frames(self):
        """The counts, shape (frames, rows, columns), int16, to be read; a view where the storage allows it."""
        return self._series.frames

    @property
    def tilts(self):
        """Degrees, shape (frames,)."""
        return self._series.tilts

    @property
    def pixel_size(self):
        """1/m per pixel; None where it is not known."""
        return self._series.pixel_size

    @property
    def voltage(self):
        """kV; None where it is not known."""
        return self._series.voltage

    @property
    def axis(self):
        """Direction of the tilt axis as it is stated, degrees; None where it is not known."""
        return self._series.axis

    @property
    def shape(self):
        """(frames, rows, columns)"""
        return self._series.shape

    @property
    def truth(self):
        """What a simulated series was made from, as ``vrk simulate`` writes it; None of any other."""
        return self._truth

    def write(self, path):
        """Writes the series as MRC file."""
        self._series.write(_path(path))

    def __len__(self):
        return self.shape[0]

    def __repr__(self):
        frames, rows, columns = self.shape
        tilts = self.tilts
        return f"<Series: {frames} frames of {columns} x {rows}, {tilts[0]:g} to {tilts[-1]:g} degrees>"


class RunResult:
    """What a run found. Made by :func:`run`.

    The tables are structured arrays: ``pandas.DataFrame(result.reflections)`` is a table with these columns.
    """

    def __init__(self, result, name):
        self._result = result
        self._name = name

    @_cached_property
    def cell(self):
        """The conventional :class:`Cell` under the ties of its lattice type."""
        return _cell_of(self._result.cell)

    @_cached_property
    def reduced_cell(self):
        """The Niggli-reduced :class:`Cell`, refined freely."""
        return _cell_of(self._result.reduced_cell)

    @property
    def bravais(self):
        """The lattice type, as "cI"."""
        return self.cell.bravais

    @property
    def confidence(self):
        """How far the cell can be trusted: "high", "fair" or "low"."""
        return self._result.confidence

    @property
    def reasons(self):
        """Why the confidence is not higher."""
        return self._result.reasons

    @property
    def warnings(self):
        """What a user should know, one sentence each."""
        return self._result.warnings

    @_cached_property
    def volume(self):
        """The reciprocal volume, shape (z, y, x), int16, to be read; a view where the storage allows it.

        The tilt axis is along y; 000 is at (shape - 1) / 2. A voxel is as large as a pixel.
        """
        return self._result.volume

    @_cached_property
    def reflections(self):
        """Reflections as the search found them: h, k, l (conventional cell; 0 where ``indexed`` is false), indexed,
        cut, x, y, z (from 000, voxels), tilt (degrees), intensity (counts), d (Angstrom)."""
        return self._result.reflections

    @_cached_property
    def frames(self):
        """Frames by ascending tilt: tilt (degrees), x, y (centre, pixels), centre_sigma, jumped, doubtful, scale."""
        return self._result.frames

    @_cached_property
    def intensities(self):
        """Intensities measured on the frames, not scaled: h, k, l, intensity, sigma, d (Angstrom), x, y (pixels),
        frame, tilt (degrees), coverage, good. Empty where none were measured, as the next two."""
        return self._result.intensities

    @_cached_property
    def observations(self):
        """Scaled intensities: h, k, l, intensity, sigma, d (Angstrom), frame, scale, outlier."""
        return self._result.observations

    @_cached_property
    def merged(self):
        """Unique intensities in the Laue group: h, k, l, intensity, sigma, d (Angstrom), observations."""
        return self._result.merged

    @_cached_property
    def summary(self):
        """Every number of the run, as in summary.json of the program."""
        return _json.loads(self._result.summary(self._name))

    @property
    def axis(self):
        """Direction of the tilt axis that was used, degrees."""
        return self.summary["tilt_axis"]["angle_deg"]

    @property
    def laue_class(self):
        """The Laue class, as "m-3m"; None without intensities."""
        intensities = self.summary["intensities"]
        return intensities["laue"]["class"] if intensities else None

    @property
    def space_groups(self):
        """Space groups that the absences leave, the likeliest first; empty without intensities."""
        intensities = self.summary["intensities"]
        return [one["symbol"] for one in intensities["space_groups"]["candidates"]] if intensities else []

    def write(self, folder, *, title="", formula=""):
        """Writes the files of ``vrk run`` but pictures and log into the folder. Returns their paths."""
        return [_os.fspath(path) for path in self._result.write(_path(folder), self._name, title, formula)]

    def write_shelx(self, path, *, title="", formula=""):
        """HKLF 4, scaled, not merged; with the instructions beside it, with the ending .ins."""
        path = _path(path)
        self._result.write_reflections("shelx", path, title, formula)
        self._result.write_reflections("ins", _os.path.splitext(path)[0] + ".ins", title, formula)

    def write_mtz(self, path, *, title=""):
        """Merged intensities as MTZ."""
        self._result.write_reflections("mtz", _path(path), title, "")

    def write_cif(self, path, *, title=""):
        """Merged intensities as CIF."""
        self._result.write_reflections("cif", _path(path), title, "")

    def write_unmerged_mtz(self, path, *, title=""):
        """Every reflection with its place as MTZ, not scaled."""
        self._result.write_reflections("unmerged_mtz", _path(path), title, "")

    def write_xds(self, path, *, title=""):
        """Every reflection with its place as XDS_ASCII, not scaled."""
        self._result.write_reflections("xds", _path(path), title, "")

    def write_frames(self, path):
        """Every reflection on every frame, comma-separated."""
        self._result.write_reflections("frames", _path(path), "", "")

    def write_dynamical(self, path, *, title=""):
        """Sums over virtual frames for dynamical refinement (cif_pets)."""
        self._result.write_reflections("dynamical", _path(path), title, "")

    def to_gemmi(self):
        """The merged intensities as gemmi.Mtz, with cell and space group."""
        import gemmi

        with _tempfile.TemporaryDirectory() as folder:
            path = _os.path.join(folder, "merged.mtz")
            self.write_mtz(path)
            return gemmi.read_mtz_file(path)

    def __repr__(self):
        numbers = " ".join(f"{number:.6g}" for number in self.cell)
        return f"<RunResult: {self.bravais} {numbers}, confidence {self.confidence}>"


def _cell_of(row):
    parameters, sigma, _, _, bravais = row
    return Cell(*parameters, sigma=sigma, bravais=bravais)


def run(
    series,
    *,
    axis=None,
    centre=None,
    pixel_size=None,
    voltage=None,
    fine_calibration=None,
    distortion=None,
    threshold=None,
    min_voxels=None,
    max_voxels=None,
    zero_beam=None,
    resolution=None,
    min_length=None,
    max_length=None,
    eps=None,
    min_points=None,
    refine_clusters=None,
    angle_a=None,
    angle_b=None,
    det_limit=None,
    grid_size=None,
    full_space=None,
    clustering=None,
    integrate=None,
    d_min=None,
    gain=None,
    mode=None,
    crystals=None,
    progress=None,
    log=None,
):
    """The whole way from a series to cell, reflections and intensities, as ``vrk run`` goes it.

    Whatever is left out is found, or taken from the series.

    :param series: a :class:`Series`, or the path of an MRC file
    :param axis: direction of the tilt axis in degrees, "search", or "y"
    :param centre: direct beam in pixels (x, y) from the middle of the first pixel, a file, or "middle"
    :param pixel_size: 1/m per pixel, instead of the series' own
    :param voltage: kV, instead of the series' own
    :param fine_calibration: file with calibrated pixel sizes
    :param distortion: file with the geometry of the instrument, of ``vrk calibrate``
    :param threshold: of the reflection search, counts
    :param min_voxels, max_voxels: of a reflection
    :param zero_beam, resolution: radii in voxels between which reflections are looked for
    :param min_length, max_length: of difference vectors, voxels
    :param eps, min_points: radius (voxels) and density of the clustering
    :param refine_clusters: percent
    :param angle_a, angle_b: least angles between base vectors, radians
    :param clustering: "dbscan", "ddsc" or "fsc"
    :param integrate: measure intensities on the frames; True unless said otherwise
    :param d_min: finest spacing of the intensities, Angstrom
    :param gain: counts that one electron makes
    :param mode: "continuous", "stepwise" or "precession"
    :param crystals: that are looked for at most
    :param progress: called with the share that is done, 0 to 1, and a name; True for a bar of tqdm; or such a bar
    :param log: called with every line of the log and its level: "debug", "info", "warning" or "error"
    :raises NothingFound: when there are no reflections, or no lattice among them
    :raises Failure: when the series cannot be processed
    """
    settings = {name: value for name, value in locals().items() if name not in ("series", "progress", "log")}
    name = ""
    if not isinstance(series, Series):
        name = _path(series)
        series = Series.from_mrc(series)
    for path in ("fine_calibration", "distortion"):
        if settings[path] is not None:
            settings[path] = _path(settings[path])
    return RunResult(_vrkcore.run(series._series, settings, _progress_of(progress), log), name)


@_dataclass(frozen=True)
class FoundCell:
    """The lattice of a list of reflections."""

    cell: Cell
    """Conventional, its metric averaged over the symmetry; in 1/voxel without a pixel size."""
    measured: Cell
    """The same as it came out."""
    reciprocal_vectors: _np.ndarray = _field(repr=False)
    """Rows a*, b*, c* of the reduced cell, voxels, shape (3, 3)."""
    indexed: int
    """Reflections on nodes."""
    reflections: int
    """How many there are, after merging."""
    confidence: str
    """"high", "fair" or "low"."""
    reasons: list
    """Why it is not higher."""


def find_cell(
    points,
    intensities=None,
    *,
    pixel_size=None,
    merge=None,
    crystals=None,
    min_length=None,
    max_length=None,
    eps=None,
    min_points=None,
    refine_clusters=None,
    angle_a=None,
    angle_b=None,
    det_limit=None,
    grid_size=None,
    full_space=None,
    clustering=None,
    progress=None,
    log=None,
):
    """The cell of a list of reflections, as ``vrk cell`` finds it.

    :param points: shape (reflections, 3): x, y, z from 000, voxels
    :param intensities: shape (reflections,)
    :param pixel_size: 1/m per voxel; without, the cell has no scale
    :param merge: reflections this many voxels apart are one; otherwise found
    :raises NothingFound: when no lattice beats chance

    The others are those of :func:`run`.
    """
    settings = {
        name: value
        for name, value in locals().items()
        if name not in ("points", "intensities", "progress", "log")
    }
    found = _vrkcore.find_cell(points, intensities, settings, _progress_of(progress), log)
    return FoundCell(
        cell=Cell(*found["symmetrised"], bravais=found["bravais"]),
        measured=Cell(*found["conventional"], bravais=found["bravais"]),
        reciprocal_vectors=found["reciprocal_vectors"],
        indexed=found["indexed"],
        reflections=found["reflections"],
        confidence=found["confidence"],
        reasons=found["reasons"],
    )


def niggli(cell, centring="P"):
    """The Niggli-reduced :class:`Cell` of a direct cell.

    :param cell: a, b, c in Angstrom, alpha, beta, gamma in degrees
    :param centring: P, A, B, C, I, F or R (hexagonal axes where gamma is 120)
    """
    return Cell(*_vrkcore.niggli([float(number) for number in cell], centring), bravais="aP")


@_dataclass(frozen=True)
class LatticeType:
    """A lattice symmetry that fits a cell."""

    bravais: str
    """As "cI"."""
    character: int
    """1 to 44."""
    misfit: float
    """Largest misfit of an angle, degrees."""
    length_misfit: float
    """Largest relative misfit of an edge."""
    measured: Cell = _field(repr=False)
    """The conventional cell as it came out."""
    cell: Cell
    """Its metric averaged over the symmetry."""
    transformation: _np.ndarray = _field(repr=False)
    """Conventional base = primitive base times this matrix, vectors as columns; shape (3, 3)."""


def lattice_symmetry(cell, centring="P", *, angle=2.0, length=0.03):
    """The lattice types that a direct cell nearly has, a list of :class:`LatticeType`, the highest first.

    :param cell: a, b, c in Angstrom, alpha, beta, gamma in degrees
    :param centring: as in :func:`niggli`
    :param angle: largest misfit of an angle, degrees
    :param length: largest relative misfit of an edge
    """
    rows = _vrkcore.lattice_symmetry([float(number) for number in cell], centring, angle, length)
    return [
        LatticeType(bravais, character, misfit, length_misfit, Cell(*measured, bravais=bravais),
                    Cell(*symmetrised, bravais=bravais), transformation)
        for bravais, character, misfit, length_misfit, measured, symmetrised, transformation in rows
    ]


def dbscan(points, eps, min_points):
    """Clusters points by density. Returns labels, shape (points,): -1 for noise, 0 and up for clusters.

    :param points: shape (points, 3) or (points, 2), finite numbers
    :param eps: points closer than this are neighbours
    :param min_points: neighbours, itself included, that make a point the core of a cluster
    """
    return _vrkcore.dbscan(points, eps, min_points)


def simulate(cell=None, centring="P", *, cif=None, tilts=None, progress=None, log=None, **settings):
    """A simulated :class:`Series` with its ``truth``, as ``vrk simulate`` makes it.

    The same settings always give the same series.

    :param cell: a, b, c in Angstrom, alpha, beta, gamma in degrees
    :param centring: P, A, B, C, I, F or R
    :param cif: path of a structure, instead of cell and centring
    :param tilts: degrees; otherwise -60 to 60 in steps of 1
    :param settings: as the options of ``vrk simulate`` with underscores: dmin, axis, size, voltage, seed, noise,
        write_axis, second_crystal, ellipse, ... The stub lists them.
    """
    if (cell is None) == (cif is None):
        raise UsageError("give either a cell or a cif")
    if tilts is None:
        tilts = _np.arange(-60.0, 61.0)
    settings.update(
        cell=None if cell is None else [float(number) for number in cell],
        centring=centring,
        cif=None if cif is None else _path(cif),
        tilts=[float(tilt) for tilt in _np.asarray(tilts, dtype=float).ravel()],
    )
    series, truth = _vrkcore.simulate(settings, _progress_of(progress), log)
    return Series(series, _json.loads(truth))


class MergedCrystals:
    """The intensities of several crystals in one data set. Made by :func:`merge`."""

    def __init__(self, merge):
        self._merge = merge

    @_cached_property
    def summary(self):
        """Every number of the merge, as in merge.json of the program."""
        return _json.loads(self._merge.summary())

    @property
    def cell(self):
        """The mean conventional :class:`Cell`, with uncertainties by the scatter of the crystals."""
        cell = self.summary["cell"]
        names = ("a", "b", "c", "alpha", "beta", "gamma")
        return Cell(*(cell[name] for name in names), sigma=tuple(cell["esd"][name] for name in names),
                    bravais=cell["bravais"])

    @property
    def crystals(self):
        """What became of each crystal, a list of dictionaries in the order of the folders: name, used, reason, base
        (common base = its conventional base times this), scale, b, correlation, delta_cc_half, ..."""
        return self.summary["crystals"]

    @property
    def growth(self):
        """The data set crystal by crystal, the most useful first: dictionaries of crystal (a number in ``crystals``),
        completeness, redundancy and cc_half."""
        return self.summary["growth"]

    @_cached_property
    def merged(self):
        """Unique intensities in the Laue group: h, k, l, intensity, sigma, d (Angstrom), observations."""
        return self._merge.merged

    @_cached_property
    def observations(self):
        """Scaled intensities of the crystals used: h, k, l, intensity, sigma, d (Angstrom), crystal (a number in
        ``crystals``), scale, outlier."""
        return self._merge.observations

    @property
    def laue_class(self):
        """The Laue class, as "4/m"."""
        return self.summary["intensities"]["laue"]["class"]

    @property
    def space_groups(self):
        """Space groups that the absences leave, the likeliest first."""
        return [one["symbol"] for one in self.summary["intensities"]["space_groups"]["candidates"]]

    def write(self, folder, *, title="", formula=""):
        """Writes the files of ``vrk merge`` but pictures and log into the folder. Returns their paths."""
        return [_os.fspath(path) for path in self._merge.write(_path(folder), title, formula)]

    def __repr__(self):
        used = sum(crystal["used"] for crystal in self.crystals)
        numbers = " ".join(f"{number:.6g}" for number in self.cell)
        return f"<MergedCrystals: {used} of {len(self.crystals)} crystals, {self.cell.bravais} {numbers}>"


def merge(
    folders,
    *,
    cell_tolerance=None,
    leave_out=None,
    keep_all=None,
    d_min=None,
    reference=None,
    reference_cell=None,
    progress=None,
    log=None,
):
    """The crystals of several results in one data set, as ``vrk merge`` makes it: :class:`MergedCrystals`.

    :param folders: of :meth:`RunResult.write` or ``vrk run``, with intensities measured on the frames
    :param cell_tolerance: strain up to which cells are one; otherwise 0.03
    :param leave_out: leave crystals with another cell than most have out rather than refuse them
    :param keep_all: keep crystals that make the data worse
    :param d_min: finest spacing, Angstrom; otherwise the finest of a crystal
    :param reference: folder of ``vrk run`` or ``vrk merge``, or HKL file, whose indices are taken over
    :param reference_cell: six numbers, of an HKL file without instructions beside it
    """
    settings = dict(
        cell_tolerance=cell_tolerance,
        leave_out=leave_out,
        keep_all=keep_all,
        d_min=d_min,
        reference=None if reference is None else _path(reference),
        reference_cell=None if reference_cell is None else [float(number) for number in reference_cell],
    )
    return MergedCrystals(
        _vrkcore.merge([_path(folder) for folder in folders], settings, _progress_of(progress), log))


@_dataclass(frozen=True)
class CellClusters:
    """Which crystals have the same cell."""

    labels: _np.ndarray
    """Cluster of each cell, 0 for the largest; -1 for numbers that are no cell. Shape (cells,)."""
    middles: _np.ndarray
    """Of each cluster the cell nearest to all others, a number in the list."""
    strains: _np.ndarray = _field(repr=False)
    """Strain of each cell against the middle of its cluster. Shape (cells,)."""
    joins: _np.ndarray = _field(repr=False)
    """Steps of the dendrogram: first, second, distance, cells; shape (cells - 1, 4), as
    scipy.cluster.hierarchy takes it when all cells are usable."""


def cluster_cells(cells, centrings=None, *, cut=0.03):
    """Clusters cells by the strain that takes one lattice to the other, whatever their setting: :class:`CellClusters`.

    :param cells: a :class:`Cell` or six numbers each
    :param centrings: a letter for all, or one each; otherwise those of the cells' lattice types, and P
    :param cut: strain up to which cells are of one cluster
    """
    cells = list(cells)
    if centrings is None:
        centrings = [(getattr(cell, "bravais", None) or "aP")[1] for cell in cells]
    elif isinstance(centrings, str) and len(centrings) == 1:
        centrings = centrings * len(cells)
    rows = _np.array([[float(number) for number in cell] for cell in cells], dtype=float).reshape(-1, 6)
    return CellClusters(**_vrkcore.cluster_cells(rows, "".join(centrings), float(cut)))


def write_report(folders, page):
    """The page of a result again, or one that compares several, as ``vrk report`` makes it.

    :param folders: of :meth:`RunResult.write` or ``vrk run``
    :param page: the file to write
    """
    _vrkcore.write_report([_path(folder) for folder in folders], _path(page))
