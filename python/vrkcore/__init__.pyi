from collections.abc import Callable, Iterable, Iterator, Sequence
from dataclasses import dataclass
from os import PathLike
from typing import Any, Literal, Optional, Union

import numpy as np
import numpy.typing as npt

__version__: str

Path = Union[str, "PathLike[str]"]
Progress = Union[bool, Callable[[float, str], None], Any, None]
Log = Optional[Callable[[str, str], None]]
Clustering = Literal["dbscan", "ddsc", "fsc"]
Mode = Literal["continuous", "stepwise", "precession"]

class Failure(RuntimeError): ...
class UsageError(Failure, ValueError): ...
class NothingFound(Failure): ...
class Canceled(Failure): ...
class VRKWarning(UserWarning): ...

@dataclass(frozen=True)
class Cell:
    a: float
    b: float
    c: float
    alpha: float
    beta: float
    gamma: float
    sigma: Optional[tuple[float, ...]] = ...
    bravais: Optional[str] = ...
    @property
    def parameters(self) -> tuple[float, float, float, float, float, float]: ...
    @property
    def volume(self) -> float: ...
    def __iter__(self) -> Iterator[float]: ...
    def __len__(self) -> int: ...
    def __getitem__(self, index: Any) -> Any: ...
    def to_gemmi(self) -> Any: ...

class Series:
    @classmethod
    def from_mrc(cls, path: Path) -> Series: ...
    @classmethod
    def from_frames(
        cls,
        files: Union[Path, Iterable[Path]],
        *,
        tilts: Optional[Path] = ...,
        pixel_size: Optional[float] = ...,
        voltage: Optional[float] = ...,
        axis: Optional[float] = ...,
        sum: Optional[int] = ...,
        bin: Optional[int] = ...,
        scale: Optional[float] = ...,
        skip_bad: Optional[bool] = ...,
        allow_outside: Optional[bool] = ...,
        progress: Progress = ...,
        log: Log = ...,
    ) -> Series: ...
    @classmethod
    def from_array(
        cls,
        frames: npt.ArrayLike,
        tilts: npt.ArrayLike,
        pixel_size: float,
        voltage: Optional[float] = ...,
        axis: Optional[float] = ...,
    ) -> Series: ...
    @property
    def frames(self) -> npt.NDArray[np.int16]: ...
    @property
    def tilts(self) -> npt.NDArray[np.float64]: ...
    @property
    def pixel_size(self) -> Optional[float]: ...
    @property
    def voltage(self) -> Optional[float]: ...
    @property
    def axis(self) -> Optional[float]: ...
    @property
    def shape(self) -> tuple[int, int, int]: ...
    @property
    def truth(self) -> Optional[dict[str, Any]]: ...
    def write(self, path: Path) -> None: ...
    def __len__(self) -> int: ...

class RunResult:
    @property
    def cell(self) -> Cell: ...
    @property
    def reduced_cell(self) -> Cell: ...
    @property
    def bravais(self) -> str: ...
    @property
    def confidence(self) -> Literal["high", "fair", "low"]: ...
    @property
    def reasons(self) -> list[str]: ...
    @property
    def warnings(self) -> list[str]: ...
    @property
    def volume(self) -> npt.NDArray[np.int16]: ...
    @property
    def reflections(self) -> npt.NDArray[np.void]: ...
    @property
    def frames(self) -> npt.NDArray[np.void]: ...
    @property
    def intensities(self) -> npt.NDArray[np.void]: ...
    @property
    def observations(self) -> npt.NDArray[np.void]: ...
    @property
    def merged(self) -> npt.NDArray[np.void]: ...
    @property
    def summary(self) -> dict[str, Any]: ...
    @property
    def axis(self) -> float: ...
    @property
    def laue_class(self) -> Optional[str]: ...
    @property
    def space_groups(self) -> list[str]: ...
    def write(self, folder: Path, *, title: str = ..., formula: str = ...) -> list[str]: ...
    def write_shelx(self, path: Path, *, title: str = ..., formula: str = ...) -> None: ...
    def write_mtz(self, path: Path, *, title: str = ...) -> None: ...
    def write_cif(self, path: Path, *, title: str = ...) -> None: ...
    def write_unmerged_mtz(self, path: Path, *, title: str = ...) -> None: ...
    def write_xds(self, path: Path, *, title: str = ...) -> None: ...
    def write_frames(self, path: Path) -> None: ...
    def write_dynamical(self, path: Path, *, title: str = ...) -> None: ...
    def to_gemmi(self) -> Any: ...

def run(
    series: Union[Series, Path],
    *,
    axis: Union[float, Literal["search", "y"], None] = ...,
    centre: Union[tuple[float, float], Path, None] = ...,
    pixel_size: Optional[float] = ...,
    voltage: Optional[float] = ...,
    fine_calibration: Optional[Path] = ...,
    distortion: Optional[Path] = ...,
    threshold: Optional[float] = ...,
    min_voxels: Optional[int] = ...,
    max_voxels: Optional[int] = ...,
    zero_beam: Optional[float] = ...,
    resolution: Optional[float] = ...,
    min_length: Optional[float] = ...,
    max_length: Optional[float] = ...,
    eps: Optional[float] = ...,
    min_points: Optional[int] = ...,
    refine_clusters: Optional[float] = ...,
    angle_a: Optional[float] = ...,
    angle_b: Optional[float] = ...,
    det_limit: Optional[float] = ...,
    grid_size: Optional[int] = ...,
    full_space: Optional[bool] = ...,
    clustering: Optional[Clustering] = ...,
    integrate: Optional[bool] = ...,
    d_min: Optional[float] = ...,
    gain: Optional[float] = ...,
    mode: Optional[Mode] = ...,
    crystals: Optional[int] = ...,
    progress: Progress = ...,
    log: Log = ...,
) -> RunResult: ...

