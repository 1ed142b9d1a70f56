"""Reading and writing through zelmgrid: the same arrays as the C++ typed interface, on the bundled
samples and on files written by gfortran, in every encoding and precision; round trips give the
same bytes."""
import filecmp

import numpy as np
import pytest

import zelmgrid
from conftest import ENCODINGS, fortran, sample, typed, zelm

PRECISIONS = [False, True]


def assert_grid(g, t):
    assert (g.ndim, g.aux) == (t["ndim"], t["aux"])
    assert [tuple(z) for z in g.zones] == [tuple(r) for r in t["zones"]]
    for name in ("x", "npf", "ifnode", "ifcell"):
        a = getattr(g, name)
        assert (a.shape, a.dtype) == (t[name].shape, t[name].dtype), name
        if name != "ifnode":
            assert np.array_equal(a, t[name]), name
    # a face's nodes are those the typed interface reads; the slots past them, which it leaves
    # unset, are 0
    used = np.arange(g.ifnode.shape[1]) < g.npf[:, None]
    assert np.array_equal(g.ifnode[used], t["ifnode"][used])
    assert not g.ifnode[~used].any()


def assert_header(obj, t, names):
    for name in names:
        assert getattr(obj, name) == t[name], name


def grid_of(tmp_path, cells=(), nodes=()):
    """A grid file with the given cells (or nodes) per zone and nothing else, for the solution files
    that take their counts from a grid."""
    zones = [(n, 0, c, 0, 0) for c, n in zip(cells or [0] * len(nodes), nodes or [0] * len(cells))]
    g = zelmgrid.Grid(3, zones, np.zeros((sum(nodes), 3)), np.zeros(0, np.int32), np.zeros((0, 1), np.int32),
                      np.zeros((0, 2), np.int32))
    path = tmp_path / "counts.grid"
    zelmgrid.write_grid(path, g, "unformatted", False)
    return g, path


# ---- the bundled samples, converted by the zelm command -------------------------------------------


@pytest.fixture(scope="module")
def converted(tmp_path_factory):
    """Every sample in every encoding and precision, written by the zelm command."""
    d = tmp_path_factory.mktemp("converted")
    out = {}
    for flow in ("flow2d", "flow3d"):
        grid = sample(flow + "-grid.unf")
        for enc in ENCODINGS:
            for dbl in PRECISIONS:
                names = {}
                for kind in ("grid", "restart", "pix"):
                    names[kind] = d / f"{flow}-{kind}-{enc}-{int(dbl)}"
                    extra = [] if kind == "grid" else ["--grid", grid]
                    zelm("convert", sample(f"{flow}-{kind}.unf"), names[kind], "--encoding", enc, "--precision",
                         "double" if dbl else "single", *extra)
                out[(flow, enc, dbl)] = names
    return out


@pytest.mark.parametrize("flow", ["flow2d", "flow3d"])
@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("dbl", PRECISIONS)
def test_samples_read_as_the_typed_interface_reads_them(converted, flow, enc, dbl):
    f = converted[(flow, enc, dbl)]
    assert zelmgrid.detect(f["grid"])[:3] == ("grid", enc, dbl)
    g = zelmgrid.read_grid(f["grid"])
    assert_grid(g, typed("grid", f["grid"], enc, dbl))
    gridref = (f["grid"], enc, dbl)

    r = zelmgrid.read_restart(f["restart"], g)
    t = typed("restart", f["restart"], enc, dbl, *gridref, nvar=r.nvar)
    assert r.nvar == 5 and r.cells_per_zone == g.cells_per_zone
    assert_header(r, t, ["dtime", "lastcyc", "rstype", "dgamma", "drgas", "dr0", "drm0", "dp0"])
    assert r.q.shape == (g.ncells, 5) and np.array_equal(r.q, t["q"])

    p = zelmgrid.read_pix(f["pix"], f["grid"])  # the grid as a path: its zone counts are read
    t = typed("pix", f["pix"], enc, dbl, *gridref)
    assert_header(p, t, ["dvar", "dgamma", "drgas", "dr0", "drm0", "dp0"])
    assert (p.text, p.labels) == (t["texts"][0].rstrip(), [s.rstrip() for s in t.get("labels", [])])
    assert p.values.shape == (g.nnodes, 6 + len(p.labels)) and np.array_equal(p.values, t["values"])


@pytest.mark.parametrize("flow", ["flow2d", "flow3d"])
@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("dbl", PRECISIONS)
def test_samples_written_back_are_the_same_bytes(converted, tmp_path, flow, enc, dbl):
    f = converted[(flow, enc, dbl)]
    g = zelmgrid.read_grid(f["grid"], enc, dbl)
    objects = {"grid": g, "restart": zelmgrid.read_restart(f["restart"], g, 5, enc, dbl),
               "pix": zelmgrid.read_pix(f["pix"], g, enc, dbl)}
    for kind, obj in objects.items():
        out = tmp_path / kind
        getattr(zelmgrid, "write_" + kind)(out, obj, enc, dbl)
        assert filecmp.cmp(out, f[kind], shallow=False), kind


def test_the_bundled_text_samples_are_recognised_and_read():
    for flow in ("flow2d", "flow3d"):
        g = zelmgrid.read_grid(sample(flow + "-grid.txt"))
        assert_grid(g, typed("grid", sample(flow + "-grid.txt"), "formatted", False))
        p = zelmgrid.read_pix(sample(flow + "-pix.txt"), g)
        gridref = (sample(flow + "-grid.txt"), "formatted", False)
        assert np.array_equal(p.values, typed("pix", sample(flow + "-pix.txt"), "formatted", False, *gridref)["values"])
        r = zelmgrid.read_restart(sample(flow + "-restart.txt"), g)
        t = typed("restart", sample(flow + "-restart.txt"), "formatted", False, *gridref, nvar=r.nvar)
        assert np.array_equal(r.q, t["q"])


