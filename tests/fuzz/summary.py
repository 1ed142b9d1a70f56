#!/usr/bin/python3
"""Sums up libFuzzer logs: executions, coverage and faults per target, as a Markdown table.

    tests/fuzz/summary.py build/fuzz/logs [MORE_DIRS...]

Every *.log under the directories is one run of one target; the target is the log's name up to
its first '.' or '-' (grid.log, grid-run1.log), or for names starting with a session tag
(session2-restart-found-crash.log) the word after it. A run that was stopped before libFuzzer
printed its final statistics counts the executions of its last status line.
"""
import pathlib
import re
import sys

TARGETS = ("gridheader", "grid", "restart", "pix", "listdirected")


def target_of(name):
    words = re.split(r"[-.]", name)
    for w in words:
        if w in TARGETS:
            return w
    return None


def scan(path):
    execs = 0
    final = None
    cov = ft = corp = None
    faults = []
    for line in path.read_text(errors="replace").splitlines():
        m = re.match(r"#(\d+)\s", line)
        if m:
            execs = int(m.group(1))
        m = re.search(r"cov: (\d+) ft: (\d+) corp: (\d+)", line)
        if m:
            cov, ft, corp = (int(x) for x in m.groups())
        m = re.match(r"stat::number_of_executed_units: (\d+)", line)
        if m:
            final = int(m.group(1))
        m = re.search(r"SUMMARY: (\w+): (\S+)", line)
        if m:
            faults.append(f"{m.group(1)} {m.group(2)}")
        if "ERROR: libFuzzer: timeout" in line:
            faults.append("timeout")
        if "ERROR: libFuzzer: out-of-memory" in line:
            faults.append("out of memory")
    return (final if final is not None else execs), cov, ft, corp, faults


def main():
    if len(sys.argv) < 2:
        sys.exit(__doc__)
    runs = {t: [] for t in TARGETS}
    for d in sys.argv[1:]:
        for p in sorted(pathlib.Path(d).rglob("*.log")):
            t = target_of(p.name)
            if t:
                runs[t].append((p, p.stat().st_mtime, *scan(p)))
    print("| target | runs | executions | edges (cov) | features (ft) | corpus | faults found |")
    print("|---|---|---|---|---|---|---|")
    for t in TARGETS:
        rs = sorted(runs[t], key=lambda r: r[1])
        if not rs:
            continue
        total = sum(r[2] for r in rs)
        last = [r for r in rs if r[3] is not None][-1]
        faults = sum(len(r[6]) for r in rs)
        print(f"| {t} | {len(rs)} | {total:,} | {last[3]} | {last[4]} | {last[5]} | {faults} |")


if __name__ == "__main__":
    main()
