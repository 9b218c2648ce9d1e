#!/usr/bin/env python3
"""Prints each reason for which tests were skipped, and how many tests gave it. Argument: CTest's LastTest.log."""

import collections
import re
import sys


def reason(output):
    """The sentence with which one test said that it cannot run here, or None when it ran."""
    skipped = re.search(r": Skipped\n(.*)", output)
    if skipped:
        return skipped.group(1).strip() or "no reason given"
    refused = re.search(r"^(with-lan: no .*namespace here.*)$", output, re.MULTILINE)
    if refused:
        return refused.group(1)
    stated = re.search(r"^SKIPPED: (.*)$", output, re.MULTILINE)
    return stated.group(1) if stated else None


def main(log):
    try:
        with open(log, encoding="utf-8", errors="replace") as file:
            tests = re.findall(r"^Output:\n-+\n(.*?)^<end of output>$", file.read(), re.MULTILINE | re.DOTALL)
    except OSError:
        return
    reasons = collections.Counter(filter(None, map(reason, tests)))
    for text, count in reasons.most_common():
        print(f"Skipped {count}: {text}")


main(sys.argv[1])
