"""The zelm command, driven as a user drives it."""
import fcntl
import os
import pathlib
import pty
import resource
import signal
import stat
import struct
import shutil
import subprocess
import tempfile
import termios
import time
from array import array

import pytest

ZELM = os.path.join(os.environ.get("ZELM_BINARY_DIR", "build/default"), "tools", "zelm")
ENCODINGS = ["unformatted", "binary", "formatted"]
PRECISIONS = ["single", "double"]


def run(*args, check=None, **kw):
    p = subprocess.run([ZELM, *args], capture_output=True, text=True, timeout=120, **kw)
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
    assert "warning:" in p.stderr and "lost precision" in p.stderr
    assert "lost precision" not in p.stdout


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
    assert p.returncode == 2 and "no such file" in p.stderr


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
        os.path.join(examples, sample + "-pix.txt"), "-o", out, "--faithful", check=0)
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
    p = run("export", os.path.join(examples, "flow3d-grid.unf"), "-o", str(out), "--faithful")
    assert p.returncode == 2 and "--force" in p.stderr and out.read_text() == "keep"
    p = run("export", os.path.join(examples, "flow3d-grid.unf"), "-o", str(out))
    assert p.returncode == 2 and "--force" in p.stderr and out.read_text() == "keep"
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


# ---- exit statuses and habits -----------------------------------------------------------------

EXAMPLES = os.path.join(os.environ.get("ZELM_SOURCE_DIR", "."), "examples")


def example(name):
    return os.path.join(EXAMPLES, name)


def leftovers(folder):
    """Temporaries or second names that zelm left in a folder."""
    return [f for f in os.listdir(folder) if ".zelm" in f]


def test_one_exit_status_table_in_the_help_and_the_readme():
    help_text = run("--help", check=0).stdout
    table = help_text[help_text.index("exit status:"):]
    for code in ("0  done", "1  a file is not what was asked", "2  usage or environment"):
        assert code in table
    readme = open(os.path.join(os.environ.get("ZELM_SOURCE_DIR", "."), "README.md")).read()
    assert table.strip() in readme


def test_exit_statuses_follow_the_table(samples, tmp_path):
    notes = tmp_path / "notes.txt"
    notes.write_text("hello\n")
    assert run("info", str(samples / "flow2d-grid.unf")).returncode == 0
    assert run("info", str(notes)).returncode == 1  # not a file of the family
    assert run("info", str(samples / "flow3d-pix.unf"), "--grid", str(samples / "flow2d-grid.unf")).returncode == 1
    assert run("info").returncode == 2  # usage
    assert run("info", str(tmp_path / "nothere")).returncode == 2  # environment
    assert run().returncode == 2
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    p = run("info", str(fifo))  # never opened: a FIFO with no writer would hang a reader
    assert p.returncode == 2 and "not a regular file" in p.stderr


def test_global_options_anywhere_on_the_line(tmp_path):
    out = tmp_path / "e.dat"
    p = run("export", example("flow2d-grid.unf"), "-o", str(out), "--quiet", check=0)
    assert p.stderr == ""
    run("-q", "export", example("flow2d-grid.unf"), "-o", str(out), "--force", check=0)
    assert run("--version", check=0).stdout.startswith("zelm ")
    assert "usage: zelm info" in run("info", "whatever", "-h", check=0).stdout
    assert "usage: zelm convert" in run("-h", "convert", check=0).stdout
    assert "usage: zelm convert" in run("help", "convert", check=0).stdout
    assert "verbs:" in run("help", check=0).stdout
    p = run("help", "frobnicate")
    assert p.returncode == 2 and "unknown verb" in p.stderr


def test_double_dash_ends_the_options(samples, tmp_path):
    odd = tmp_path / "-odd"
    odd.write_bytes((samples / "flow2d-grid.unf").read_bytes())
    p = run("info", "-odd", cwd=tmp_path)
    assert p.returncode == 2 and "unknown option -odd" in p.stderr
    p = run("info", "--", "-odd", cwd=tmp_path, check=0)
    assert "grid file" in p.stdout


