import os
import subprocess
import sys

import pytest


def test_the_installed_package_imports_from_the_prefix_alone(tmp_path):
    build = os.environ.get("NUVEK_BUILD_DIR")
    relative = os.environ.get("NUVEK_PYTHON_INSTALL_DIR")
    if not build or not relative:
        pytest.fail("NUVEK_BUILD_DIR and NUVEK_PYTHON_INSTALL_DIR are not set: run the tests through ctest.")
    prefix = tmp_path / "prefix"
    cmake = os.environ.get("NUVEK_CMAKE", "cmake")
    subprocess.run([cmake, "--install", build, "--prefix", str(prefix)], check=True, capture_output=True)
    site = prefix / relative
    assert (site / "nuvek" / "__init__.py").is_file() and (site / "nuvek" / "dask.py").is_file()

    # Only the prefix on the path: the build tree's package and libraries must not be found.
    environment = {k: v for k, v in os.environ.items() if k not in ("PYTHONPATH", "LD_LIBRARY_PATH")}
    environment["PYTHONPATH"] = str(site)
    script = (
        "import numpy, nuvek, nuvek.dask\n"
        "image = nuvek.ThresholdFilter(nuvek.MemoryImage(numpy.arange(64.0).reshape(8, 8)), 20.0)\n"
        "print(nuvek.__file__)\n"
        "print(image.open_region(0, ((2, 2, 0), (5, 5, 0))).sum())\n"
    )
    result = subprocess.run([sys.executable, "-c", script], env=environment, capture_output=True, text=True,
                            cwd=tmp_path)
    assert result.returncode == 0, result.stderr
    location, total = result.stdout.split()
    assert location.startswith(str(site))
    assert float(total) == 14.0
