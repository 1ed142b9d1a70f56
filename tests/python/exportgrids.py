"""Grid files for the export tests, written as list-directed text from cells given by their faces.

A cell is a list of faces, each a tuple of zone node numbers (from 1) in cyclic order; in 2D a face is
an edge of two nodes. Faces met by two cells are shared; a face met once is a boundary face and gets
the code `boundary(centre)` returns (default -1). Where a face names its cells is up to `side`:
"first" puts the cell that lists the face first on side 1, "second" on side 2, "alternate" swaps from
face to face; the nodes keep the order of the cell that lists the face first.
"""
import itertools


def zone(points, cells, boundary=None):
    return {"points": points, "cells": cells, "boundary": boundary or (lambda c: -1)}


def faces_of(z, side):
    found = {}
    order = []
    for c, cell in enumerate(z["cells"], start=1):
        for f in cell:
            key = tuple(sorted(f))
            if key in found:
                found[key]["cells"].append(c)
            else:
                found[key] = {"nodes": list(f), "cells": [c]}
                order.append(key)
    out = []
    for i, key in enumerate(order):
        f = found[key]
        cells = f["cells"]
        if len(cells) == 1:
            pts = [z["points"][n - 1] for n in f["nodes"]]
            centre = tuple(sum(p[d] for p in pts) / len(pts) for d in range(len(pts[0])))
            cells = cells + [z["boundary"](centre)]
        first = side == "first" or (side == "alternate" and i % 2 == 0)
        c1, c2 = (cells[0], cells[1]) if first else (cells[1], cells[0])
        out.append((f["nodes"], c1, c2))
    return out


def write(path, ndim, zones, across=False, side="first", faces=None):
    """Writes the grid; `faces`, when given, replaces the faces of each zone (a list per zone)."""
    built = faces or [faces_of(z, side) for z in zones]
    lines = ["%d %d 0" % (ndim, len(zones))]
    counts = []
    for z, fs in zip(zones, built):
        mnpf = max((len(f[0]) for f in fs), default=0)
        mfpc = max((len(c) for c in z["cells"]), default=0)
        counts += [len(z["points"]), len(fs), len(z["cells"]), mnpf, mfpc]
    lines.append(" ".join(str(c) for c in counts))
    node0 = cell0 = 0
    for z, fs in zip(zones, built):
        for p in z["points"]:
            lines.append(" ".join(repr(float(v)) for v in p[:ndim]))
        for nodes, c1, c2 in fs:
            shift = [n + node0 for n in nodes] if across else nodes
            s1 = c1 + cell0 if across and c1 > 0 else c1
            s2 = c2 + cell0 if across and c2 > 0 else c2
            lines.append(" ".join(str(v) for v in [len(nodes)] + shift + [s1, s2]))
        node0 += len(z["points"])
        cell0 += len(z["cells"])
    with open(path, "w") as f:
        f.write("\n".join(lines) + "\n")


# ---- shapes --------------------------------------------------------------------------------------

def tetrahedron():
    pts = [(0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1)]
    return zone(pts, [[(1, 2, 3), (1, 2, 4), (2, 3, 4), (3, 1, 4)]]), 1.0 / 6


def pyramid():
    pts = [(0, 0, 0), (2, 0, 0), (2, 2, 0), (0, 2, 0), (1, 1, 3)]
    return zone(pts, [[(1, 2, 3, 4), (1, 2, 5), (2, 3, 5), (3, 4, 5), (4, 1, 5)]]), 4.0


def wedge():
    pts = [(0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 2), (1, 0, 2), (0, 1, 2)]
    return zone(pts, [[(1, 2, 3), (4, 5, 6), (1, 2, 5, 4), (2, 3, 6, 5), (3, 1, 4, 6)]]), 1.0


def brick(x0=0.0, y0=0.0, z0=0.0, a=1.0, b=1.0, c=1.0):
    """Points and the six faces of a box."""
    pts = [(x0 + a * i, y0 + b * j, z0 + c * k) for k in (0, 1) for j in (0, 1) for i in (0, 1)]
    n = lambda i, j, k: 1 + i + 2 * j + 4 * k  # noqa: E731
    faces = [(n(0, 0, 0), n(1, 0, 0), n(1, 1, 0), n(0, 1, 0)), (n(0, 0, 1), n(1, 0, 1), n(1, 1, 1), n(0, 1, 1)),
             (n(0, 0, 0), n(1, 0, 0), n(1, 0, 1), n(0, 0, 1)), (n(0, 1, 0), n(1, 1, 0), n(1, 1, 1), n(0, 1, 1)),
             (n(0, 0, 0), n(0, 1, 0), n(0, 1, 1), n(0, 0, 1)), (n(1, 0, 0), n(1, 1, 0), n(1, 1, 1), n(1, 0, 1))]
    return pts, faces


