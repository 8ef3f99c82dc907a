"""The module as it is installed: its structures, where it finds the library, its types."""

import ctypes
import os
import shutil
import subprocess
import sys
from pathlib import Path

import noxel
import noxel._library as library
import pytest

ROOT = Path(__file__).resolve().parents[2]


def python(*arguments, folder=None, **environment):
    """Runs a Python that sees no module of this one but those in `folder`."""
    dropped = ("NOXEL_LIBRARY", "PYTHONPATH", "LD_LIBRARY_PATH")
    kept = {name: value for name, value in os.environ.items() if name not in dropped}
    kept.update({"PYTHONPATH": str(folder or ROOT / "python"), "PYTHONDONTWRITEBYTECODE": "1"}, **environment)
    return subprocess.run([sys.executable, *arguments], env=kept, capture_output=True, text=True, cwd="/")


def test_structures_and_numbers_are_those_of_the_header(tmp_path):
    structures = {
        "noxel_config": library.Config,
        "noxel_frame": library.Frame,
        "noxel_frame_info": library.FrameInfo,
        "noxel_setting_info": library.SettingInfo,
    }
    enumerators = {
        "NOXEL_PLANES_": {**library.PLANES, **library.PACKED},
        "NOXEL_RANGE_": library.RANGES,
        "NOXEL_MATRIX_": library.MATRICES,
        "NOXEL_MODE_": library.MODES,
        "NOXEL_QUALITY_": library.QUALITIES,
        "NOXEL_": library.DELIVERIES,
    }
    results = "OK AGAIN END DROPPED ERROR_ARGUMENT ERROR_MEMORY ERROR_NO_GL ERROR_UNSUPPORTED".split()
    kinds = "SETTING_INT SETTING_FLOAT SETTING_BOOL SETTING_CHOICE".split()
    wanted = {f"NOXEL_{name}": getattr(library, name) for name in results + kinds}
    for prefix, numbers in enumerators.items():
        wanted.update({prefix + name.upper().replace("-", "_"): number for name, number in numbers.items()})
    for name, structure in structures.items():
        wanted[f"sizeof({name})"] = ctypes.sizeof(structure)
        for field, *_ in structure._fields_:
            place = getattr(structure, field)
            wanted[f"offsetof({name}, {field})"] = place.offset
            wanted[f"sizeof((({name}*)0)->{field})"] = place.size
    lines = [f'printf("%lld\\n", (long long)({expression}));' for expression in wanted]
    source = tmp_path / "layout.c"
    source.write_text("#include <stdio.h>\n#include <noxel/enhancer.h>\nint main(void) {\n" + "\n".join(lines) + "}\n")
    compiler = os.environ.get("CC", "cc")
    subprocess.run([compiler, "-I", ROOT / "include", source, "-o", tmp_path / "layout"], check=True)
    printed = subprocess.run([tmp_path / "layout"], check=True, capture_output=True, text=True).stdout.split()
    assert dict(zip(wanted, map(int, printed))) == wanted


def test_the_library_is_found_by_the_environment_or_beside_the_module(tmp_path):
    used = os.path.realpath(os.environ["NOXEL_LIBRARY"])
    assert python("-c", "import noxel", NOXEL_LIBRARY=used).returncode == 0
    for wrong in ("/does/not/exist.so", "libm.so.6"):
        failed = python("-c", "import noxel", NOXEL_LIBRARY=wrong)
        assert failed.returncode != 0 and "ImportError" in failed.stderr and wrong in failed.stderr
    shutil.copytree(ROOT / "python/noxel", tmp_path / "noxel")
    os.symlink(used, tmp_path / "noxel/libnoxel.so.1")
    found = python("-c", "import noxel; print(noxel.__version__)", folder=tmp_path)
    assert found.stdout.strip() == noxel.__version__, found.stderr


def test_a_library_of_another_version_is_refused(tmp_path):
    text = "const char* noxel_version(void) { return \"VERSION\"; } int noxel_version_number(void) { return NUMBER; }\n"
    others = [name for name in library._CALLS if "version" not in name]
    text += "".join(f"void {name}(void) {{}}\n" for name in others)
    for version, number in (("1.1.9", 10109), ("2.0.0", 20000)):
        (tmp_path / "other.c").write_text(text.replace("VERSION", version).replace("NUMBER", str(number)))
        made = str(tmp_path / f"libnoxel.so.{number}")
        subprocess.run([os.environ.get("CC", "cc"), "-shared", "-fPIC", tmp_path / "other.c", "-o", made], check=True)
        failed = python("-c", "import noxel", NOXEL_LIBRARY=made)
        assert f"ImportError: {made} is version {version}; this module needs 1.2" in failed.stderr


def test_types_are_complete_and_know_each_setting(tmp_path):
    pytest.importorskip("mypy")
    use = ["import noxel", "enhancer = noxel.Enhancer(2, 2)"]
    for name, setting in noxel.SETTINGS.items():
        use.append(f"{name.replace('-', '_')}: {setting.type.__name__} = enhancer.{name.replace('-', '_')}")
    (tmp_path / "use.py").write_text("\n".join(use) + "\n")
    checked = python("-m", "mypy", "--strict", "--cache-dir", str(tmp_path / "cache"), str(ROOT / "python/noxel"),
                     str(tmp_path / "use.py"), MYPYPATH=str(ROOT / "python"))
    assert checked.returncode == 0, checked.stdout


def test_pip_installs_it_without_a_network(tmp_path):
    pytest.importorskip("pip")
    shutil.copytree(ROOT / "python", tmp_path / "source")  # setuptools builds in the source folder
    installed = python("-m", "pip", "install", "--no-index", "--no-build-isolation", "--no-deps", "--quiet",
                       "--target", str(tmp_path / "site"), str(tmp_path / "source"))
    assert installed.returncode == 0, installed.stderr
    assert (tmp_path / "site/noxel/py.typed").exists()
    works = python("-c", "import noxel; print(noxel.__file__)", folder=tmp_path / "site",
                   NOXEL_LIBRARY=os.environ["NOXEL_LIBRARY"])
    assert works.stdout.startswith(str(tmp_path / "site")), works.stderr
