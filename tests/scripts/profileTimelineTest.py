#!/usr/bin/env python3
"""Tests tools/profiletimeline.py: what it draws of profiles whose times are
known, and what it refuses."""

import os
import subprocess
import sys
import tempfile
import unittest
import xml.etree.ElementTree

TOOL = os.path.join(os.path.dirname(os.path.abspath(__file__)),
                    "../../tools/profiletimeline.py")
SVG = "{http://www.w3.org/2000/svg}"

ROW = ("\nmyd, 812, 1026, (null), 2026 1 5, A, node1, 1c2d3,"
       "FFE80000, 10.999990, FFE80000, 11.000020, 0E000000, 11.000030, "
       "FFE80000, 11.000090, ")


class ProfileTimelineTest(unittest.TestCase):
    """One call of the tool for each test."""

    def setUp(self):
        # pylint: disable=consider-using-with
        self.folder = tempfile.TemporaryDirectory()
        self.addCleanup(self.folder.cleanup)

    def run_tool(self, content, *options):
        """The tool on a file with this content."""
        path = os.path.join(self.folder.name, "profile.tcp.csv")
        with open(path, "w", encoding="utf-8") as file:
            file.write(content)
        return subprocess.run([sys.executable, TOOL, *options, path],
                              capture_output=True, text=True, check=False)

    def draw(self, content, *options):
        """The steps of the picture as (left, top, width), and its texts."""
        done = self.run_tool(content, *options)
        self.assertEqual("", done.stderr)
        self.assertEqual(0, done.returncode)
        root = xml.etree.ElementTree.fromstring(done.stdout)
        steps = [tuple(float(box.get(name)) for name in ("x", "y", "width"))
                 for box in root.iter(SVG + "rect") if box.get("x")]
        return steps, ["".join(line.itertext())
                       for line in root.iter(SVG + "text")]

    def test_steps_are_as_long_as_they_took(self):
        """Across the turn of a second, too."""
        steps, _ = self.draw(ROW)
        widths = [width for _, _, width in steps]
        self.assertEqual(3, len(steps))
        self.assertAlmostEqual(3, widths[0] / widths[1], delta=0.1)
        self.assertAlmostEqual(6, widths[2] / widths[1], delta=0.1)
        self.assertAlmostEqual(steps[0][0] + widths[0], steps[1][0], delta=0.2)

    def test_steps_are_named(self):
        """The library's own by where they stand, others when told."""
        _, texts = self.draw(ROW, "--name", "0E000000=<served>")
        self.assertIn("begin \u25a0 30 us to arrived \u25a0 10 us to <served> "
                      "\u25a0 60 us to end", texts)
        self.assertIn("tcp", texts)

    def test_rows_share_one_axis(self):
        """A shorter journey is drawn shorter, in a line of its own."""
        steps, texts = self.draw(
            ROW + "\nmyd, 8,FFE80000, 5.000000, FFE80000, 5.000050, ")
        self.assertEqual(4, len(steps))
        self.assertLess(steps[2][1], steps[3][1])
        whole = sum(width for _, _, width in steps[:3])
        self.assertAlmostEqual(2, whole / steps[3][2], delta=0.05)
        self.assertIn("tcp 2", texts)

    def test_row_without_a_head_is_drawn(self):
        """As the library writes it without a progress code."""
        steps, _ = self.draw("FFE80000, 1.000000, FFE80000, 1.000000, ")
        self.assertEqual(1, len(steps))

    def test_everything_stays_in_the_picture(self):
        """Eighteen steps are told in several lines, none of them too long,
        and each below the one before."""
        points = "".join("0E0000%02X, 1.%06d, " % (at, at * at)
                         for at in range(19))
        steps, texts = self.draw("\n" + points)
        self.assertEqual(18, len(steps))
        told = [line for line in texts if "\u25a0" in line]
        self.assertLess(1, len(told))
        self.assertGreaterEqual(130, max(len(line) for line in told))
        self.assertEqual(["%d us to 0E0000%02X" % (2 * at - 1, at)
                          for at in range(1, 19)],
                         [step.strip() for line in told
                          for step in line.split("\u25a0")[1:]])
        self.assertLess(max(left + width for left, _, width in steps), 960)

    def test_refuses_what_is_no_profile(self):
        """With a sentence, not with a traceback."""
        done = self.run_tool("some text\n")
        self.assertEqual(1, done.returncode)
        self.assertRegex(done.stderr, "^profiletimeline: .*: no profile\n$")

    def test_refuses_times_that_fall(self):
        """Uptimes of two machines cannot be compared."""
        done = self.run_tool("FFE80000, 2.000000, FFE80000, 1.000000, ")
        self.assertEqual(1, done.returncode)
        self.assertIn("do not rise", done.stderr)


if __name__ == "__main__":
    unittest.main()
