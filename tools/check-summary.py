#!/usr/bin/env python3
"""Add up the JUnit reports and fuzz results of a check run.

Prints the failed cases, then one line "N passed, M failed"; exits 1 when
anything failed or a build broke.
"""
import pathlib
import sys
import xml.etree.ElementTree as ET


def cases(report):
    try:
        tree = ET.parse(report)
    except (ET.ParseError, OSError) as err:
        yield f"{report.name}: unreadable report ({err})", "failed"
        return
    for case in tree.iter("testcase"):
        name = f"{report.stem}: {case.get('classname', '')}.{case.get('name')}"
        if case.find("failure") is not None or case.find("error") is not None:
            yield name, "failed"
        elif case.find("skipped") is not None:
            yield name, "skipped"
        else:
            yield name, "passed"


def main():
    reports = pathlib.Path(sys.argv[1])
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    failed = []
    for report in sorted(reports.glob("*.xml")):
        for name, result in cases(report):
            counts[result] += 1
            if result == "failed":
                failed.append(name)
    fuzz = reports / "fuzz"
    if fuzz.exists():
        for line in fuzz.read_text().splitlines():
            ok = line.endswith(" ok")
            counts["passed" if ok else "failed"] += 1
            if not ok:
                failed.append(line)
    broken = reports / "broken"
    if broken.exists():
        for line in broken.read_text().splitlines():
            counts["failed"] += 1
            failed.append(f"{line}: did not build")
    for name in failed:
        print(f"FAILED {name}")
    line = f"{counts['passed']} passed, {counts['failed']} failed"
    if counts["skipped"]:
        line += f", {counts['skipped']} skipped"
    print(line)
    return 1 if counts["failed"] else 0


if __name__ == "__main__":
    sys.exit(main())
