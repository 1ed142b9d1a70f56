"""Grid, restart and pix files of the zelmgrid solver family, as numpy arrays.

Reading::

    import zelmgrid
    g = zelmgrid.read_grid("grid.unf")          # encoding and precision found from the bytes
    p = zelmgrid.read_pix("pix.unf", g)         # pix and restart files hold no counts: the grid's
    r = zelmgrid.read_restart("restart.unf", g) # zones say how many nodes and cells they have
    g.x            # (nnodes, ndim) float64 coordinates
    p.values       # (nnodes, 6 + free variables) float64

Writing: ``zelmgrid.write_grid(path, g, "unformatted", dblprec=False)`` and likewise
``write_restart`` and ``write_pix``. New objects: ``Grid(ndim, zones, x, npf, ifnode, ifcell)``,
``Restart(cells_per_zone, q)``, ``Pix(nodes_per_zone, values, labels, text)``.

Encodings: "unformatted" (0, records framed by 4-byte lengths, as Fortran's sequential
unformatted files), "formatted" (1, list-directed text) and "binary" (2, the same items without
framing). ``dblprec`` selects 8-byte reals on disk (in text, 17 significant digits instead of 9).

Arrays
------
The arrays are the library's own memory, not copies: ``g.x.base is g``, and a view keeps its
object alive. Each attribute access gives a new view of the same memory. Values may be changed in
place (``g.x[:, 0] += 1.0``) and are written back by the writers; the shapes are fixed for the
object's life (make a new object for other shapes).

The first index is the entity, the second its components, in C order:

===============  ======================  ==========================================
attribute        shape                   contents
===============  ======================  ==========================================
Grid.x           (nnodes, ndim)          coordinates, float64
Grid.npf         (nfaces,)               node count of each face, int32
Grid.ifnode      (nfaces, width)         node numbers of each face (width: largest mnpf; 0 past npf)
Grid.ifcell      (nfaces, 2)             the cells on either side of each face, int32
Restart.q        (ncells, nvar)          cell solution, float64
Pix.values       (nnodes, 6 + nfree)     node solution (six fixed variables, then free ones)
===============  ======================  ==========================================

This is the library's column-major layout (ndim, nnodes) read in C order, hence no copy. Nodes,
faces and cells of zone k follow those of zones 1 .. k-1; node and cell numbers inside ``ifnode``
and ``ifcell`` are as the file holds them. Reals are float64 whatever the precision on disk
(4-byte reals are widened exactly, and rounded to nearest when written in single precision).

Errors
------
Every failure raises ``zelmgrid.Error``: ``ReadError`` when a file's bytes do not hold what was
asked (the message names the file, record, byte offset and cause), ``IOError`` (also an
``OSError``) when the system refuses. Invalid arguments raise ``ValueError`` or ``TypeError``.

Calls hold the GIL: the library keeps its spare I/O buffers per process.
"""
import os
from typing import NamedTuple, Optional

from . import _zelmgrid
from ._zelmgrid import Grid, Pix, Restart, Zone
from .errors import Error, IOError, ReadError

__all__ = [
    "Detection", "Error", "Grid", "IOError", "Pix", "ReadError", "Restart", "Zone", "ENCODINGS",
    "detect", "read_grid", "read_pix", "read_restart", "write_grid", "write_pix", "write_restart",
]

for _cls in (Error, IOError, ReadError, Grid, Pix, Restart, Zone):
    _cls.__module__ = __name__  # shown as zelmgrid.Grid, where users find them

ENCODINGS = ("unformatted", "formatted", "binary")  # index = the library's code


class Detection(NamedTuple):
    """What a file's bytes say it is. Parts that cannot be told are None."""

    kind: Optional[str]  # "grid", "restart" or "pix"
    encoding: Optional[str]  # one of ENCODINGS
    dblprec: Optional[bool]  # 8-byte reals (text: values of more than 9 digits)
    nvar: Optional[int]  # restart variables, when a grid was given
    evidence: list  # why, one line each
    problems: list  # where the file does not fit the grid, one line each


def _code(encoding):
    if isinstance(encoding, str) and encoding in ENCODINGS:
        return ENCODINGS.index(encoding)
    if isinstance(encoding, int) and not isinstance(encoding, bool) and 0 <= encoding < len(ENCODINGS):
        return encoding
    raise ValueError(f"encoding {encoding!r} is not one of {', '.join(ENCODINGS)} (or 0, 1, 2)")


def detect(path, grid=None):
    """Recognise a file from its bytes: kind, encoding, precision and the evidence.

    With ``grid`` (a Grid), restart and pix files are also checked against its zone counts, and a
    restart file's number of variables is found.
    """
    kind, code, dblprec, nvar, evidence, problems = _zelmgrid.detect(os.fspath(path), grid)
    return Detection(kind, None if code is None else ENCODINGS[code], dblprec, nvar, evidence, problems)