def test_a_missing_option_value_is_named_as_missing(samples, tmp_path):
    grid = str(samples / "flow2d-grid.unf")
    for args in (["convert", grid, str(tmp_path / "o"), "--encoding"],
                 ["convert", grid, str(tmp_path / "o"), "--encoding", "--precision", "double"],
                 ["export", grid, "-o"]):
        p = run(*args)
        assert p.returncode == 2 and "is missing its value" in p.stderr, args
    assert not os.path.exists(tmp_path / "o")


def test_library_lines_only_with_verbose_and_never_on_standard_output(tmp_path):
    out = tmp_path / "e.dat"
    p = run("export", example("flow3d-grid.unf"), "-o", str(out), "--faithful", check=0)
    assert p.stdout.splitlines() == ["wrote %s (zone 1: 567 nodes, 1536 cells)" % out]
    # only the warning that --faithful 3D files are not well-formed Tecplot
    assert p.stderr.startswith("zelm: warning: --faithful 3D") and len(p.stderr.splitlines()) == 1
    p = run("-v", "export", example("flow3d-grid.unf"), "-o", str(out), "--faithful", "--force", check=0)
    assert p.stdout.splitlines() == ["wrote %s (zone 1: 567 nodes, 1536 cells)" % out]
    assert "Writing to Tecplot file" in p.stderr


def test_notes_go_to_standard_error_and_quiet_leaves_them_out(tmp_path):
    out = tmp_path / "e.dat"
    p = run("export", example("flow2d-grid.unf"), "--pix", example("flow2d-pix.unf"), "-o", str(out), "--faithful", check=0)
    assert "free variable(s) are not exported" in p.stderr and "free variable" not in p.stdout
    p = run("export", example("flow2d-grid.unf"), "--pix", example("flow2d-pix.unf"), "-o", str(out), "--faithful", "--force",
            "-q", check=0)
    assert p.stderr == ""


def test_convert_keeps_the_source_encoding_and_precision_and_says_so(variants, tmp_path):
    for (enc, prec), (g, _) in variants.items():
        out = tmp_path / ("same-" + enc + prec)
        p = run("convert", g, "-o", str(out), check=0)
        assert "the source's encoding %s and precision %s" % (enc, prec) in p.stderr
        assert out.read_bytes() == open(g, "rb").read(), (enc, prec)
    g, _ = variants[("unformatted", "single")]
    p = run("convert", g, str(tmp_path / "d"), "--precision", "double", check=0)
    assert "the source's encoding unformatted (" in p.stderr
    p = run("convert", g, str(tmp_path / "e"), "-o", str(tmp_path / "f"))
    assert p.returncode == 2 and "only an input and an output" in p.stderr


def test_export_with_a_second_file_suggests_o(tmp_path):
    p = run("export", example("flow2d-grid.unf"), str(tmp_path / "e.dat"))
    assert p.returncode == 2 and "-o " + str(tmp_path / "e.dat") in p.stderr
    assert not (tmp_path / "e.dat").exists()


def test_sample_refuses_to_overwrite_changed_files_without_force(tmp_path):
    run("sample", str(tmp_path), check=0)
    p = run("sample", str(tmp_path), check=0)  # the same bytes: nothing to refuse
    assert all(line.startswith("unchanged ") for line in p.stdout.splitlines())
    changed = tmp_path / "flow3d-pix.txt"
    changed.write_text("my own notes\n")
    before = {f: (tmp_path / f).read_bytes() for f in os.listdir(tmp_path)}
    p = run("sample", str(tmp_path))
    assert p.returncode == 2 and "flow3d-pix.txt" in p.stderr and "--force" in p.stderr
    assert {f: (tmp_path / f).read_bytes() for f in os.listdir(tmp_path)} == before
    run("sample", str(tmp_path), "--force", check=0)
    assert changed.read_text() != "my own notes\n"
    assert not leftovers(tmp_path)


