#!/usr/bin/env python3
"""Reads the JUnit file of a ctest run: shows each test that did not pass and
closes with 'N passed, N failed, N skipped'."""

import sys
import xml.etree.ElementTree as ElementTree

# How ctest says that a test skipped itself. Anything else that did not run
# (no program, a missing file, no test found in a program) is a failure.
SKIPPED_ITSELF = ("SKIP_REGULAR_EXPRESSION", "SKIP_RETURN_CODE")


def verdict(case):
    """'passed', 'skipped' or 'failed'; only a completed run passes."""
    if case.get("status") == "run" and case.find("failure") is None:
        return "passed"
    if case.get("status") == "disabled":
        return "skipped"
    output = case.findtext("system-out", "")
    reason = case.find("skipped")
    # The mark of a skip does not excuse a fault found in the same process.
    if (reason is not None
            and reason.get("message", "").startswith(SKIPPED_ITSELF)
            and "[  FAILED  ]" not in output
            and "Sanitizer:" not in output):
        return "skipped"
    return "failed"


def main():
    """The whole program."""
    try:
        cases = ElementTree.parse(sys.argv[1]).getroot().findall("testcase")
    except (OSError, ElementTree.ParseError) as error:
        cases = []
        print(f"FAILED  cannot read the results: {error}")
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for case in cases:
        result = verdict(case)
        counts[result] += 1
        if result != "passed":
            print(case.findtext("system-out", ""))
            print(f"{result.upper():7} {case.get('name')}")
    if not cases:
        print("FAILED  ctest ran no test")
        counts["failed"] = 1
    print("{passed} passed, {failed} failed, {skipped} skipped".format(**counts))


main()
