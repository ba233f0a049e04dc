"""Builds the wheel of vrkcore with CMake: a build backend (PEP 517) of the standard library alone.

The wheel holds the module with the libraries beside it. It needs the compiler and the packages that building VRKCore
needs (scripts/setup.sh --with-python) and is meant for the machine that builds it.
"""

import base64
import hashlib
import os
import re
import shutil
import subprocess
import sys
import sysconfig
import tarfile
import tempfile
import zipfile
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]


def _version():
    header = (ROOT / "src/foundation/Version.h").read_text()
    return re.search(r'kVersion = "([0-9.]+)"', header).group(1)


def _metadata():
    return (
        "Metadata-Version: 2.1\n"
        "Name: vrkcore\n"
        f"Version: {_version()}\n"
        "Summary: Three-dimensional electron diffraction: from a tilt series to cell and intensities\n"
        "Requires-Python: >=3.9\n"
        "Requires-Dist: numpy\n"
    )


def _tag():
    interpreter = f"cp{sys.version_info.major}{sys.version_info.minor}"
    platform = re.sub(r"[-.]", "_", sysconfig.get_platform())
    return f"{interpreter}-{interpreter}-{platform}"


def _write_info(folder):
    info = Path(folder) / f"vrkcore-{_version()}.dist-info"
    info.mkdir(parents=True)
    (info / "METADATA").write_text(_metadata())
    (info / "WHEEL").write_text(
        f"Wheel-Version: 1.0\nGenerator: vrkcore\nRoot-Is-Purelib: false\nTag: {_tag()}\n"
    )
    return info


def _build(stage, build):
    """Builds the module and installs it into a folder."""
    generator = ["-G", "Ninja"] if shutil.which("ninja") else []
    options = {
        "CMAKE_BUILD_TYPE": "Release",
        "Python_EXECUTABLE": sys.executable,
        "VRKCORE_BUILD_PYTHON": "ON",
        "VRKCORE_BUILD_APP": "OFF",
        "VRKCORE_BUILD_TESTS": "OFF",
        "VRKCORE_BUILD_BENCHMARKS": "OFF",
        "VRKCORE_PYTHON_DESTINATION": ".",
        "CMAKE_INSTALL_LIBDIR": "vrkcore",
    }
    defines = [f"-D{name}={value}" for name, value in options.items()]
    more = os.environ.get("VRKCORE_CMAKE_ARGS", "").split()
    cmake = os.environ.get("CMAKE", "cmake")
    subprocess.run([cmake, "-S", str(ROOT), "-B", str(build), *generator, *defines, *more], check=True)
    subprocess.run([cmake, "--build", str(build), "--target", "_vrkcore", "--parallel"], check=True)
    for component in ("python", "runtime"):
        subprocess.run(
            [cmake, "--install", str(build), "--prefix", str(stage), "--component", component], check=True
        )


def _digest(data):
    return base64.urlsafe_b64encode(hashlib.sha256(data).digest()).rstrip(b"=").decode()


def _pack(stage, info, target):
    """Packs the folder as a wheel, with a record of its files."""
    record = []
    with zipfile.ZipFile(target, "w", zipfile.ZIP_DEFLATED) as wheel:

        def add(name, data, mode=0o644):
            entry = zipfile.ZipInfo(name, (2020, 1, 1, 0, 0, 0))
            entry.external_attr = (0o100000 | mode) << 16
            entry.compress_type = zipfile.ZIP_DEFLATED
            wheel.writestr(entry, data)

        # A library goes in once, under the name that programs look for.
        linked = {path.resolve() for path in Path(stage).rglob("*") if path.is_symlink()}
        files = (path for path in Path(stage).rglob("*") if path.is_file())
        for path in sorted(path for path in files if path.is_symlink() or path.resolve() not in linked):
            name = path.relative_to(stage).as_posix()
            data = path.read_bytes()
            add(name, data, path.stat().st_mode & 0o777)
            record.append(f"{name},sha256={_digest(data)},{len(data)}")
        name = f"{info.name}/RECORD"
        add(name, "\n".join([*record, f"{name},,"]) + "\n")


def get_requires_for_build_wheel(config_settings=None):
    return []


def get_requires_for_build_sdist(config_settings=None):
    return []


def prepare_metadata_for_build_wheel(metadata_directory, config_settings=None):
    return _write_info(metadata_directory).name


def build_wheel(wheel_directory, config_settings=None, metadata_directory=None):
    name = f"vrkcore-{_version()}-{_tag()}.whl"
    with tempfile.TemporaryDirectory() as scratch:
        stage = Path(scratch) / "stage"
        # A folder that is kept makes the next build short.
        build = Path(os.environ.get("VRKCORE_PYTHON_BUILD", Path(scratch) / "build"))
        _build(stage, build)
        _pack(stage, _write_info(stage), Path(wheel_directory) / name)
    return name


def build_sdist(sdist_directory, config_settings=None):
    stem = f"vrkcore-{_version()}"
    listed = subprocess.run(["git", "ls-files", "-z"], cwd=ROOT, check=True, capture_output=True).stdout
    with tempfile.TemporaryDirectory() as scratch:
        info = Path(scratch) / "PKG-INFO"
        info.write_text(_metadata())
        with tarfile.open(Path(sdist_directory) / f"{stem}.tar.gz", "w:gz") as archive:
            for file in listed.decode().split("\0"):
                if file:
                    archive.add(ROOT / file, f"{stem}/{file}")
            archive.add(info, f"{stem}/PKG-INFO")
    return f"{stem}.tar.gz"
