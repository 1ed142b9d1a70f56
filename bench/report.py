#!/usr/bin/python3
"""Turns the samples of a zelmbench run (its --json file) into bench/RESULTS.md.

    bench/report.py RESULTS.json [ANALYSIS.md] > bench/RESULTS.md

Every figure is the median of the run's samples; the spread is (max - min) / median. Ratios are
taken between medians measured in the same run. ANALYSIS.md, written by hand after a run, is
placed after the summary: it explains the targets that the run missed.
"""
import json
import os
import platform
import statistics
import subprocess
import sys

MB = 1e6

# The targets, each a function of one measurement group that returns (ratio, limit, better) with
# better "higher" (the ratio must reach the limit) or "lower" (it must stay within it).
READ_VS_FORTRAN = 10.0
WRITE_VS_FORTRAN = 4.0
TECPLOT_VS_FORTRAN = 4.0
TECPLOT_VS_MESHIO = 15.0
BINARY_READ_VS_FLOOR = 3.0
PEAK_VS_MUSTHOLD = 1.2


def median(xs):
    return statistics.median(xs) if xs else float("nan")


def spread(xs):
    m = median(xs)
    return (max(xs) - min(xs)) / m if xs and m > 0 else 0.0


def command(*args):
    try:
        return subprocess.run(args, capture_output=True, text=True, check=False).stdout.strip()
    except OSError:
        return ""


def readfile(path):
    try:
        with open(path) as f:
            return f.read().strip()
    except OSError:
        return "(not readable)"


def machine():
    cpu = "unknown"
    for line in readfile("/proc/cpuinfo").splitlines():
        if line.startswith("model name"):
            cpu = line.split(":", 1)[1].strip()
            break
    mem = "unknown"
    for line in readfile("/proc/meminfo").splitlines():
        if line.startswith("MemTotal"):
            mem = f"{int(line.split()[1]) / 1024 / 1024:.1f} GiB"
    gxx = command("g++", "--version").splitlines()[:1]
    gfc = command("gfortran", "--version").splitlines()[:1]
    meshio = command("/usr/bin/python3", "-c", "import meshio; print(meshio.__version__)")
    commit = command("git", "rev-parse", "--short", "HEAD")
    return [
        ("CPU", f"{cpu}, {os.cpu_count()} logical cores"),
        ("memory", mem),
        ("kernel", platform.release()),
        ("transparent huge pages: enabled",
         readfile("/sys/kernel/mm/transparent_hugepage/enabled")),
        ("transparent huge pages: defrag", readfile("/sys/kernel/mm/transparent_hugepage/defrag")),
        ("C++ compiler", gxx[0] if gxx else "unknown"),
        ("Fortran compiler (baseline)", gfc[0] if gfc else "unknown"),
        ("meshio", meshio or "not installed"),
        ("commit when the report was made", commit or "unknown"),
    ]


def groups(rows):
    """Rows grouped by measurement: (name, enc, prec) -> {impl: row}, in the run's order."""
    out = {}
    for r in rows:
        key = (r["name"], r["enc"], r["prec"])
        out.setdefault(key, {})[r["impl"]] = r
    return out


def walls(r):
    return [s["wall"] for s in r["samples"] if s["ok"]] if r else []


def wall(r):
    return median(walls(r))


def peakmb(r):
    if not r or not r["samples"]:
        return float("nan")
    return median([(s["peakkb"] - s["basekb"]) * 1024 / MB for s in r["samples"]])


def ratio(a, b):
    return a / b if a and b and a == a and b == b and b > 0 else float("nan")


def fmt(x, digits=2):
    if x != x:
        return "-"
    if x >= 100:
        return f"{x:.0f}"
    return f"{x:.{digits}f}"


def seconds(x):
    if x != x:
        return "-"
    if x < 1e-3:
        return f"{x * 1e6:.0f} µs"
    if x < 1:
        return f"{x * 1e3:.1f} ms"
    return f"{x:.2f} s"


def label(key):
    name, enc, prec = key
    return f"`{name}`", enc if enc != "-" else "", str(prec) if prec else ""


def timecells(ours, fortran, floor, nbytes):
    """The cells that readers and writers share: the library's time, spread, throughput (nbytes a
    call), the Fortran path and the floor with their ratios."""
    w = wall(ours)
    f = wall(fortran)
    fl = wall(floor)
    return (f"{seconds(w)} | {spread(walls(ours)) * 100:.0f}% | {fmt(nbytes / MB / w, 0)} "
            f"| {fmt(ours['records'] / w, 0)} | {seconds(f)} | {fmt(ratio(f, w))} | {seconds(fl)} | {fmt(ratio(w, fl))}")


