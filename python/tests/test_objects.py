"""Objects made in Python, written and read back; arguments checked; failures as the package's
exceptions."""
import numpy as np
import pytest

import zelmgrid

ENCODINGS = ["unformatted", "binary", "formatted"]


def two_zone_grid():
    x = np.array([[0.0, 0.0], [1.0, 0.0], [0.0, 1.0], [5.0, 0.0], [6.0, 0.0], [5.0, 1.0]]) + 0.125
    npf = [2, 2, 2, 2]
    ifnode = [[1, 2, 0], [2, 3, 0], [1, 2, 0], [3, 1, 0]]
    ifcell = [[1, -1], [1, -2], [1, -1], [1, -3]]
    return zelmgrid.Grid(2, [(3, 2, 1, 2, 3), zelmgrid.Zone(3, 2, 1, 3, 3)], x, npf, ifnode, ifcell, aux=9)


@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("dbl", [False, True])
def test_objects_made_in_python_are_written_and_read_back(tmp_path, enc, dbl):
    g = two_zone_grid()
    assert (g.nzones, g.nnodes, g.nfaces, g.ncells, g.aux) == (2, 6, 4, 2, 9)
    zelmgrid.write_grid(tmp_path / "g", g, enc, dbl)
    h = zelmgrid.read_grid(tmp_path / "g")
    assert h.zones == g.zones and (h.ndim, h.aux) == (2, 9)
    for name in ("x", "npf", "ifnode", "ifcell"):
        assert np.array_equal(getattr(h, name), getattr(g, name)), name

    q = np.arange(10.0).reshape(2, 5) / 8
    r = zelmgrid.Restart(g.cells_per_zone, q)
    r.dtime, r.lastcyc, r.rstype, r.dp0 = 0.5, 12, 3, 2.25
    zelmgrid.write_restart(tmp_path / "r", r, enc, dbl)
    s = zelmgrid.read_restart(tmp_path / "r", tmp_path / "g")
    assert (s.nvar, s.dtime, s.lastcyc, s.rstype, s.dp0) == (5, 0.5, 12, 3, 2.25)
    assert np.array_equal(s.q, q)

    values = np.arange(48.0).reshape(6, 8) / 4
    p = zelmgrid.Pix(g.nodes_per_zone, values, labels=["mach", "t\xe9mp"], text="made in python")
    p.dvar = 0.75
    zelmgrid.write_pix(tmp_path / "p", p, enc, dbl)
    o = zelmgrid.read_pix(tmp_path / "p", g, enc, dbl)  # (recognition takes text for ASCII only)
    assert (o.text, o.labels, o.dvar) == ("made in python", ["mach", "t\xe9mp"], 0.75)
    assert np.array_equal(o.values, values)


def test_reals_are_rounded_to_single_precision_when_written_so(tmp_path):
    g = two_zone_grid()
    g.x[0, 0] = 0.1
    zelmgrid.write_grid(tmp_path / "g", g, "binary", False)
    assert zelmgrid.read_grid(tmp_path / "g").x[0, 0] == float(np.float32(0.1))


def test_arrays_of_the_wrong_shape_or_kind_are_refused():
    x = np.zeros((6, 2))
    ok = dict(npf=[2] * 4, ifnode=[[1, 2]] * 4, ifcell=[[1, -1]] * 4)
    zones = [(3, 2, 1, 2, 3)] * 2
    with pytest.raises(ValueError, match=r"x has shape \(5, 2\), not \(6, 2\)"):
        zelmgrid.Grid(2, zones, np.zeros((5, 2)), **ok)
    with pytest.raises(TypeError, match="ifnode must hold integers"):
        zelmgrid.Grid(2, zones, x, ok["npf"], np.ones((4, 2)), ok["ifcell"])
    with pytest.raises(ValueError, match="beyond 32-bit"):
        zelmgrid.Grid(2, zones, x, ok["npf"], ok["ifnode"], [[1, 2**31]] * 4)
    with pytest.raises(ValueError, match=r"npf\[0\] = 3 is not 0 to the width of ifnode \(2\)"):
        zelmgrid.Grid(2, zones, x, [3, 2, 2, 2], ok["ifnode"], ok["ifcell"])
    with pytest.raises(ValueError, match="ndim 4"):
        zelmgrid.Grid(4, zones, np.zeros((6, 4)), **ok)
    with pytest.raises(ValueError, match="negative"):
        zelmgrid.Restart([3, -1], np.zeros((2, 1)))
    with pytest.raises(ValueError, match=r"values has shape \(6, 6\), not \(6, 7\)"):
        zelmgrid.Pix([6], np.zeros((6, 6)), labels=["one"])
    with pytest.raises(UnicodeEncodeError):  # a pix text is one byte a character
        zelmgrid.Pix([1], np.zeros((1, 6)), text="\u20ac")
    with pytest.raises(ValueError, match="encoding 'fortran'"):
        zelmgrid.write_grid("/dev/null", two_zone_grid(), "fortran", False)
    with pytest.raises(AttributeError):
        two_zone_grid().x = x  # the arrays keep their memory for the object's life


def test_system_failures_are_io_errors(tmp_path):
    for call in (lambda: zelmgrid.write_grid(tmp_path / "no" / "g", two_zone_grid(), "binary", False),
                 lambda: zelmgrid.read_grid(tmp_path / "missing", "binary", False),
                 lambda: zelmgrid.read_grid(tmp_path / "missing"),
                 lambda: zelmgrid.read_grid(tmp_path, "binary", False)):
        with pytest.raises(zelmgrid.IOError) as e:
            call()
        assert isinstance(e.value, zelmgrid.Error) and isinstance(e.value, OSError)
        assert str(tmp_path) in str(e.value) and str(tmp_path) in e.value.file


def test_a_file_of_another_kind_says_what_it_is(tmp_path):
    g = two_zone_grid()
    zelmgrid.write_pix(tmp_path / "p", zelmgrid.Pix(g.nodes_per_zone, np.ones((6, 6))), "unformatted", False)
    with pytest.raises(zelmgrid.ReadError, match="is a pix file, not a grid file") as e:
        zelmgrid.read_grid(tmp_path / "p")
    assert e.value.file == str(tmp_path / "p")
    (tmp_path / "empty").write_bytes(b"")
    d = zelmgrid.detect(tmp_path / "empty")
    assert (d.kind, d.encoding, d.dblprec, d.nvar) == (None, None, None, None)
    assert d.evidence == ["the file is empty"]
    with pytest.raises(zelmgrid.ReadError, match="of no kind zelmgrid recognises"):
        zelmgrid.read_grid(tmp_path / "empty")


def test_a_located_read_error():
    with pytest.raises(zelmgrid.ReadError) as e:
        zelmgrid.read_grid(__file__, "binary", False)  # this very text as an unframed grid
    assert str(e.value).startswith(f'"{__file__}" (binary), record 1 (grid header) at byte 12: ndim = ')