def test_standard_output_that_cannot_be_written_is_a_failure(samples):
    with open("/dev/full", "w") as full:
        p = subprocess.run([ZELM, "info", str(samples / "flow2d-grid.unf")], stdout=full, stderr=subprocess.PIPE,
                           text=True, timeout=60)
    assert p.returncode == 2 and "standard output" in p.stderr


# ---- outputs that are never half-written and never anyone else's -------------------------------


@pytest.fixture(scope="module")
def biggrid(tmp_path_factory):
    """An unframed grid of a million nodes (24 MB): its text conversion takes long enough to be
    interrupted while it is written."""
    path = tmp_path_factory.mktemp("big") / "big.bin"
    n = 1000000
    coords = array("d", (((i * 7919) % 10007) / 10007.0 for i in range(3 * n)))
    path.write_bytes(struct.pack("<8i", 3, 1, 0, n, 0, 0, 0, 0) + coords.tobytes())
    return path


def as_nobody():
    os.setgid(65534)
    os.setgroups([])
    os.setuid(65534)


def test_an_unwritable_folder_leaves_the_old_output(samples):
    # root writes anywhere: the command then runs as nobody, for whom the folder is read-only (in a
    # folder of /tmp, which nobody can reach)
    kw = {"preexec_fn": as_nobody} if os.geteuid() == 0 else {}
    folder = pathlib.Path(tempfile.mkdtemp(prefix="zelm-ro-"))
    try:
        grid = folder / "grid"
        grid.write_bytes((samples / "flow2d-grid.unf").read_bytes())
        out = folder / "g.bin"
        out.write_bytes(b"old output")
        folder.chmod(0o555)
        p = run("convert", str(grid), str(out), "--encoding", "binary", "--force", **kw)
        assert p.returncode == 2 and "cannot write" in p.stderr and "Permission denied" in p.stderr
        assert out.read_bytes() == b"old output"
        assert not leftovers(folder)
    finally:
        folder.chmod(0o755)
        shutil.rmtree(folder)


def test_only_regular_files_are_replaced_even_with_force(samples, tmp_path):
    grid = str(samples / "flow2d-grid.unf")
    p = run("convert", grid, "/dev/null", "--encoding", "binary", "--force")
    assert p.returncode == 2 and "not a regular file (a device)" in p.stderr
    assert stat.S_ISCHR(os.stat("/dev/null").st_mode)
    fifo = tmp_path / "fifo"
    os.mkfifo(fifo)
    p = run("convert", grid, str(fifo), "--encoding", "binary", "--force")
    assert p.returncode == 2 and "(a FIFO)" in p.stderr and stat.S_ISFIFO(os.lstat(fifo).st_mode)
    folder = tmp_path / "folder"
    folder.mkdir()
    p = run("convert", grid, str(folder), "--encoding", "binary", "--force")
    assert p.returncode == 2 and "(a folder)" in p.stderr and folder.is_dir()
    assert not leftovers(tmp_path)


def test_a_symbolic_link_at_the_destination_is_refused(samples, tmp_path):
    target = tmp_path / "target"
    target.write_bytes(b"the link's target")
    link = tmp_path / "link"
    link.symlink_to(target)
    for force in ([], ["--force"]):
        p = run("convert", str(samples / "flow2d-grid.unf"), str(link), "--encoding", "binary", *force)
        assert p.returncode == 2 and "is a symbolic link" in p.stderr
        assert os.readlink(link) == str(target) and target.read_bytes() == b"the link's target"
    assert not leftovers(tmp_path)


def wait_for_writing(folder, proc):
    """Waits until zelm has begun writing its temporary in `folder`."""
    deadline = time.monotonic() + 60
    while time.monotonic() < deadline and proc.poll() is None:
        for f in leftovers(folder):
            try:
                if os.path.getsize(folder / f) > 0:
                    return
            except FileNotFoundError:
                pass
        time.sleep(0.005)
    pytest.fail("zelm never began writing")


