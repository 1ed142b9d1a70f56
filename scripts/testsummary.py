#!/usr/bin/env python3
"""Sums up the test run: for each preset's CTest JUnit file, the tests run, passed, failed and
skipped (with the reason each skipped test gave), then the presets that did not run at all.

    testsummary.py build/test-summary    (a folder of PRESET.xml files and PRESET.skipped notes)
"""
import os
import re
import sys
import xml.etree.ElementTree as ET


def reason(case):
    """Why a test was skipped: the test's own words when it printed any."""
    out = "".join((c.text or "") for c in case if c.tag == "system-out")
    # GoogleTest: "file:line: Skipped" then the reason; pytest: "SKIPPED [n] file:line: reason"
    m = re.search(r": Skipped\n(.+)", out) or re.search(r"SKIPPED \[\d+\] [^:]+:\d+: (.+)", out)
    if m:
        return m.group(1).strip()
    for c in case:
        if c.tag == "skipped" and c.get("message"):
            return c.get("message")
    return "no reason given"


def main(folder):
    failed_any = False
    print("== summary ==")
    for name in sorted(os.listdir(folder)):
        path = os.path.join(folder, name)
        preset, ext = os.path.splitext(name)
        if ext == ".skipped":
            print("%-8s not run: %s" % (preset, open(path).read().strip()))
            continue
        if ext != ".xml":
            continue
        cases = list(ET.parse(path).getroot().iter("testcase"))
        failed = [c.get("name") for c in cases if c.get("status") == "fail"]
        skipped = [(c.get("name"), reason(c)) for c in cases if c.get("status") in ("notrun", "disabled")]
        passed = len(cases) - len(failed) - len(skipped)
        print("%-8s %d tests: %d passed, %d failed, %d skipped" % (preset, len(cases), passed, len(failed),
                                                                   len(skipped)))
        for n in failed:
            print("         FAILED  %s" % n)
        for n, why in skipped:
            print("         skipped %s: %s" % (n, why))
        failed_any = failed_any or bool(failed)
    return 1 if failed_any else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1]))
