"""What the package's tests share: the C++ typed interface's reading of a file (typedref), the
gfortran reference programs, the zelm command and the bundled samples."""
import os
import subprocess

import numpy as np
import pytest

SOURCE = os.environ.get("ZELM_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))
EXAMPLES = os.path.join(SOURCE, "examples")
FORTRAN = os.environ.get("ZELM_FORTRAN_DIR", "")
TYPEDREF = os.environ["ZELM_TYPEDREF"]
ZELM = os.environ.get("ZELM_TOOL", "")
ENCODINGS = ["unformatted", "binary", "formatted"]
CODE = {"unformatted": 0, "formatted": 1, "binary": 2}


def typed(kind, path, enc, dbl, *grid, nvar=None):
    """What the C++ typed interface reads from `path`, as {name: value}. Arrays come as the farray's
    memory read in C order: (n2, n1) for a farray (n1, n2)."""
    args = [TYPEDREF, kind, str(path), str(CODE[enc]), str(int(dbl))]
    if kind == "restart":
        args.append(str(nvar))
    if grid:
        gpath, genc, gdbl = grid
        args += [str(gpath), str(CODE[genc]), str(int(gdbl))]
    out = subprocess.run(args, capture_output=True, timeout=120, check=True).stdout
    items, pos = {}, 0
    while pos < len(out):
        end = out.index(b"\n", pos)
        tag, name, *rest = out[pos:end].decode().split()
        pos = end + 1
        if tag == "num":
            items[name] = float.fromhex(rest[0])
        elif tag == "str":
            n = int(rest[0])
            items.setdefault(name + "s", []).append(out[pos:pos + n].decode())
            pos += n
        else:
            dtype, extents = np.dtype(rest[0]), [int(n) for n in rest[1:]]
            nbytes = int(np.prod(extents)) * dtype.itemsize
            items[name] = np.frombuffer(out[pos:pos + nbytes], dtype).reshape(extents[::-1])
            pos += nbytes
    return items


def fortran(program, *args):
    """Runs a gfortran reference program of tests/fortran."""
    if not FORTRAN:
        pytest.skip("no Fortran compiler: the gfortran references were not built")
    subprocess.run([os.path.join(FORTRAN, "fortran_" + program), *map(str, args)], check=True,
                   capture_output=True, timeout=120)


def zelm(*args):
    if not ZELM:
        pytest.skip("the zelm command was not built")
    subprocess.run([ZELM, "--quiet", *map(str, args)], check=True, capture_output=True, timeout=120)


def sample(name):
    return os.path.join(EXAMPLES, name)


def resident_bytes():
    """The process's resident memory."""
    with open("/proc/self/statm") as f:
        return int(f.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")
