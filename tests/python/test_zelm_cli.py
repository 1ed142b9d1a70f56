"""The zelm command, driven as a user drives it."""
import os
import subprocess

import pytest

ZELM = os.path.join(os.environ.get("ZELM_BINARY_DIR", "build/default"), "tools", "zelm")
ENCODINGS = ["unformatted", "binary", "formatted"]
PRECISIONS = ["single", "double"]


def run(*args, check=None):
    p = subprocess.run([ZELM, *args], capture_output=True, text=True, timeout=120)
    if check is not None:
        assert p.returncode == check, (p.returncode, p.stdout, p.stderr)
    return p


@pytest.fixture(scope="module")
def samples(tmp_path_factory):
    d = tmp_path_factory.mktemp("samples")
    run("sample", str(d), check=0)
    return d


@pytest.fixture(scope="module")
def variants(samples, tmp_path_factory):
    """The 3D sample grid and pix file in every encoding and precision, under names that say nothing."""
    d = tmp_path_factory.mktemp("variants")
    grid = str(samples / "flow3d-grid.unf")
    out = {}
    for i, (enc, prec) in enumerate((e, p) for e in ENCODINGS for p in PRECISIONS):
        g = str(d / ("file%d" % (2 * i)))  # names that say nothing of what the files are
        p = str(d / ("file%d" % (2 * i + 1)))
        run("convert", grid, g, "--encoding", enc, "--precision", prec, check=0)
        run("convert", str(samples / "flow3d-pix.unf"), p, "--encoding", enc, "--precision", prec,
            "--grid", grid, check=0)
        out[(enc, prec)] = (g, p)
    return out


def field(text, name):
    for line in text.splitlines():
        if line.strip().startswith(name + ":"):
            return line.split(":", 1)[1].strip()
    return None


@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("prec", PRECISIONS)
def test_info_recognises_grid_files_from_their_bytes(variants, enc, prec):
    g, _ = variants[(enc, prec)]
    out = run("info", g, check=0).stdout
    assert "grid file" in out.splitlines()[0]
    assert field(out, "encoding").startswith(enc)
    assert field(out, "precision") == ("8-byte reals" if prec == "double" else "4-byte reals")
    assert "evidence:" in out
    assert "total" in out


@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("prec", PRECISIONS)
def test_info_checks_pix_files_against_their_grid(variants, enc, prec):
    g, p = variants[(enc, prec)]
    out = run("info", p, "--grid", g, check=0).stdout
    assert "pix file" in out.splitlines()[0]
    assert field(out, "encoding").startswith(enc)
    assert field(out, "precision") == ("8-byte reals" if prec == "double" else "4-byte reals")
    assert "fits the grid" in out


def test_info_says_plainly_when_a_solution_does_not_fit_its_grid(samples):
    p = run("info", str(samples / "flow3d-pix.unf"), "--grid", str(samples / "flow2d-grid.unf"))
    assert p.returncode == 1
    assert "DOES NOT FIT" in p.stdout
    assert "the grid's 2 zones need 12 records" in p.stdout


@pytest.mark.parametrize("enc", ENCODINGS)
def test_convert_there_and_back_gives_the_same_bytes(samples, tmp_path, enc):
    src = str(samples / "flow3d-grid.unf")
    there, back = str(tmp_path / "there"), str(tmp_path / "back")
    run("convert", src, there, "--encoding", enc, "--precision", "double", check=0)
    run("convert", there, back, "--encoding", "unformatted", "--precision", "single", check=0)
    with open(src, "rb") as a, open(back, "rb") as b:
        assert a.read() == b.read()


def test_convert_says_when_values_lose_precision(variants, tmp_path):
    g, _ = variants[("binary", "double")]
    src = str(tmp_path / "fine")
    # a double-precision grid with a value that needs more than a 4-byte real's digits
    run("convert", g, src, "--encoding", "formatted", "--precision", "double", check=0)
    text = open(src).read()
    # the last digits of an 8-byte real in fixed form, as gfortran writes it: 17 digits, then 5 blanks
    assert "0000000     " in text
    text = text.replace("0000000     ", "1234567     ", 1)
    open(src, "w").write(text)
    p = run("convert", src, str(tmp_path / "coarse"), "--encoding", "binary", "--precision", "single", check=0)
    assert "lost precision" in p.stdout


def test_convert_refuses_to_overwrite_without_force(samples, tmp_path):
    out = tmp_path / "o"
    out.write_text("keep me")
    p = run("convert", str(samples / "flow2d-grid.unf"), str(out), "--encoding", "binary", "--precision", "single")
    assert p.returncode != 0 and "--force" in p.stderr
    assert out.read_text() == "keep me"
    run("convert", str(samples / "flow2d-grid.unf"), str(out), "--encoding", "binary", "--precision", "single",
        "--force", check=0)


def test_missing_file(tmp_path):
    p = run("info", str(tmp_path / "nothere"))
    assert p.returncode == 1 and "no such file" in p.stderr


