"""Damaged files raise zelmgrid.Error, never crash the interpreter: truncated copies, counts that lie,
the fuzz campaign's saved inputs and random corruption."""
import os
import random
import struct

import numpy as np
import pytest

import zelmgrid
from conftest import SOURCE, sample

KINDS = ["grid", "restart", "pix"]
ENCODINGS = ["unformatted", "binary", "formatted"]


@pytest.fixture(scope="module")
def files(tmp_path_factory):
    """The 2D sample (two zones) in every encoding, 4-byte reals, with its grid and objects."""
    d = tmp_path_factory.mktemp("damaged")
    g = zelmgrid.read_grid(sample("flow2d-grid.unf"))
    objs = {"grid": g, "restart": zelmgrid.read_restart(sample("flow2d-restart.unf"), g),
            "pix": zelmgrid.read_pix(sample("flow2d-pix.unf"), g)}
    out = {}
    for enc in ENCODINGS:
        for kind, obj in objs.items():
            path = d / f"{kind}.{enc}"
            getattr(zelmgrid, "write_" + kind)(path, obj, enc, False)
            out[(kind, enc)] = path.read_bytes()
    return g, objs, out


def read(kind, path, g, enc, nvar=5):
    """Reads as the intact file would be read, encoding and precision given."""
    if kind == "grid":
        return zelmgrid.read_grid(path, enc, False)
    if kind == "restart":
        return zelmgrid.read_restart(path, g, nvar, enc, False)
    return zelmgrid.read_pix(path, g, enc, False)