def _failure(path, message):
    e = ReadError(message)
    e.file = path
    return e


def _fits(path, d):
    """Refuses a solution file whose records or length do not fit its grid's zone counts."""
    if d.problems:
        raise _failure(path, f'"{path}" does not fit its grid: ' + "; ".join(d.problems))


def _format(path, kind, encoding, dblprec, grid=None):
    """(code, dblprec, detection) to read `path` with: as given, or what its bytes say for the rest.

    The detection is None when both were given (the bytes are not looked at then).
    """
    if encoding is not None and dblprec is not None:
        return _code(encoding), bool(dblprec), None
    d = detect(path, grid)
    if d.kind != kind:
        what = f"a {d.kind} file" if d.kind else "of no kind zelmgrid recognises"
        raise _failure(path, f'"{path}" is {what}, not a {kind} file ({"; ".join(d.evidence)})')
    code = ENCODINGS.index(d.encoding) if encoding is None else _code(encoding)
    if d.encoding != ENCODINGS[code]:
        raise _failure(path, f'"{path}" looks {d.encoding}, not {ENCODINGS[code]}: give dblprec as well '
                             "to read it as the encoding given")
    if dblprec is None and d.dblprec is None:
        raise _failure(path, f'the precision of "{path}" cannot be told from its bytes: give dblprec')
    _fits(path, d)
    return code, d.dblprec if dblprec is None else bool(dblprec), d


def read_grid(path, encoding=None, dblprec=None):
    """Read a grid file into a Grid.

    ``encoding`` ("unformatted", "formatted", "binary" or 0, 1, 2) and ``dblprec`` (8-byte reals)
    are found from the file's bytes when not given.
    """
    path = os.fspath(path)
    code, dbl, _ = _format(path, "grid", encoding, dblprec)
    return _zelmgrid.read_grid(path, code, dbl)


def _zonegrid(grid):
    """A Grid, or the zone counts of the grid file at the path `grid`."""
    if isinstance(grid, Grid):
        return grid
    path = os.fspath(grid)
    code, dbl, _ = _format(path, "grid", None, None)
    return _zelmgrid.read_grid_header(path, code, dbl)


def read_restart(path, grid, nvar=None, encoding=None, dblprec=None):
    """Read a restart file into a Restart.

    Restart files hold no counts: ``grid`` (a Grid, or the path of a grid file, of which only the
    zone counts are read) gives the cells of each zone. ``nvar``, the number of variables, is found
    from the file's length or records when not given, as are ``encoding`` and ``dblprec``.
    """
    path = os.fspath(path)
    g = _zonegrid(grid)
    code, dbl, d = _format(path, "restart", encoding, dblprec, g)
    if nvar is None:
        # text holds values, whatever their digits; raw files hold values of a width
        fits = lambda d: d.nvar is not None and d.encoding == ENCODINGS[code] and (  # noqa: E731
            code == 1 or d.dblprec == dbl)
        if d is None or not fits(d):
            d = detect(path, g)
            _fits(path, d)
        if not fits(d):
            raise _failure(path, f'the number of variables of "{path}" cannot be told from its bytes: give nvar')
        nvar = d.nvar
    return _zelmgrid.read_restart(path, g.cells_per_zone, nvar, code, dbl)


def read_pix(path, grid, encoding=None, dblprec=None):
    """Read a pix file into a Pix.

    Pix files hold no counts: ``grid`` (a Grid, or the path of a grid file, of which only the zone
    counts are read) gives the nodes of each zone. ``encoding`` and ``dblprec`` are found from the
    file's bytes when not given.
    """
    path = os.fspath(path)
    g = _zonegrid(grid)
    code, dbl, _ = _format(path, "pix", encoding, dblprec, g)
    return _zelmgrid.read_pix(path, g.nodes_per_zone, code, dbl)


def write_grid(path, grid, encoding, dblprec):
    """Write a Grid as a grid file in the given encoding and precision."""
    _zelmgrid.write_grid(os.fspath(path), grid, _code(encoding), bool(dblprec))


def write_restart(path, restart, encoding, dblprec):
    """Write a Restart as a restart file, zone by zone as its ``cells_per_zone`` says."""
    _zelmgrid.write_restart(os.fspath(path), restart, _code(encoding), bool(dblprec))


def write_pix(path, pix, encoding, dblprec):
    """Write a Pix as a pix file, zone by zone as its ``nodes_per_zone`` says."""
    _zelmgrid.write_pix(os.fspath(path), pix, _code(encoding), bool(dblprec))