def test_truncated_file_leaves_no_output(samples, tmp_path):
    data = open(samples / "flow2d-grid.unf", "rb").read()
    cut = tmp_path / "cut"
    cut.write_bytes(data[: len(data) // 2])
    out = tmp_path / "out"
    p = run("convert", str(cut), str(out), "--encoding", "binary", "--precision", "single")
    assert p.returncode != 0 and p.stderr.startswith("zelm: ")
    assert not out.exists()
    assert not [f for f in os.listdir(tmp_path) if f.startswith(".out")]


def test_text_that_is_not_a_grid(tmp_path):
    f = tmp_path / "notes.txt"
    f.write_text("hello world\nthis is not a grid\n")
    p = run("info", str(f))
    assert p.returncode == 1 and "not a grid, restart or pix file" in p.stderr


def test_empty_file(tmp_path):
    f = tmp_path / "empty"
    f.write_bytes(b"")
    p = run("info", str(f))
    assert p.returncode == 1 and "empty" in p.stdout


def test_unknown_option_and_verb():
    p = run("info", "x", "--colour")
    assert p.returncode == 2 and "unknown option --colour" in p.stderr
    p = run("frobnicate")
    assert p.returncode == 2 and "unknown verb" in p.stderr


def test_help_for_the_tool_and_each_verb():
    assert "verbs:" in run("--help", check=0).stdout
    for verb in ("info", "convert", "export", "sample"):
        assert ("usage: zelm " + verb) in run(verb, "--help", check=0).stdout


def test_samples_are_regenerated_byte_for_byte(tmp_path):
    run("sample", str(tmp_path), check=0)
    examples = os.path.join(os.environ.get("ZELM_SOURCE_DIR", "."), "examples")
    for name in sorted(os.listdir(tmp_path)):
        with open(tmp_path / name, "rb") as a, open(os.path.join(examples, name), "rb") as b:
            assert a.read() == b.read(), name


@pytest.mark.parametrize("sample", ["flow2d", "flow3d"])
def test_export_of_the_samples_loads_in_vtk(tmp_path, sample):
    examples = os.path.join(os.environ.get("ZELM_SOURCE_DIR", "."), "examples")
    out = str(tmp_path / (sample + ".dat"))
    run("--quiet", "export", os.path.join(examples, sample + "-grid.unf"), "--pix",
        os.path.join(examples, sample + "-pix.txt"), "-o", out, check=0)
    import vtk

    r = vtk.vtkTecplotReader()
    r.SetFileName(out)
    r.Update()
    data = r.GetOutput()
    names = [data.GetMetaData(b).Get(vtk.vtkCompositeDataSet.NAME()) for b in range(data.GetNumberOfBlocks())]
    if sample == "flow2d":
        assert names[0] == "Zone   1"
        block = data.GetBlock(0)
        assert (block.GetNumberOfPoints(), block.GetNumberOfCells()) == (221, 192)
    else:
        assert names[:2] == ["Tet-Zone   1", "Prism-Zone   1"]
        assert data.GetBlock(0).GetNumberOfCells() == 1152
        assert data.GetBlock(1).GetNumberOfCells() == 384
        # The tetrahedra reach down to the prisms: both zones meet at the interface layer.
        assert abs(data.GetBlock(0).GetBounds()[4] - data.GetBlock(1).GetBounds()[5]) < 0.02
    arrays = [data.GetBlock(0).GetPointData().GetArrayName(i) for i in range(6)]
    assert arrays == ["RHO", "U", "V", "W", "P", "FREE"]


def test_export_refuses_to_overwrite_and_leaves_nothing_half_written(tmp_path):
    examples = os.path.join(os.environ.get("ZELM_SOURCE_DIR", "."), "examples")
    out = tmp_path / "e.dat"
    out.write_text("keep")
    p = run("export", os.path.join(examples, "flow3d-grid.unf"), "-o", str(out))
    assert p.returncode == 1 and "--force" in p.stderr and out.read_text() == "keep"
    p = run("export", os.path.join(examples, "flow3d-grid.unf"), "--pix",
            os.path.join(examples, "flow2d-pix.unf"), "-o", str(tmp_path / "x.dat"))
    assert p.returncode == 1 and "does not fit the grid" in p.stderr
    assert not (tmp_path / "x.dat").exists()


@pytest.mark.parametrize("enc", ENCODINGS)
@pytest.mark.parametrize("prec", PRECISIONS)
def test_restart_files_are_recognised_and_their_variables_counted(samples, tmp_path, enc, prec):
    grid = str(samples / "flow2d-grid.unf")
    r = str(tmp_path / "r")
    run("convert", str(samples / "flow2d-restart.unf"), r, "--encoding", enc, "--precision", prec, "--grid", grid,
        check=0)
    out = run("info", r, "--grid", grid, check=0).stdout
    assert "restart file" in out.splitlines()[0]
    assert field(out, "encoding").startswith(enc)
    assert field(out, "precision") == ("8-byte reals" if prec == "double" else "4-byte reals")
    assert "5 variable(s) of 576 cells in 2 zone(s)" in out
    assert "fits the grid" in out
    back = str(tmp_path / "back")
    run("convert", r, back, "--encoding", "unformatted", "--precision", "single", "--grid", grid, check=0)
    with open(samples / "flow2d-restart.unf", "rb") as a, open(back, "rb") as b:
        assert a.read() == b.read()


def test_restart_file_against_the_wrong_grid(samples):
    p = run("info", str(samples / "flow2d-restart.unf"), "--grid", str(samples / "flow3d-grid.unf"))
    assert p.returncode == 1 and "DOES NOT FIT" in p.stdout
    assert "but zone 1 of the grid has 1,536 cells (6,144 bytes)" in p.stdout