def cuts(n):
    return sorted(set(range(min(n, 200))) | set(range(0, n, max(1, n // 50))))


def recognised(kind, path, g, enc=None):
    """Reads with the encoding and precision found from the bytes (`enc` is not used)."""
    if kind == "grid":
        return zelmgrid.read_grid(path)
    if kind == "restart":
        return zelmgrid.read_restart(path, g, 5)
    return zelmgrid.read_pix(path, g)


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("enc", ENCODINGS)
def test_every_truncated_copy_raises(files, tmp_path, kind, enc):
    g, objs, data = files
    whole = data[(kind, enc)]
    # text cut within its trailing blanks is still whole, and within its last value it holds a
    # shorter value: the cuts end before the last value
    end = len(whole.rstrip()) - len(whole.split()[-1]) if enc == "formatted" else len(whole)
    path = tmp_path / "cut"
    for n in cuts(end):
        path.write_bytes(whole[:n])
        for how in (read, recognised):
            try:
                got = how(kind, path, g, enc)
            except zelmgrid.ReadError as e:
                assert e.file == str(path) and str(path) in str(e), (n, how)
            else:
                # a pix file cut right after its six fixed variables is a whole pix file without
                # free ones
                assert kind == "pix" and got.nvar == 6, (n, how)
                assert np.array_equal(got.values, objs["pix"].values[:, :6])


def patched(data, offset, fmt, value):
    b = bytearray(data)
    struct.pack_into(fmt, b, offset, value)
    return bytes(b)


BIG = 2**31 - 1


@pytest.mark.parametrize("enc", ["unformatted", "binary"])
@pytest.mark.parametrize("field,value", [("ndim", 4), ("ndim", -1), ("nzones", BIG), ("nzones", -1),
                                         ("nodes", BIG), ("nodes", -3), ("faces", BIG), ("mnpf", 1),
                                         ("npf", 2**30), ("npf", -5)])
def test_grid_counts_that_lie_raise(request, files, tmp_path, enc, field, value):
    if (field, value, enc) == ("npf", -5, "unformatted"):
        request.applymarker(pytest.mark.xfail(strict=True, reason="the typed reader takes a negative node count "
                                              "in a framed face record and skips the rest of the record"))
    _, _, data = files
    whole = data[("grid", enc)]
    frame = 4 if enc == "unformatted" else 0
    counts = 12 + 3 * frame  # the first zone's counts
    nzones, nodes = 2, struct.unpack_from("<i", whole, counts)[0]
    first_face = counts + 20 * nzones + frame + nodes * (8 + 2 * frame)
    offset = {"ndim": frame, "nzones": frame + 4, "nodes": counts, "faces": counts + 4, "mnpf": counts + 12,
              "npf": first_face + frame}[field]
    lying = patched(whole, offset, "<i", value)
    if field == "mnpf":  # the faces' width is the largest mnpf over the zones
        lying = patched(lying, offset + 20, "<i", value)
    path = tmp_path / "lying"
    path.write_bytes(lying)
    with pytest.raises(zelmgrid.ReadError):
        zelmgrid.read_grid(path, enc, False)
    with pytest.raises(zelmgrid.Error):
        zelmgrid.read_grid(path)


@pytest.mark.parametrize("line,value", [(0, "3 2147483647 0"), (0, "9 2 0"), (1, "2147483647 5 5 4 4"),
                                        (1, "-7 1 1 1 1")])
def test_text_grid_counts_that_lie_raise(files, tmp_path, line, value):
    _, _, data = files
    lines = data[("grid", "formatted")].decode().split("\n")
    lines[line] = value
    path = tmp_path / "lying"
    path.write_text("\n".join(lines))
    with pytest.raises(zelmgrid.Error):
        zelmgrid.read_grid(path)
    with pytest.raises(zelmgrid.ReadError):
        zelmgrid.read_grid(path, "formatted", False)


@pytest.mark.parametrize("enc", ENCODINGS)
def test_solutions_of_another_grid_raise(files, tmp_path, enc):
    g, _, data = files
    big = zelmgrid.Grid(2, [(10**6, 0, 10**6, 0, 0)] * 2, np.zeros((2 * 10**6, 2)), np.zeros(0, np.int32),
                        np.zeros((0, 1), np.int32), np.zeros((0, 2), np.int32))
    for kind in ("restart", "pix"):
        path = tmp_path / kind
        path.write_bytes(data[(kind, enc)])
        with pytest.raises(zelmgrid.ReadError):
            read(kind, path, big, enc)
        if enc != "formatted":  # the bytes say that they do not fit
            with pytest.raises(zelmgrid.ReadError, match="does not fit|cannot be told|not a"):
                (zelmgrid.read_restart if kind == "restart" else zelmgrid.read_pix)(path, big)


@pytest.mark.parametrize("enc", ["unformatted", "binary"])
def test_a_pix_file_with_a_lying_free_count_raises(files, tmp_path, enc):
    g, _, data = files
    whole = data[("pix", enc)]
    frame = 4 if enc == "unformatted" else 0
    fixed = (12 + 2 * frame) * 2 + 25 + 2 * frame + 6 * sum(4 * n + 2 * frame for n in g.nodes_per_zone)
    assert struct.unpack_from("<i", whole, fixed + frame)[0] == 1  # the sample's one free variable
    for value in (BIG, -1, 2):
        path = tmp_path / "lying"
        path.write_bytes(patched(whole, fixed + frame, "<i", value))
        with pytest.raises(zelmgrid.ReadError):
            zelmgrid.read_pix(path, g, enc, False)


def regression_inputs():
    root = os.path.join(SOURCE, "tests", "fuzz", "regressions")
    for kind in ("grid", "restart", "pix"):
        for name in sorted(os.listdir(os.path.join(root, kind))):
            yield kind, os.path.join(root, kind, name)


@pytest.mark.parametrize("kind,path", list(regression_inputs()), ids=lambda v: os.path.basename(str(v)))
def test_the_fuzz_campaigns_saved_inputs_raise(files, tmp_path, kind, path):
    g, _, _ = files
    raw = open(path, "rb").read()
    code, dbl = raw[0] % 4, bool(raw[1] & 1)  # the inputs' leading 16 bytes choose the encoding
    body = tmp_path / "input"
    body.write_bytes(raw[16:])
    enc = ["unformatted", "formatted", "binary", "unformatted"][code]
    with pytest.raises(zelmgrid.Error):
        if kind == "grid":
            zelmgrid.read_grid(body, enc, dbl)
        elif kind == "restart":
            zelmgrid.read_restart(body, g, 5, enc, dbl)
        else:
            zelmgrid.read_pix(body, g, enc, dbl)
    with pytest.raises(zelmgrid.Error):
        {"grid": zelmgrid.read_grid, "restart": zelmgrid.read_restart, "pix": zelmgrid.read_pix}[kind](
            body, *([] if kind == "grid" else [g]))


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("enc", ENCODINGS)
def test_random_corruption_reads_whole_or_raises(files, tmp_path, kind, enc):
    g, _, data = files
    whole = data[(kind, enc)]
    rnd = random.Random(f"{kind}-{enc}")
    path = tmp_path / "corrupt"
    for _ in range(150):
        b = bytearray(whole)
        for _ in range(rnd.choice([1, 2, 8])):
            b[rnd.randrange(len(b))] = rnd.randrange(256)
        path.write_bytes(bytes(b))
        for how in (read, recognised):
            try:
                got = how(kind, path, g, enc)
            except zelmgrid.Error:
                continue
            # what reads is whole: its arrays have the shapes its counts say
            if kind == "grid":
                assert got.x.shape == (got.nnodes, got.ndim) and got.npf.shape == (got.nfaces,)
                assert got.ifnode.shape[0] == got.ifcell.shape[0] == got.nfaces
            elif kind == "restart":
                assert got.q.shape == (g.ncells, 5)
            else:
                assert got.values.shape == (g.nnodes, 6 + len(got.labels))