# ---- files written by gfortran ------------------------------------------------------------------


@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("dbl", PRECISIONS)
@pytest.mark.parametrize("nzones", [1, 3])
def test_gfortran_grids_read_as_written(tmp_path, enc, dbl, nzones):
    path = tmp_path / "grid"
    fortran("gridref", "write", enc, 8 if dbl else 4, nzones, path)
    # the formatted reference holds 4-byte reals (9 digits) whatever the precision asked for
    assert zelmgrid.detect(path)[:3] == ("grid", enc, dbl and enc != "formatted")
    g = zelmgrid.read_grid(path)
    assert_grid(g, typed("grid", path, enc, dbl and enc != "formatted"))
    # and what the reference program put there, node index first
    assert g.ndim == 3 and g.aux == 77 and g.nzones == nzones
    for node in range(1, g.nnodes + 1):
        assert list(g.x[node - 1]) == [float(np.float32(node * 1.1 + d / 3.0)) for d in (1, 2, 3)]
    face = 0
    for k, z in enumerate(g.zones, start=1):
        assert tuple(z) == (3 + k, 2 + k, k, 2 + k, 4 + k)
        for _ in range(z.faces):
            face += 1
            n = (face * face + k) % (3 + nzones)
            assert g.npf[face - 1] == n
            assert list(g.ifnode[face - 1, :n]) == [1000 * k + 10 * face + i for i in range(1, n + 1)]
            assert list(g.ifcell[face - 1]) == [face, -face if face % 2 else face + 1]


@pytest.mark.parametrize("enc", ["unformatted", "binary"])
@pytest.mark.parametrize("dbl", PRECISIONS)
def test_gfortran_grids_written_back_are_the_same_bytes(tmp_path, enc, dbl):
    path, out = tmp_path / "grid", tmp_path / "again"
    fortran("gridref", "write", enc, 8 if dbl else 4, 3, path)
    zelmgrid.write_grid(out, zelmgrid.read_grid(path), enc, dbl)
    assert filecmp.cmp(out, path, shallow=False)


@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("dbl", PRECISIONS)
def test_gfortran_restart_files_read_as_written(tmp_path, enc, dbl):
    cells = [4, 1, 3]
    g, gpath = grid_of(tmp_path, cells=cells)
    path = tmp_path / "restart"
    fortran("restartref", "write", path, enc, int(dbl), 2, "cell", 0.25, 1234, 2, 1.4, 287.05, 1.2, 0.8, 101325.0,
            len(cells), *cells)
    dbl = dbl and enc != "formatted"  # the formatted reference writes 9 digits
    assert zelmgrid.detect(path, g)[:4] == ("restart", enc, dbl, 2)
    r = zelmgrid.read_restart(path, g)
    assert r.nvar == 2 and r.ncells == sum(cells) and (r.lastcyc, r.rstype) == (1234, 2)
    t = typed("restart", path, enc, dbl, gpath, "unformatted", False, nvar=2)
    assert_header(r, t, ["dtime", "lastcyc", "rstype", "dgamma", "drgas", "dr0", "drm0", "dp0"])
    assert np.array_equal(r.q, t["q"])
    # value i of zone z of variable v is (-1)**(v+z+i) * (1000 v + 100 z + i) / 7, zone after zone
    at = 0
    for z, n in enumerate(cells, start=1):
        for i in range(1, n + 1):
            for v in (1, 2):
                want = (-1) ** (v + z + i) * (1000 * v + 100 * z + i) / 7
                assert r.q[at + i - 1, v - 1] == pytest.approx(want, rel=1e-15 if dbl else 1e-6)
        at += n
    if enc != "formatted":  # text: the reference's own spacing is not the library's
        out = tmp_path / "again"
        zelmgrid.write_restart(out, r, enc, dbl)
        assert filecmp.cmp(out, path, shallow=False)


@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("dbl", PRECISIONS)
@pytest.mark.parametrize("nfree", [0, 2])
def test_gfortran_pix_files_read_as_written(tmp_path, enc, dbl, nfree):
    nodes = [5, 3]
    g, gpath = grid_of(tmp_path, nodes=nodes)
    path = tmp_path / "pix"
    fortran("pixref", "write", path, {"unformatted": 0, "formatted": 1, "binary": 2}[enc], int(dbl), nfree,
            len(nodes), *nodes)
    p = zelmgrid.read_pix(path, g, encoding=enc, dblprec=dbl)
    assert zelmgrid.read_pix(path, g).nvar == p.nvar  # recognised from the bytes too
    assert p.nvar == 6 + nfree and len(p.labels) == nfree and p.nodes_per_zone == nodes
    t = typed("pix", path, enc, dbl, gpath, "unformatted", False)
    assert_header(p, t, ["dvar", "dgamma", "drgas", "dr0", "drm0", "dp0"])
    assert p.text == t["texts"][0].rstrip()
    assert np.array_equal(p.values, t["values"])
    if enc != "formatted":
        assert zelmgrid.detect(path, g)[:3] == ("pix", enc, dbl)
        out = tmp_path / "again"
        zelmgrid.write_pix(out, p, enc, dbl)
        assert filecmp.cmp(out, path, shallow=False)