def hexahedron():
    pts, faces = brick(a=2, b=1, c=0.5)
    return zone(pts, [faces]), 1.0


def triangle():
    return zone([(0, 0), (2, 0), (0, 1)], [[(1, 2), (2, 3), (3, 1)]]), 1.0


def quadrilateral():
    return zone([(0, 0), (2, 0), (2, 1), (0, 1)], [[(1, 2), (3, 4), (2, 3), (4, 1)]]), 2.0


def pentagon():
    pts = [(0, 0), (2, 0), (2, 1), (1, 2), (0, 1)]
    return zone(pts, [[(2, 3), (1, 2), (4, 5), (3, 4), (5, 1)]]), 3.0


SHAPES = {"tetra": (3, tetrahedron, 10), "pyramid": (3, pyramid, 14), "wedge": (3, wedge, 13),
          "hexahedron": (3, hexahedron, 12), "triangle": (2, triangle, 5), "quad": (2, quadrilateral, 9),
          "polygon": (2, pentagon, 7)}


def box_grid(nx, ny, nz, x0=0.0, code=None):
    """A block of nx x ny x nz unit-sized hexahedra of edge 1/n, from x0 along x."""
    h = 1.0 / max(nx, ny, nz)
    nid = lambda i, j, k: 1 + i + (nx + 1) * (j + (ny + 1) * k)  # noqa: E731
    pts = [(x0 + i * h, j * h, k * h) for k in range(nz + 1) for j in range(ny + 1) for i in range(nx + 1)]
    cells = []
    for k, j, i in itertools.product(range(nz), range(ny), range(nx)):
        a, b, c, d = nid(i, j, k), nid(i + 1, j, k), nid(i + 1, j + 1, k), nid(i, j + 1, k)
        e, f, g, hh = nid(i, j, k + 1), nid(i + 1, j, k + 1), nid(i + 1, j + 1, k + 1), nid(i, j + 1, k + 1)
        cells.append([(a, b, c, d), (e, f, g, hh), (a, b, f, e), (b, c, g, f), (c, d, hh, g), (d, a, e, hh)])
    return zone(pts, cells, code), nx * ny * nz * h ** 3


def split_cube():
    """A unit cube cut at x = 1/2 into two boxes whose shared face is a fan of four triangles around
    its centre: two polyhedra of nine faces and nine nodes each, and a pentagon-free check that the
    general cells close."""
    pts = [(x, y, z) for z in (0, 1) for y in (0, 1) for x in (0, 0.5, 1)] + [(0.5, 0.5, 0.5)]
    n = lambda i, j, k: 1 + i + 3 * j + 6 * k  # noqa: E731
    centre = 13
    fan = [(n(1, 0, 0), n(1, 1, 0), centre), (n(1, 1, 0), n(1, 1, 1), centre), (n(1, 1, 1), n(1, 0, 1), centre),
           (n(1, 0, 1), n(1, 0, 0), centre)]
    cells = []
    for i in (0, 1):
        cells.append([(n(i, 0, 0), n(i + 1, 0, 0), n(i + 1, 1, 0), n(i, 1, 0)),
                      (n(i, 0, 1), n(i + 1, 0, 1), n(i + 1, 1, 1), n(i, 1, 1)),
                      (n(i, 0, 0), n(i + 1, 0, 0), n(i + 1, 0, 1), n(i, 0, 1)),
                      (n(i, 1, 0), n(i + 1, 1, 0), n(i + 1, 1, 1), n(i, 1, 1)),
                      (n(2 * i, 0, 0), n(2 * i, 1, 0), n(2 * i, 1, 1), n(2 * i, 0, 1))] + fan)
    return zone(pts, cells), 1.0


def prism_with_tet():
    """A prism (cell 1) with a tetrahedron (cell 2) standing on its top face: they share three nodes."""
    pts = [(0, 0, 0), (1, 0, 0), (0, 1, 0), (0, 0, 1), (1, 0, 1), (0, 1, 1), (0.25, 0.25, 2)]
    prism = [(1, 2, 3), (4, 5, 6), (1, 2, 5, 4), (2, 3, 6, 5), (3, 1, 4, 6)]
    tet = [(4, 5, 6), (4, 5, 7), (5, 6, 7), (6, 4, 7)]
    return zone(pts, [prism, tet]), 0.5 + 0.5 / 3.0
