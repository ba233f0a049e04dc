"""The wheel: what pip makes of it. Compiling is left out; what is packed is the module of this build."""

import shutil
import subprocess
import sys
from pathlib import Path

import vrkcore

BACKEND = Path(__file__).resolve().parents[1] / "build_backend"


def test_a_wheel_is_what_pip_installs(tmp_path, monkeypatch):
    monkeypatch.syspath_prepend(str(BACKEND))
    import cmake_backend

    def stage_of_this_build(stage, build):
        shutil.copytree(Path(vrkcore.__file__).parent, stage / "vrkcore", ignore=shutil.ignore_patterns("__pycache__"))
        (stage / "vrkcore/libSome.so.1.3").write_bytes(b"code")
        (stage / "vrkcore/libSome.so.1").symlink_to("libSome.so.1.3")

    monkeypatch.setattr(cmake_backend, "_build", stage_of_this_build)
    assert cmake_backend.get_requires_for_build_wheel() == []
    name = cmake_backend.build_wheel(tmp_path)
    target = tmp_path / "installed"
    subprocess.run([sys.executable, "-m", "pip", "install", "--quiet", "--no-index", "--no-deps", "--target", target,
                    tmp_path / name], check=True)
    code = "import vrkcore; print(vrkcore.__version__, vrkcore.__file__, round(vrkcore.niggli([2] * 3 + [90] * 3).volume, 6))"
    done = subprocess.run([sys.executable, "-c", code], env={"PYTHONPATH": str(target)}, capture_output=True, text=True,
                          cwd=tmp_path)
    assert done.stdout.split() == [vrkcore.__version__, str(target / "vrkcore/__init__.py"), "8.0"], done.stderr
    libraries = sorted(path.name for path in (target / "vrkcore").glob("libSome*"))
    assert libraries == ["libSome.so.1"]
    info = next(target.glob("*.dist-info"))
    assert f"Version: {vrkcore.__version__}\n" in (info / "METADATA").read_text()


def test_the_sources_go_into_an_archive(tmp_path, monkeypatch):
    monkeypatch.syspath_prepend(str(BACKEND))
    import tarfile

    import cmake_backend

    if not (cmake_backend.ROOT / ".git").exists() or not shutil.which("git"):
        return
    name = cmake_backend.build_sdist(tmp_path)
    with tarfile.open(tmp_path / name) as archive:
        names = archive.getnames()
    stem = f"vrkcore-{vrkcore.__version__}"
    assert {f"{stem}/PKG-INFO", f"{stem}/pyproject.toml", f"{stem}/CMakeLists.txt"} <= set(names)
