"""meshio's path for the benchmark: the same mesh written and read as Tecplot ASCII and as VTU.

Usage: meshio_path.py DIR NODES RUNS

DIR holds the mesh that zelmbench prepared: points.f64 (NODES x 3), pointdata.f64 (six node
variables, one after another), and the cells by their nodes from 0 (tetra.i32, wedge.i32,
triangle.i32, quad.i32). Each operation runs RUNS times, each in a fresh process so that its
memory starts as fresh as the library's. Prints one line per run:
  RESULT <operation> <wall seconds> <cpu seconds> <file bytes> <peak KiB above the start>
"""

import os
import subprocess
import sys
import time

NAMES = ["RHO", "U", "V", "W", "P", "FREE"]
SHAPES = {"tetra": 4, "wedge": 6, "triangle": 3, "quad": 4}


def rss_kib(key):
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith(key):
                return int(line.split()[1])
    return -1


def reset_peak():
    try:
        with open("/proc/self/clear_refs", "w") as f:
            f.write("5")
    except OSError:
        pass
    return rss_kib("VmRSS:")


def load(d, nodes):
    import meshio
    import numpy as np

    points = np.fromfile(os.path.join(d, "points.f64"), dtype=np.float64).reshape(nodes, 3)
    values = np.fromfile(os.path.join(d, "pointdata.f64"), dtype=np.float64).reshape(6, nodes)
    cells = []
    for kind, n in SHAPES.items():
        a = np.fromfile(os.path.join(d, kind + ".i32"), dtype=np.int32)
        if a.size:
            cells.append((kind, a.reshape(-1, n).astype(np.int64)))
    if not any(k in ("tetra", "wedge") for k, _ in cells):
        points = np.ascontiguousarray(points[:, :2])
    data = {name: values[i].copy() for i, name in enumerate(NAMES)}
    return meshio.Mesh(points, cells, point_data=data)


def one(d, nodes, op):
    """One timed operation in this process."""
    import meshio

    tec = os.path.join(d, "mesh.dat")
    vtu = os.path.join(d, "mesh.vtu")
    mesh = load(d, nodes) if op.endswith("write") else None
    base = reset_peak()
    w0, c0 = time.perf_counter(), time.process_time()
    if op == "tecplot-write":
        meshio.write(tec, mesh, file_format="tecplot")
        path = tec
    elif op == "tecplot-read":
        meshio.read(tec, file_format="tecplot")
        path = tec
    elif op == "vtu-write":
        meshio.write(vtu, mesh, file_format="vtu", binary=True, compression=None)
        path = vtu
    else:
        meshio.read(vtu, file_format="vtu")
        path = vtu
    w1, c1 = time.perf_counter(), time.process_time()
    peak = rss_kib("VmHWM:") - base
    print(f"RESULT {op} {w1 - w0:.6f} {c1 - c0:.6f} {os.path.getsize(path)} {peak}", flush=True)


def main():
    if len(sys.argv) == 5:  # a child: one operation
        one(sys.argv[1], int(sys.argv[2]), sys.argv[4])
        return
    d, nodes, runs = sys.argv[1], int(sys.argv[2]), int(sys.argv[3])
    for _ in range(runs):
        for op in ("tecplot-write", "tecplot-read", "vtu-write", "vtu-read"):
            out = subprocess.run([sys.executable, __file__, d, str(nodes), "1", op], capture_output=True, text=True)
            if out.returncode != 0:
                sys.stderr.write(out.stderr)
                sys.exit(out.returncode)
            sys.stdout.write(out.stdout)
            sys.stdout.flush()


if __name__ == "__main__":
    main()