@dataclass(frozen=True)
class FoundCell:
    cell: Cell
    measured: Cell
    reciprocal_vectors: npt.NDArray[np.float64]
    indexed: int
    reflections: int
    confidence: Literal["high", "fair", "low"]
    reasons: list[str]

def find_cell(
    points: npt.ArrayLike,
    intensities: Optional[npt.ArrayLike] = ...,
    *,
    pixel_size: Optional[float] = ...,
    merge: Optional[float] = ...,
    crystals: Optional[int] = ...,
    min_length: Optional[float] = ...,
    max_length: Optional[float] = ...,
    eps: Optional[float] = ...,
    min_points: Optional[int] = ...,
    refine_clusters: Optional[float] = ...,
    angle_a: Optional[float] = ...,
    angle_b: Optional[float] = ...,
    det_limit: Optional[float] = ...,
    grid_size: Optional[int] = ...,
    full_space: Optional[bool] = ...,
    clustering: Optional[Clustering] = ...,
    progress: Progress = ...,
    log: Log = ...,
) -> FoundCell: ...
def niggli(cell: Sequence[float], centring: str = ...) -> Cell: ...

@dataclass(frozen=True)
class LatticeType:
    bravais: str
    character: int
    misfit: float
    length_misfit: float
    measured: Cell
    cell: Cell
    transformation: npt.NDArray[np.int32]

def lattice_symmetry(
    cell: Sequence[float], centring: str = ..., *, angle: float = ..., length: float = ...
) -> list[LatticeType]: ...
def dbscan(points: npt.ArrayLike, eps: float, min_points: int) -> npt.NDArray[np.int64]: ...
def simulate(
    cell: Optional[Sequence[float]] = ...,
    centring: str = ...,
    *,
    cif: Optional[Path] = ...,
    tilts: Optional[npt.ArrayLike] = ...,
    progress: Progress = ...,
    log: Log = ...,
    b_factor: float = ...,
    dmin: float = ...,
    orientation: Sequence[Sequence[float]] = ...,
    beam_along: Sequence[float] = ...,
    axis_along: Sequence[float] = ...,
    off_zone: float = ...,
    even: bool = ...,
    asymmetry: float = ...,
    second_crystal: float = ...,
    second_turn: float = ...,
    second_cell: Sequence[float] = ...,
    rocking: float = ...,
    handedness: int = ...,
    tilt_offset: float = ...,
    tilt_scale: float = ...,
    tilt_jitter: float = ...,
    frame_rotation: float = ...,
    mode: Mode = ...,
    precession_angle: float = ...,
    axis: float = ...,
    axis_tilt: float = ...,
    voltage: float = ...,
    centre_offset: Sequence[float] = ...,
    drift: float = ...,
    jump: float = ...,
    jumps: int = ...,
    centre_jitter: float = ...,
    missing: int = ...,
    blank: int = ...,
    write_axis: bool = ...,
    state_axis: float = ...,
    state_step: float = ...,
    state_voltage: float = ...,
    state_pixel: float = ...,
    state_rotation: float = ...,
    dose: float = ...,
    peak: float = ...,
    spot: float = ...,
    ellipse: float = ...,
    ellipse_azimuth: float = ...,
    radial: float = ...,
    background: float = ...,
    direct_beam: float = ...,
    halo_gradient: float = ...,
    halo_azimuth: float = ...,
    ice: float = ...,
    beam_stop: bool = ...,
    size: int = ...,
    noise: float = ...,
    saturation: float = ...,
    hot_pixels: int = ...,
    zingers: int = ...,
    cross: bool = ...,
    seed: int = ...,
) -> Series: ...

class MergedCrystals:
    @property
    def summary(self) -> dict[str, Any]: ...
    @property
    def cell(self) -> Cell: ...
    @property
    def crystals(self) -> list[dict[str, Any]]: ...
    @property
    def growth(self) -> list[dict[str, Any]]: ...
    @property
    def merged(self) -> npt.NDArray[np.void]: ...
    @property
    def observations(self) -> npt.NDArray[np.void]: ...
    @property
    def laue_class(self) -> str: ...
    @property
    def space_groups(self) -> list[str]: ...
    def write(self, folder: Path, *, title: str = ..., formula: str = ...) -> list[str]: ...

def merge(
    folders: Iterable[Path],
    *,
    cell_tolerance: Optional[float] = ...,
    leave_out: Optional[bool] = ...,
    keep_all: Optional[bool] = ...,
    d_min: Optional[float] = ...,
    reference: Optional[Path] = ...,
    reference_cell: Optional[Sequence[float]] = ...,
    progress: Progress = ...,
    log: Log = ...,
) -> MergedCrystals: ...

@dataclass(frozen=True)
class CellClusters:
    labels: npt.NDArray[np.int64]
    middles: npt.NDArray[np.int64]
    strains: npt.NDArray[np.float64]
    joins: npt.NDArray[np.float64]

def cluster_cells(
    cells: Iterable[Sequence[float]],
    centrings: Optional[Union[str, Sequence[str]]] = ...,
    *,
    cut: float = ...,
) -> CellClusters: ...
def write_report(folders: Sequence[Path], page: Path) -> None: ...
