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
LEFT = 120
RIGHT = 40
TOP = 56
LANE = 64
BOTTOM = 48
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
                     % (x, TOP - 12, bottom))
        parts.append(text(x, bottom + 16, str(micros),
                          ' text-anchor="middle" fill="#555"'))
    parts.append(text(LEFT, bottom + 34, "microseconds since the first "
                      "checkpoint", ' fill="#555"'))
    return parts


def lane(title, points, top, scale, names):
    """One profile: a bar with a step between each two checkpoints, and below
    it what the steps led to and how long they took."""
    first = points[0][1]
    parts = [text(LEFT - 12, top + 15, escape(title),
                  ' text-anchor="end" font-weight="bold"')]
    told = escape(name_of(points, 0, names))
    for at in range(1, len(points)):
        begin, end = points[at - 1][1] - first, points[at][1] - first
        colour = COLOURS[(at - 1) % len(COLOURS)]
        name = escape(name_of(points, at, names))
        parts.append(
            '<rect x="%.1f" y="%d" width="%.1f" height="20" fill="%s">'
            '<title>%s: %d us</title></rect>'
            % (LEFT + begin * scale, top, max((end - begin) * scale, 1.5),
               colour, name, end - begin))
        told += (' <tspan fill="%s">\u25a0</tspan> %d us to %s'
                 % (colour, end - begin, name))
    parts.append(text(LEFT, top + 36, told, ' fill="#333"'))
    return parts


def draw(rows, names):
    """The picture of all rows, on one axis."""
    for title, points in rows:
        times = [time for _, time in points]
        if times != sorted(times):
            raise ProfileError("%s: its times do not rise, as when machines "
                               "with different clocks took part" % title)
    span = max(points[-1][1] - points[0][1] for _, points in rows) or 1
    scale = (WIDTH - LEFT - RIGHT) / span
    bottom = TOP + LANE * len(rows)
    parts = axis(span, scale, bottom)
    for number, (title, points) in enumerate(rows):
        parts += lane(title, points, TOP + LANE * number, scale, names)
    return "\n".join([
        '<svg xmlns="http://www.w3.org/2000/svg" width="%d" height="%d" '
        'font-family="sans-serif" font-size="12">'
        % (WIDTH, bottom + BOTTOM),
        '<rect width="100%" height="100%" fill="white"/>',
        text(LEFT, 26, "The journey of a message",
             ' font-size="16" font-weight="bold"'),
        *parts, "</svg>", ""])


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
