#!/usr/bin/env python3
"""Draws profiles of messages, as the library appends them to CSV files, as an
SVG picture: one line for each row, from its first checkpoint to its last.
"""

import argparse
import os
import re
import sys
from html import escape

STAMP = 0xFFE80000
CHECK_POINT = re.compile(r"([0-9A-F]{8}), (\d+)\.(\d{6}), ")

# The picture, in its own units.
WIDTH = 960
LEFT = 32
RIGHT = 40
TOP = 64
BAR = 20        # height of the steps
TEXT_LINE = 18  # from one line of text to the next
LANE_GAP = 18   # between two profiles
BOTTOM = 48
LINE_LIMIT = 115  # characters between LEFT and RIGHT, wide ones too
COLOURS = ("#4c78a8", "#f58518", "#54a24b", "#b279a2", "#e45756", "#72b7b2")


class ProfileError(Exception):
    """What a user has to be told in one sentence."""


def rows_of(text):
    """The rows of a CSV file as lists of (id, microseconds). A row begins on
    a new line where the platform has a progress code, and else goes on where
    the one before has ended: then they read as one."""
    rows = []
    for line in text.splitlines():
        points = [(int(number, 16), int(seconds) * 1000000 + int(micros))
                  for number, seconds, micros in CHECK_POINT.findall(line)]
        if points:
            rows.append(points)
    return rows


def name_of(points, at, names):
    """What a checkpoint means. The library's own marks the beginning, each
    arrival from the wire and the end."""
    number = points[at][0]
    if number in names:
        return names[number]
    if number != STAMP:
        return "%08X" % number
    if at == 0:
        return "begin"
    return "end" if at == len(points) - 1 else "arrived"


def read(path):
    """The rows of one file, each with its title."""
    with open(path, encoding="utf-8", errors="replace") as file:
        rows = rows_of(file.read())
    if not rows:
        raise ProfileError("%s: no profile" % path)
    stem = os.path.splitext(os.path.basename(path))[0].replace("profile.", "")
    if len(rows) == 1:
        return [(stem, rows[0])]
    return [("%s %d" % (stem, number), row)
            for number, row in enumerate(rows, 1)]


def step_of(span):
    """A round distance between the marks of an axis, at most ten of them."""
    step = 1
    while True:
        for factor in (1, 2, 5):
            if span <= 10 * step * factor:
                return step * factor
        step *= 10


def text(x, y, content, more=""):
    """One line of text; the content is markup."""
    return '<text x="%.1f" y="%.1f"%s>%s</text>' % (x, y, more, content)


def axis(span, scale, bottom):
    """Marks at round times, through all lanes."""
    step = step_of(span)
    parts = []
    for micros in range(0, span + 1, step):
        x = LEFT + micros * scale
        parts.append('<path d="M%.1f %d V%d" stroke="#ddd"/>'
                     % (x, TOP - TEXT_LINE, bottom))
        parts.append(text(x, bottom + 16, str(micros),
                          ' text-anchor="middle" fill="#555"'))
    parts.append(text(LEFT, bottom + 34, "microseconds since the first "
                      "checkpoint", ' fill="#555"'))
    return parts


def colour_of(at):
    """The colour of the step that leads to a checkpoint."""
    return COLOURS[(at - 1) % len(COLOURS)]


def legend(points, names):
    """What the steps led to and how long they took, as lines of markup."""
    told = name_of(points, 0, names)
    lines, length = [escape(told)], len(told)
    for at in range(1, len(points)):
        told = "%d us to %s" % (points[at][1] - points[at - 1][1],
                                name_of(points, at, names))
        length += len(told) + 3
        if length > LINE_LIMIT:
            lines.append("")
            length = len(told) + 3
        lines[-1] += ('%s<tspan fill="%s">\u25a0</tspan> %s'
                      % (" " if lines[-1] else "", colour_of(at),
                         escape(told)))
    return lines


def lane(title, points, top, scale, names):
    """One profile: its title, a bar with a step between each two checkpoints,
    and the steps' legend. With the markup comes where the next lane begins."""
    first = points[0][1]
    parts = [text(LEFT, top, escape(title), ' font-weight="bold"')]
    bar = top + 8
    for at in range(1, len(points)):
        begin, end = points[at - 1][1] - first, points[at][1] - first
        parts.append(
            '<rect x="%.1f" y="%d" width="%.1f" height="%d" fill="%s">'
            '<title>%s: %d us</title></rect>'
            % (LEFT + begin * scale, bar, max((end - begin) * scale, 1.5),
               BAR, colour_of(at), escape(name_of(points, at, names)),
               end - begin))
    below = bar + BAR
    for line in legend(points, names):
        below += TEXT_LINE
        parts.append(text(LEFT, below - 2, line, ' fill="#333"'))
    return parts, below + LANE_GAP + TEXT_LINE


def draw(rows, names):
    """The picture of all rows, on one axis."""
    for title, points in rows:
        times = [time for _, time in points]
        if times != sorted(times):
            raise ProfileError("%s: its times do not rise, as when machines "
                               "with different clocks took part" % title)
    span = max(points[-1][1] - points[0][1] for _, points in rows) or 1
    scale = (WIDTH - LEFT - RIGHT) / span
    lanes = []
    top = TOP
    for title, points in rows:
        parts, top = lane(title, points, top, scale, names)
        lanes += parts
    bottom = top - TEXT_LINE
    return "\n".join([
        '<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
        'font-family="sans-serif" font-size="12">'
        % (WIDTH, bottom + BOTTOM),
        '<rect width="100%" height="100%" fill="white"/>',
        text(LEFT, 26, "The journey of a message",
             ' font-size="16" font-weight="bold"'),
        *axis(span, scale, bottom), *lanes, "</svg>", ""])


def named(argument):
    """The type of an argument: ID=NAME."""
    number, _, name = argument.partition("=")
    if not name or not re.fullmatch("[0-9a-fA-F]{8}", number):
        raise argparse.ArgumentTypeError("'%s' is not like 0E000000=served"
                                         % argument)
    return int(number, 16), name


def main():
    """Reads the files and writes the picture."""
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("file", nargs="+", help="CSV file of profiles")
    parser.add_argument("--name", type=named, action="append", default=[],
                        metavar="ID=NAME", help="what a checkpoint means")
    parser.add_argument("--output", metavar="FILE",
                        help="in place of standard output")
    arguments = parser.parse_args()
    try:
        rows = [row for path in arguments.file for row in read(path)]
        picture = draw(rows, dict(arguments.name))
        if arguments.output is None:
            sys.stdout.write(picture)
        else:
            with open(arguments.output, "w", encoding="utf-8") as file:
                file.write(picture)
    except (ProfileError, OSError) as error:
        sys.exit("profiletimeline: %s" % error)


if __name__ == "__main__":
    main()
