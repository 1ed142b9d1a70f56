"""meshio and VTK on the mesh zelmbench_export built (see bench/exportview.cpp).

usage: exportview.py DIR

Times meshio writing the same mesh and data as VTU raw binary, and VTK reading the library's .vtu
and its Tecplot export of the same data. Prints one RESULT line per measurement.
"""
import os
import sys
import time

import meshio
import numpy as np
import vtk


def main(d):
    pts = np.fromfile(os.path.join(d, "points.f32"), np.float32).reshape(-1, 3)
    conn = np.fromfile(os.path.join(d, "connectivity.i64"), np.int64)
    offsets = np.fromfile(os.path.join(d, "offsets.i64"), np.int64)
    types = np.fromfile(os.path.join(d, "types.u8"), np.uint8)
    pdata = np.fromfile(os.path.join(d, "pointdata.f32"), np.float32).reshape(-1, len(pts))
    cdata = np.fromfile(os.path.join(d, "celldata.f32"), np.float32).reshape(-1, len(types))
    starts = np.concatenate(([0], offsets[:-1]))
    blocks, cell_data = [], {"q%d" % (k + 1): [] for k in range(len(cdata))}
    for vtktype, name, n in ((10, "tetra", 4), (13, "wedge", 6)):
        sel = np.nonzero(types == vtktype)[0]
        idx = starts[sel][:, None] + np.arange(n)[None, :]
        blocks.append((name, conn[idx]))
        for k in range(len(cdata)):
            cell_data["q%d" % (k + 1)].append(cdata[k][sel])
    names = ["density", "velocity_u", "velocity_v", "velocity_w", "pressure", "variable6", "speed"]
    mesh = meshio.Mesh(pts, blocks, point_data={names[k]: pdata[k] for k in range(len(pdata))}, cell_data=cell_data)
    t, c = time.perf_counter(), time.process_time()
    meshio.write(os.path.join(d, "meshio.vtu"), mesh, binary=True, compression=None)
    print("RESULT meshio-write-vtu %.3f wall %.3f cpu" % (time.perf_counter() - t, time.process_time() - c))
    for name, reader in (("zelm.vtu", vtk.vtkXMLUnstructuredGridReader()), ("zelm.dat", vtk.vtkTecplotReader())):
        reader.SetFileName(os.path.join(d, name))
        t, c = time.perf_counter(), time.process_time()
        reader.Update()
        print("RESULT vtk-read-%s %.3f wall %.3f cpu" % (name, time.perf_counter() - t, time.process_time() - c))


if __name__ == "__main__":
    main(sys.argv[1])
