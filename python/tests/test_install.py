"""`cmake --install` puts the package where the interpreter it was built for finds it."""
import os
import site
import subprocess
import sys


def test_the_installed_package_is_where_python_looks_and_imports(tmp_path):
    stage = tmp_path / "stage"
    subprocess.run([os.environ["ZELM_CMAKE"], "--install", os.environ["ZELM_BINARY_DIR"]], check=True,
                   capture_output=True, env={**os.environ, "DESTDIR": str(stage)}, timeout=120)
    inits = list(stage.rglob("zelmgrid/__init__.py"))
    assert len(inits) == 1
    where = inits[0].parent.parent
    assert "/" + str(where.relative_to(stage)) in site.getsitepackages()
    # a fresh interpreter, given only the staged folder, imports the installed copy and reads a file
    out = subprocess.run(
        [sys.executable, "-c", "import zelmgrid, sys; print(zelmgrid.__file__); "
         "print(zelmgrid.read_grid(sys.argv[1]).nnodes)", os.path.join(os.environ["ZELM_SOURCE_DIR"], "examples",
                                                                          "flow2d-grid.unf")],
        env={"PYTHONPATH": str(where),
             **{k: v for k, v in os.environ.items() if k in ("PATH", "LD_PRELOAD", "ASAN_OPTIONS")}},
        capture_output=True, text=True,
        check=True, cwd=tmp_path).stdout.split()
    assert out == [str(inits[0]), "442"]
