#!/usr/bin/python3
"""Reading a grid of about a million cells from Python: zelmgrid.read_grid against the C++ typed
read of the same file, and against reading it record by record with scipy.io.FortranFile.

Usage: PYTHONPATH=BUILD/python python_read.py TYPEDREF [CELLS] [RUNS]
  TYPEDREF  the build's python/tests/zelm_typedref (it writes the grid and times the C++ read)
The file (framed records, 4-byte reals) is written to a temporary folder and removed after.
"""
import os
import subprocess
import sys
import tempfile
import time

import numpy as np
from scipy.io import FortranFile

import zelmgrid


def best(runs, call):
    times = []
    for _ in range(runs):
        t0 = time.perf_counter()
        call()
        times.append(time.perf_counter() - t0)
    return min(times)


def fortranfile(path):
    """The grid's arrays, one record at a time, as a user of scipy would read them."""
    with FortranFile(path, "r", header_dtype=np.dtype("<u4")) as f:
        ndim, nzones, _ = f.read_ints(np.int32)
        counts = f.read_ints(np.int32).reshape(nzones, 5)
        nodes, faces = counts[:, 0].sum(), counts[:, 1].sum()
        width = counts[:, 3].max()
        x = np.empty((nodes, ndim))
        npf = np.empty(faces, np.int32)
        ifnode = np.zeros((faces, width), np.int32)
        ifcell = np.empty((faces, 2), np.int32)
        node = face = 0
        for npts, nfaces, *_ in counts:
            for _ in range(npts):
                x[node] = f.read_reals(np.float32)
                node += 1
            for _ in range(nfaces):
                rec = f.read_ints(np.int32)
                npf[face] = rec[0]
                ifnode[face, :rec[0]] = rec[1:-2]
                ifcell[face] = rec[-2:]
                face += 1
    return x, npf, ifnode, ifcell


def main(typedref, cells=1000000, runs=5):
    with tempfile.TemporaryDirectory(dir="/tmp") as d:  # the grid routine takes names of 40 characters
        path = os.path.join(d, "grid.unf")
        subprocess.run([typedref, "gen", str(cells), path], check=True)
        g = zelmgrid.read_grid(path)
        print(f"grid: {g.ncells:,} cells, {g.nnodes:,} nodes, {g.nfaces:,} faces, "
              f"{os.path.getsize(path) / 1e6:.1f} MB framed, 4-byte reals; best of {runs} runs")
        cxx = float(subprocess.run([typedref, "time", path, "0", "0", str(runs)], check=True, capture_output=True,
                                   text=True).stdout)
        given = best(runs, lambda: zelmgrid.read_grid(path, "unformatted", False))
        found = best(runs, lambda: zelmgrid.read_grid(path))
        detect = best(runs, lambda: zelmgrid.detect(path))
        scipy = best(1, lambda: fortranfile(path))
        x, npf, ifnode, ifcell = fortranfile(path)
        assert np.array_equal(x, g.x) and np.array_equal(npf, g.npf) and np.array_equal(ifcell, g.ifcell)
        print(f"C++ zelm::readgrid                         {cxx:8.3f} s")
        print(f"zelmgrid.read_grid, encoding given         {given:8.3f} s  {given / cxx:5.2f} x C++")
        print(f"zelmgrid.read_grid, recognised from bytes  {found:8.3f} s  {found / cxx:5.2f} x C++"
              f"  (zelmgrid.detect alone {detect:.3f} s)")
        print(f"scipy.io.FortranFile, record by record     {scipy:8.3f} s  {scipy / given:5.1f} x read_grid "
              "(one run)")


if __name__ == "__main__":
    main(sys.argv[1], *(int(a) for a in sys.argv[2:]))