@pytest.mark.parametrize("sig", [signal.SIGTERM, signal.SIGINT])
def test_a_signal_mid_write_leaves_the_old_output_and_no_temporary(biggrid, tmp_path, sig):
    out = tmp_path / "big.txt"
    out.write_text("old output")
    proc = subprocess.Popen([ZELM, "convert", str(biggrid), str(out), "--encoding", "formatted", "--force"],
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        wait_for_writing(tmp_path, proc)
        proc.send_signal(sig)
        assert proc.wait(timeout=60) == -sig
    finally:
        proc.kill()
        proc.wait()
    assert out.read_text() == "old output"
    assert not leftovers(tmp_path)


def file_size_limit(limit):
    return lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (limit, limit))


def test_the_file_size_limit_leaves_the_old_output_and_no_temporary(biggrid, tmp_path):
    out = tmp_path / "big.txt"
    out.write_text("old output")
    p = run("convert", str(biggrid), str(out), "--encoding", "formatted", "--force",
            preexec_fn=file_size_limit(1 << 20))
    assert p.returncode == 2 and "ulimit -f" in p.stderr and p.stderr.count("\n") == 1
    assert out.read_text() == "old output"
    assert not leftovers(tmp_path)


def test_an_export_replaces_all_its_files_or_none(tmp_path):
    grid = example("flow2d-grid.unf")
    first, second = tmp_path / "e.dat", tmp_path / "e-zone2.dat"
    run("export", grid, "-o", str(first), "--faithful", check=0)
    sizes = first.stat().st_size, second.stat().st_size
    assert sizes[0] < sizes[1]
    first.write_text("old zone 1")
    second.write_text("old zone 2")
    # zone 1 fits under the limit, zone 2 does not
    p = run("export", grid, "-o", str(first), "--faithful", "--force", preexec_fn=file_size_limit(sum(sizes) // 2))
    assert p.returncode == 2 and "e-zone2.dat" in p.stderr
    assert first.read_text() == "old zone 1" and second.read_text() == "old zone 2"
    assert not leftovers(tmp_path)
    # zone 2's destination cannot be replaced: zone 1 is not replaced either
    second.unlink()
    second.mkdir()
    p = run("export", grid, "-o", str(first), "--faithful", "--force")
    assert p.returncode == 2 and "e-zone2.dat" in p.stderr
    assert first.read_text() == "old zone 1" and second.is_dir()
    assert not leftovers(tmp_path)


def test_a_progress_line_on_a_terminal_erases_itself(biggrid, tmp_path):
    master, slave = pty.openpty()
    fcntl.ioctl(slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 300, 0, 0))
    try:
        proc = subprocess.Popen([ZELM, "convert", str(biggrid), str(tmp_path / "t"), "--encoding", "formatted"],
                                stdout=subprocess.DEVNULL, stderr=slave)
        # held up mid-write, so that the work lasts long enough for a line on any machine
        wait_for_writing(tmp_path, proc)
        proc.send_signal(signal.SIGSTOP)
        time.sleep(0.5)
        proc.send_signal(signal.SIGCONT)
        returncode = proc.wait(timeout=120)
        os.close(slave)
        seen = b""
        while True:
            try:
                chunk = os.read(master, 65536)
            except OSError:
                break
            if not chunk:
                break
            seen += chunk
    finally:
        os.close(master)
    assert returncode == 0
    text = seen.decode()
    assert "writing " + str(tmp_path / "t") in text and "MB/s" in text
    # the last progress line is erased before the note that follows it
    assert text.rindex("\r\x1b[K") > text.rindex("MB/s")
    p = run("convert", str(biggrid), str(tmp_path / "u"), "--encoding", "formatted", check=0)
    assert "MB/s" not in p.stderr  # not a terminal: no progress line


TRIANGLE = "0 0\n1 0\n0 1\n2 1 2 1 -1\n2 2 3 1 -1\n2 3 %s 1 -1\n"


@pytest.mark.parametrize("counts, third, message", [
    ("3 3 2147483647 2 3", "1", "Tecplot export: zone 1 claims 2147483647 cells, but its 3 faces border at most 6"),
    ("3 3 1 2 2147483647", "1",
     "Tecplot export: zone 1 claims cells of up to 2147483647 faces (mfpcz), but it has 3 faces"),
    ("3 3 1 2 3", "100", "zone 1 refers to 1 node, face or cell number(s) outside the grid: not exported"),
])
def test_export_of_a_hostile_or_inconsistent_grid_is_refused_at_once(tmp_path, counts, third, message):
    grid = tmp_path / "g.txt"
    grid.write_text("2 1 0\n" + counts + "\n" + TRIANGLE % third)
    scratch = tmp_path / "tmp"
    scratch.mkdir()
    env = dict(os.environ, TMPDIR=str(scratch))
    start = time.monotonic()
    p = subprocess.run([ZELM, "--quiet", "export", str(grid), "-o", str(tmp_path / "o.dat"), "--faithful"],
                       capture_output=True, text=True, timeout=30, env=env)
    assert time.monotonic() - start < 1.0
    assert p.returncode == 1
    assert p.stderr == "zelm: " + message + "\n"
    assert sorted(os.listdir(tmp_path)) == ["g.txt", "tmp"]
    assert os.listdir(scratch) == []


def test_export_writes_no_temporary_file_outside_the_output_folder(tmp_path):
    examples = os.path.join(os.environ.get("ZELM_SOURCE_DIR", "."), "examples")
    scratch = tmp_path / "tmp"
    scratch.mkdir()
    out = tmp_path / "out"
    out.mkdir()
    env = dict(os.environ, TMPDIR=str(scratch))
    p = subprocess.run([ZELM, "--quiet", "export", os.path.join(examples, "flow2d-grid.unf"), "-o",
                        str(out / "a long output name with blanks, longer than forty characters.dat"), "--faithful"],
                       capture_output=True, text=True, timeout=120, env=env)
    assert p.returncode == 0, p.stderr
    assert os.listdir(scratch) == []
    assert sorted(os.listdir(out)) == ["a long output name with blanks, longer than forty characters-zone2.dat",
                                       "a long output name with blanks, longer than forty characters.dat"]


# ---- check and diff ----------------------------------------------------------------------------

import json


@pytest.mark.parametrize("sample", ["flow2d", "flow3d"])
def test_check_passes_the_samples_with_their_solutions(samples, sample):
    g, p, r = (str(samples / ("%s-%s.unf" % (sample, k))) for k in ("grid", "pix", "restart"))
    out = run("check", g, "--pix", p, "--restart", r, check=0).stdout
    assert out.rstrip().splitlines()[-1] == "grid OK"
    report = json.loads(run("check", g, "--pix", p, "--json", check=0).stdout)
    assert report["ok"] and report["failed"] == 0
    assert [s["title"].split(":")[0] for s in report["sections"]][:2] == ["file", "zone 1"]


def test_check_names_a_truncated_grid_as_truncated(samples, tmp_path):
    data = (samples / "flow3d-grid.unf").read_bytes()
    cut = tmp_path / "cut.unf"
    cut.write_bytes(data[:20000])
    p = run("check", str(cut), check=1)
    assert "truncated" in p.stdout and "ends at byte 20,000" in p.stdout
    assert p.stdout.rstrip().endswith("1 check failed")


def test_check_fails_a_pix_file_with_a_negative_density(samples, tmp_path):
    g = str(samples / "flow2d-grid.unf")
    p = tmp_path / "neg.bin"
    run("convert", str(samples / "flow2d-pix.unf"), str(p), "--encoding", "binary", "--grid", g, check=0)
    data = bytearray(p.read_bytes())
    data[6 * 4 + 25: 6 * 4 + 29] = struct.pack("<f", -1.0)  # density of node 1
    p.write_bytes(bytes(data))
    report = json.loads(run("check", g, "--pix", str(p), "--json", check=1).stdout)
    bad = [c for s in report["sections"] for c in s["checks"] if not c["ok"]]
    assert [c["name"] for c in bad] == ["density positive"]
    assert bad[0]["where"][0].startswith("variable 1 (RHO) at zone 1 node 1")
    # another variable as density: the check moves with it
    assert run("check", g, "--pix", str(p), "--density", "2", check=0).returncode == 0


def test_check_exit_statuses(samples, tmp_path):
    run("check", str(tmp_path / "missing"), check=2)
    run("check", check=2)
    junk = tmp_path / "junk"
    junk.write_bytes(b"\x01\x02\x03" * 100)
    run("check", str(junk), check=1)
    run("check", str(samples / "flow2d-grid.unf"), "--density", "x", check=2)


def test_diff_sees_through_encodings_and_precisions(variants):
    (g1, p1), (g2, p2) = variants[("unformatted", "single")], variants[("formatted", "double")]
    (g3, p3) = variants[("binary", "single")]
    assert run("diff", g1, g2, check=0).stdout.rstrip().endswith("files equal within tolerance")
    report = json.loads(run("diff", p1, p2, "--grid", g1, "--json", check=0).stdout)
    ulps = [r["max"] for s in report["sections"] for r in s["ranges"] if "ULPs" in r["name"]]
    assert ulps and max(ulps) == 0
    assert run("diff", p1, p3, "--grid", g1, "-q", check=0).stdout == ""


def test_diff_finds_one_changed_value_at_its_place(samples, tmp_path):
    g = str(samples / "flow2d-grid.unf")
    a = tmp_path / "a.bin"
    run("convert", str(samples / "flow2d-pix.unf"), str(a), "--encoding", "binary", "--grid", g, check=0)
    data = bytearray(a.read_bytes())
    nodes = 442
    at = 6 * 4 + 25 + (2 * nodes + 9) * 4  # variable 3, node 10 of zone 1
    value = struct.unpack("<f", data[at:at + 4])[0]
    data[at:at + 4] = struct.pack("<f", value + 0.5)
    b = tmp_path / "b.bin"
    b.write_bytes(bytes(data))
    p = run("diff", str(a), str(b), "--grid", g, "--atol", "1e-6", check=1)
    assert "variable 3 (V) within tolerance: 1" in p.stdout
    assert "zone 1 node 10 at (" in p.stdout
    assert p.stdout.rstrip().endswith("1 check failed")
    assert run("diff", str(a), str(b), "--grid", g, "-q", check=1).stdout == ""
    assert run("diff", str(a), str(b), "--grid", g, "--atol", "0.6", check=0)


def test_diff_exit_status_2_when_it_cannot_compare(samples, tmp_path):
    g, p = str(samples / "flow2d-grid.unf"), str(samples / "flow2d-pix.unf")
    assert "a pix file" in run("diff", g, p, "--grid", g, check=2).stderr
    run("diff", p, p, check=2)  # pix files need their grid
    run("diff", g, str(tmp_path / "missing"), check=2)
    run("diff", g, g, "--atol", "-1", check=2)


def test_info_bounding_box_stats_and_json(samples):
    g, p = str(samples / "flow2d-grid.unf"), str(samples / "flow2d-pix.unf")
    out = run("info", g, check=0).stdout
    assert "x from 0 to" in out and "y from 0 to 0.75" in out
    info = json.loads(run("info", g, "--json", check=0).stdout)
    assert info["kind"] == "grid" and info["realbytes"] == 4 and len(info["zones"]) == 2
    assert [b["name"] for b in info["boundingbox"]] == ["x", "y"]
    stats = json.loads(run("info", p, "--grid", g, "--stats", "--json", check=0).stdout)["stats"]
    assert len(stats) == 7 and 0.8 <= stats[0]["min"] < stats[0]["max"] <= 1.0