def isreader(name):
    return name.startswith("read")


def targets(g, meshio_write):
    """(target, measurement, figure, limit, met) for every target that the run can judge."""
    out = []
    for key, impls in g.items():
        name, enc, prec = key
        ours = impls.get("zelmgrid")
        if not ours or not walls(ours):
            continue
        what = " ".join(x for x in (name, enc, str(prec) if prec else "") if x)
        fortran = impls.get("fortran")
        if fortran and walls(fortran):
            r = ratio(wall(fortran), wall(ours))
            if name == "writetecplotfile":
                out.append(("Tecplot export vs Fortran path", what, r, TECPLOT_VS_FORTRAN, r >= TECPLOT_VS_FORTRAN))
            elif isreader(name):
                out.append(("reader vs Fortran path", what, r, READ_VS_FORTRAN, r >= READ_VS_FORTRAN))
            else:
                out.append(("writer vs Fortran path", what, r, WRITE_VS_FORTRAN, r >= WRITE_VS_FORTRAN))
        if name == "writetecplotfile" and meshio_write:
            r = ratio(meshio_write, wall(ours))
            out.append(("Tecplot export vs meshio", what, r, TECPLOT_VS_MESHIO, r >= TECPLOT_VS_MESHIO))
        floor = impls.get("floor")
        if name.startswith("readzelmgrid/") and enc == "binary" and floor and walls(floor):
            r = ratio(wall(ours), wall(floor))
            out.append(("binary grid read vs floor", what, r, BINARY_READ_VS_FLOOR, r <= BINARY_READ_VS_FLOOR))
        if ours.get("musthold", 0) >= 1 << 20:  # below a MiB, fixed buffers decide the ratio
            r = ratio(peakmb(ours), ours["musthold"] / MB)
            out.append(("peak memory vs arrays held", what, r, PEAK_VS_MUSTHOLD, r <= PEAK_VS_MUSTHOLD))
    return out


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    with open(sys.argv[1]) as f:
        d = json.load(f)
    analysis = readfile(sys.argv[2]) if len(sys.argv) > 2 and os.path.exists(sys.argv[2]) else ""
    g = groups(d["rows"])
    meshio = {k[0][len("meshio/"):]: v["meshio"] for k, v in g.items() if k[0].startswith("meshio/")}
    meshio_write = wall(meshio["tecplot-write"]) if "tecplot-write" in meshio else None

    p = print
    p("# Benchmark results")
    p()
    p("Generated by `bench/run.sh` (the driver `bench/driver.cpp`, its Fortran-runtime baseline")
    p("`bench/fortranpath.f90`, meshio's path `bench/meshio_path.py`, and this report `bench/report.py`).")
    p("Do not edit by hand: rerun `bench/run.sh`, and edit `bench/analysis.md` for the notes.")
    p()
    p(f"Run of {d['date']}, {d['seconds']:.0f} s in all: a {d['shape']} grid ({d['ndim']}D), "
      f"{d['zones']} zone(s), {d['cells']:,} cells, {d['nodes']:,} nodes, {d['faces']:,} faces; restart files "
      f"of {d['nvar']} variables, pix files of 6 + {d['nfree']} variables. Medians of {d['runs']} runs of the "
      f"library, {d['fortran_runs']} of the Fortran path, {d['meshio_runs']} of meshio; each run in a fresh "
      f"process.")
    p()
    p("| machine | |")
    p("|---|---|")
    for k, v in machine():
        p(f"| {k} | {v} |")
    p()
    p("To reproduce: `bench/run.sh` (one million cells), or `bench/run.sh 100000 --runs 3` for a quicker")
    p("look; `build/release/bench/zelmbench --help` for every option.")
    p()

    t = targets(g, meshio_write)
    p("## Targets")
    p()
    p("| target | limit | met | missed | worst (measurement: figure) |")
    p("|---|---|---|---|---|")
    kinds = []
    for x in t:
        if x[0] not in kinds:
            kinds.append(x[0])
    for kind in kinds:
        xs = [x for x in t if x[0] == kind]
        lower = kind.endswith("floor") or kind.startswith("peak")
        worst = max(xs, key=lambda x: x[2]) if lower else min(xs, key=lambda x: x[2])
        limit = f"≤ {xs[0][3]:g}x" if lower else f"≥ {xs[0][3]:g}x"
        met = sum(1 for x in xs if x[4])
        p(f"| {kind} | {limit} | {met} | {len(xs) - met} | {worst[1]}: {fmt(worst[2])}x |")
    p()
    if analysis:
        p(analysis)
        p()

    p("## Every target, measurement by measurement")
    p()
    p("| target | measurement | figure | limit | |")
    p("|---|---|---|---|---|")
    for kind, what, r, limit, ok in t:
        lower = kind.endswith("floor") or kind.startswith("peak")
        p(f"| {kind} | {what} | {fmt(r)}x | {'≤' if lower else '≥'} {limit:g}x | {'met' if ok else '**missed**'} |")
    p()

    p("## Readers")
    p()
    p("Time of one call into arrays the routine allocates itself (huge pages on), its throughput (MB of")
    p("arrays filled a second; records are those of the file that the call reads), the")
    p("Fortran path's time and the ratio (Fortran / library), the floor (`read(2)` of the same bytes into a")
    p("reused buffer plus first touch of arrays of the same sizes) and the ratio (library / floor), the")
    p("library with huge pages switched off (`fortran::hugepages = false`) and the gain huge pages give,")
    p("and the peak memory above the start against the arrays the routine must hold.")
    p()
    p("| routine | encoding | real bytes | library | spread | MB/s | records/s | Fortran path | x Fortran "
      "| floor | / floor | 4 KiB pages | huge-page gain | peak MB | must hold MB | peak / must hold |")
    p("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    for key, impls in g.items():
        ours = impls.get("zelmgrid")
        if not isreader(key[0]) or not ours:
            continue
        n, e, pr = label(key)
        if not walls(ours):
            p(f"| {n} | {e} | {pr} | {ours.get('note') or 'failed'} |" + " |" * 12)
            continue
        w = wall(ours)
        w4 = wall(impls.get("zelmgrid-4k"))
        mh = ours["musthold"] / MB
        p(f"| {n} | {e} | {pr} | {timecells(ours, impls.get('fortran'), impls.get('floor'), ours['musthold'])} "
          f"| {seconds(w4)} | {fmt(ratio(w4, w))} | {fmt(peakmb(ours), 1)} | {fmt(mh, 1)} "
          f"| {fmt(ratio(peakmb(ours), mh)) if mh >= 1 else '-'} |")
    p()

    p("## Writers")
    p()
    p("Time of one call, throughput (MB of file a second), the Fortran path writing the same records (and whether its file")
    p("agrees with the library's), and the floor: `write(2)` of the same bytes for the unformatted and")
    p("binary encodings, `std::to_chars` of the same numbers for text. \"must hold\" counts the temporaries")
    p("a writer is described to use (the 8-byte copy of a file of 8-byte reals).")
    p()
    p("| routine | encoding | real bytes | library | spread | MB/s | records/s | Fortran path | x Fortran "
      "| floor | / floor | peak MB | must hold MB | Fortran's file |")
    p("|---|---|---|---|---|---|---|---|---|---|---|---|---|---|")
    for key, impls in g.items():
        ours = impls.get("zelmgrid")
        if isreader(key[0]) or key[0].startswith(("harness", "meshio")) or not ours:
            continue
        n, e, pr = label(key)
        fo = impls.get("fortran")
        mh = ours["musthold"] / MB
        p(f"| {n} | {e} | {pr} | {timecells(ours, fo, impls.get('write2') or impls.get('tochars'), ours['bytes'])} "
          f"| {fmt(peakmb(ours), 1)} | {fmt(mh, 1)} | {fo['note'] if fo else ''} |")
    p()

    if meshio:
        p("## meshio")
        p()
        p("meshio (Debian's python3-meshio) on the same mesh and the six node variables, from arrays in")
        p("memory to a file and back.")
        p()
        ours = g.get(("writetecplotfile", "-", 0), {}).get("zelmgrid")
        p("| operation | time | spread | file MB | peak MB above start | `writetecplotfile` is faster by |")
        p("|---|---|---|---|---|---|")
        for what, r in meshio.items():
            rel = fmt(ratio(wall(r), wall(ours))) + "x" if what == "tecplot-write" and ours else ""
            p(f"| {what} | {seconds(wall(r))} | {spread(walls(r)) * 100:.0f}% | {fmt(r['bytes'] / MB, 1)} "
              f"| {fmt(median([s['peakkb'] * 1024 / MB for s in r['samples']]), 1)} | {rel} |")
        p()

    empty = g.get(("harness/empty", "-", 0), {}).get("zelmgrid")
    if empty:
        p(f"The harness alone (a child with no call in its timed part) measures {seconds(wall(empty))}.")


if __name__ == "__main__":
    main()
