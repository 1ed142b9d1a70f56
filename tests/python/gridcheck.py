#!/usr/bin/python3
"""Reads an "unformatted" grid file with scipy.io.FortranFile and prints it.

Usage: gridcheck.py FILE PREC   (PREC 4 or 8: the width of the coordinates on disk)

The printout, one item per line, reals as the bit patterns of their bytes:
  header NDIM NZONES NGRIDAUX
  zone K NPTSZ NFACESZ NCELLSZ MNPFZ MFPCZ
  node I BITS...
  face F N NODE... CELL1 CELL2
"""
import sys

import numpy as np
from scipy.io import FortranEOFError, FortranFile


def main(path, prec):
    real = np.dtype("<f8") if prec == 8 else np.dtype("<f4")
    bits = np.dtype("<i8") if prec == 8 else np.dtype("<i4")
    out = []
    with FortranFile(path, "r", header_dtype=np.dtype("<u4")) as f:
        ndim, nzones, ngridaux = (int(v) for v in f.read_ints(np.dtype("<i4")))
        out.append(f"header {ndim} {nzones} {ngridaux}")
        counts = f.read_ints(np.dtype("<i4")).reshape(nzones, 5)
        for k, row in enumerate(counts, start=1):
            out.append("zone " + " ".join(str(int(v)) for v in [k, *row]))
        node = face = 0
        for npts, nfaces, *_ in counts:
            for _ in range(npts):
                node += 1
                x = f.read_reals(real)
                if x.size != ndim:
                    raise SystemExit(f"node {node}: {x.size} values, expected {ndim}")
                out.append(f"node {node} " + " ".join(str(int(b)) for b in x.view(bits)))
            for _ in range(nfaces):
                face += 1
                rec = [int(v) for v in f.read_ints(np.dtype("<i4"))]
                n = rec[0]
                if len(rec) != n + 3:
                    raise SystemExit(f"face {face}: {len(rec)} values for {n} nodes")
                out.append(f"face {face} " + " ".join(str(v) for v in rec))
        try:
            f.read_record(np.dtype("<u1"))
        except FortranEOFError:  # nothing follows the last zone
            pass
        else:
            raise SystemExit("data after the last zone")
    print("\n".join(out))


if __name__ == "__main__":
    main(sys.argv[1], int(sys.argv[2]))
