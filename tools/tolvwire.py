#!/usr/bin/env python3
"""Speaks the message format of tolv: encodes, decodes, sends and receives.

Written from the format alone (docs/wire-format.md), so that it can serve as
the other side when a program that uses the library is tested or debugged.
"""

import argparse
import json
import math
import os
import re
import socket
import struct
import sys

EYECATCHER = b"\xde\xca\xff"
FLAG_PROFILE = 0x4000
FIXED = 32
MOST_CHECK_POINTS = 18  # the header's length is one byte
MOST_IN_DATAGRAM = 65507

# Eyecatcher, header length, message length, id, type, flags, data length,
# sub-type, auxiliary word, sequence number, reserved.
HEADER = struct.Struct(">3sBIIHHIHHII")
CHECK_POINT = struct.Struct(">III")
WORD = struct.Struct(">I")

EXAMPLES = """\
addresses:
  tcp:HOST:PORT   udp:HOST:PORT   unix:PATH
  HOST is a name or an address, one for IPv6 in brackets: tcp:[::1]:7000

examples:
  tolvwire.py encode --id 7 --type 1 --body hello > message
  tolvwire.py decode message
  tolvwire.py recv tcp:127.0.0.1:7000 --echo
  tolvwire.py send tcp:127.0.0.1:7000 --id 7 --body hello --reply
  tolvwire.py send udp:127.0.0.1:7000 --checkpoint 0xFFE80000@12.000345
"""


class WireError(Exception):
    """What a user has to be told in one sentence."""


class Message:
    """One message; check_points is None where it carries no profile."""

    def __init__(self, number=0, kind=0, sub_type=0, aux=0, flags=0, seq=0,
                 check_points=None, body=b""):
        self.number = number
        self.kind = kind
        self.sub_type = sub_type
        self.aux = aux
        self.flags = flags
        self.seq = seq
        self.check_points = check_points
        self.body = body
        self.notes = []

    def encode(self):
        """The bytes of the message."""
        profile = b""
        flags = self.flags
        if self.check_points is not None:
            if len(self.check_points) > MOST_CHECK_POINTS:
                raise WireError("a message carries at most %d checkpoints, "
                                "not %d" % (MOST_CHECK_POINTS,
                                            len(self.check_points)))
            flags |= FLAG_PROFILE
            profile = WORD.pack(len(self.check_points)) + b"".join(
                CHECK_POINT.pack(*point) for point in self.check_points)
        header = FIXED + len(profile)
        if header + len(self.body) > 0xFFFFFFFF:
            raise WireError("a message is shorter than 4 GiB")
        return HEADER.pack(
            EYECATCHER, header, header + len(self.body), self.number,
            self.kind, flags, len(self.body), self.sub_type, self.aux,
            self.seq, 0) + profile + self.body

    def as_text(self):
        """The message for people."""
        lines = ["id          %u" % self.number,
                 "type        %u" % self.kind,
                 "sub-type    %u" % self.sub_type,
                 "auxiliary   %u" % self.aux,
                 "flags       0x%04X" % self.flags,
                 "sequence    %u" % self.seq]
        for point in self.check_points or []:
            lines.append("checkpoint  %08X at %u.%06u" % tuple(point))
        if self.check_points == []:
            lines.append("checkpoint  none, but a profile")
        lines.append("body        %u bytes" % len(self.body))
        for at in range(0, len(self.body), 16):
            part = self.body[at:at + 16]
            shown = "".join(chr(byte) if 32 <= byte < 127 else "."
                            for byte in part)
            lines.append("  %08X  %-47s  %s" % (
                at, " ".join("%02X" % byte for byte in part), shown))
        lines += ["note        " + note for note in self.notes]
        return "\n".join(lines)

    def as_json(self):
        """The message for programs, as one line."""
        return json.dumps({
            "id": self.number, "type": self.kind, "subType": self.sub_type,
            "aux": self.aux, "flags": self.flags, "seq": self.seq,
            "checkPoints": self.check_points, "body": self.body.hex(),
            "notes": self.notes})


def decode_header(data):
    """The header's fields after the checks that every receiver makes; the
    message's length is the third."""
    if len(data) < FIXED:
        raise WireError("a header has %d bytes, here are only %d"
                        % (FIXED, len(data)))
    fields = HEADER.unpack_from(data)
    eyecatcher, header_length, length, data_length = (
        fields[0], fields[1], fields[2], fields[6])
    if eyecatcher != EYECATCHER:
        raise WireError("no message: it begins with %s, not with %s"
                        % (eyecatcher.hex(), EYECATCHER.hex()))
    if header_length < FIXED:
        raise WireError("no valid message: its header length is %d, below %d"
                        % (header_length, FIXED))
    if length != header_length + data_length:
        raise WireError("no valid message: its length is %d, but header and "
                        "body are %d + %d" % (length, header_length,
                                              data_length))
    return fields


def decode_profile(data):
    """The checkpoints at the beginning of data, and their bytes."""
    if len(data) < WORD.size:
        raise WireError("the message announces a profile, but ends before it")
    (count,) = WORD.unpack_from(data)
    size = WORD.size + count * CHECK_POINT.size
    if size > len(data):
        raise WireError("the message announces %d checkpoints, which do not "
                        "fit into its %d bytes" % (count, FIXED + len(data)))
    return [list(point) for point in
            CHECK_POINT.iter_unpack(data[WORD.size:size])], size


def decode(data):
    """The message that data, as long as its header says, consists of."""
    (_, header_length, length, number, kind, flags, _, sub_type, aux, seq,
     _) = decode_header(data)
    if len(data) != length:
        raise WireError("the message is %d bytes long, here are %d"
                        % (length, len(data)))
    message = Message(number, kind, sub_type, aux, flags, seq)
    size = 0
    if flags & FLAG_PROFILE:
        message.check_points, size = decode_profile(data[FIXED:])
    message.body = data[FIXED + size:]
    if header_length != (FIXED + size) % 256:
        message.notes.append("the header length is %d, but header and profile "
                             "have %d bytes" % (header_length, FIXED + size))
    elif FIXED + size > 255:
        message.notes.append("too many checkpoints: the header length has "
                             "wrapped")
    return message


def split(data):
    """The messages that follow each other in data."""
    at = 0
    while at < len(data):
        try:
            length = decode_header(data[at:])[2]
            yield decode(data[at:at + length])
        except WireError as error:
            raise WireError("at byte %d: %s" % (at, error)) from None
        at += length


class Address:
    """Where a message goes to or comes from."""

    def __init__(self, text):
        self.text = text
        kind, _, rest = text.partition(":")
        if kind == "unix" and rest:
            self.family, self.type, self.place = (
                socket.AF_UNIX, socket.SOCK_STREAM, rest)
            return
        found = re.fullmatch(r"(?:\[(.+)\]|([^:\[\]]+)):(\d+)", rest)
        if kind not in ("tcp", "udp") or not found or int(found[3]) > 65535:
            raise argparse.ArgumentTypeError(
                "'%s' is no address; tcp:HOST:PORT, udp:HOST:PORT and "
                "unix:PATH are" % text)
        self.type = (socket.SOCK_STREAM if kind == "tcp"
                     else socket.SOCK_DGRAM)
        self.family = None
        self.place = (found[1] or found[2], int(found[3]))

    def __str__(self):
        return self.text

    def is_datagram(self):
        """Whether a message is one datagram."""
        return self.type == socket.SOCK_DGRAM

    def open(self):
        """A socket of the right kind, and the address to give to it."""
        place = self.place
        if self.family is None:
            try:
                found = socket.getaddrinfo(*place, type=self.type)
            except UnicodeError:  # a label of the name is empty or too long
                raise WireError("'%s' is no name of a host"
                                % place[0]) from None
            self.family, place = found[0][0], found[0][4]
        return socket.socket(self.family, self.type), place

    def text_of(self, sock):
        """What a peer has to say to reach this listening socket."""
        if self.family == socket.AF_UNIX:
            return "unix:" + self.place
        host, port = sock.getsockname()[:2]
        if ":" in host:
            host = "[" + host + "]"
        return "%s:%s:%d" % ("udp" if self.is_datagram() else "tcp", host,
                             port)


def receive_exactly(sock, count, what):
    """So many bytes from a stream; None when it ends before the first."""
    data = bytearray()
    while len(data) < count:
        part = sock.recv(min(count - len(data), 1 << 20))
        if not part:
            if not data and what == "header":
                return None
            raise WireError("the peer closed after %d of %d bytes of a %s"
                            % (len(data), count, what))
        data += part
    return bytes(data)


def receive_stream(sock):
    """The bytes of one message; None when the peer has closed before it."""
    header = receive_exactly(sock, FIXED, "header")
    if header is None:
        return None
    length = decode_header(header)[2]
    return header + receive_exactly(sock, length - FIXED, "message")


class Output:
    """Shows messages as they come, and keeps their bytes where wanted."""

    def __init__(self, arguments):
        self.as_json = arguments.json
        self.save = open(arguments.save, "wb") if arguments.save else None
        self.count = 0

    def show(self, message):
        """Prints one message."""
        self.count += 1
        if self.as_json:
            print(message.as_json())
        else:
            print("message %d\n%s\n" % (self.count, message.as_text()))
        sys.stdout.flush()

    def take(self, data):
        """Keeps and prints the bytes of one message."""
        if self.save:
            self.save.write(data)
            self.save.flush()
        self.show(decode(data))


def message_of(arguments):
    """The message that the command line describes."""
    if arguments.body_file is not None:
        body = read_file(arguments.body_file)
    else:
        body = os.fsencode(arguments.body)
    points = arguments.checkpoint
    if arguments.profile and points is None:
        points = []
    return Message(arguments.id, arguments.type, arguments.sub_type,
                   arguments.aux, arguments.flags, arguments.seq, points, body)


def read_file(path):
    """All bytes of a file; "-" is standard input."""
    if path == "-":
        return sys.stdin.buffer.read()
    with open(path, "rb") as file:
        return file.read()


def run_encode(arguments):
    """encode: the bytes of a message to standard output."""
    sys.stdout.buffer.write(message_of(arguments).encode())
    sys.stdout.buffer.flush()


def run_decode(arguments):
    """decode: the messages of a file."""
    data = read_file(arguments.file)
    if not data:
        raise WireError("%s is empty" % arguments.file)
    arguments.save = None
    output = Output(arguments)
    for message in split(data):
        output.show(message)


def run_send(arguments):
    """send: one message, several times where wanted, and the answers."""
    data = message_of(arguments).encode()
    address = arguments.address
    if address.is_datagram() and len(data) > MOST_IN_DATAGRAM:
        raise WireError("a datagram has at most %d bytes, the message has %d"
                        % (MOST_IN_DATAGRAM, len(data)))
    output = Output(arguments)
    sock, place = address.open()
    with sock:
        sock.settimeout(arguments.time_out)
        sock.connect(place)
        for _ in range(arguments.count):
            sock.sendall(data)
            if arguments.reply:
                answer = (sock.recv(65536) if address.is_datagram()
                          else receive_stream(sock))
                if answer is None:
                    raise WireError("the peer closed without an answer")
                output.take(answer)


def serve_stream(listener, arguments, output):
    """Takes connections one after the other until enough has come."""
    while output.count < arguments.count:
        peer, _ = listener.accept()
        with peer:
            peer.settimeout(arguments.time_out)
            while output.count < arguments.count:
                data = receive_stream(peer)
                if data is None:
                    break
                output.take(data)
                if arguments.echo:
                    peer.sendall(data)


def serve_datagrams(sock, arguments, output):
    """Takes datagrams until enough have come."""
    while output.count < arguments.count:
        data, peer = sock.recvfrom(65536)
        output.take(data)
        if arguments.echo:
            sock.sendto(data, peer)


def run_recv(arguments):
    """recv: waits at an address for messages."""
    output = Output(arguments)
    address = arguments.address
    sock, place = address.open()
    with sock:
        sock.settimeout(arguments.time_out)
        if address.family != socket.AF_UNIX:
            sock.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        sock.bind(place)
        try:
            if not address.is_datagram():
                sock.listen()
            print("listening on", address.text_of(sock), file=sys.stderr,
                  flush=True)
            serve = (serve_datagrams if address.is_datagram()
                     else serve_stream)
            serve(sock, arguments, output)
        finally:
            if address.family == socket.AF_UNIX:
                os.unlink(place)


def number(bits):
    """The type of an argument: a number of so many bits, 0x allowed."""
    def convert(text):
        try:
            value = int(text, 0)
        except ValueError:
            value = -1
        if not 0 <= value < 1 << bits:
            raise argparse.ArgumentTypeError(
                "'%s' is no number of %d bits" % (text, bits))
        return value
    return convert


def count(text):
    """The type of an argument: how often, at least once."""
    if not re.fullmatch("0*[1-9][0-9]*", text):
        raise argparse.ArgumentTypeError("'%s' is not 1 or more" % text)
    return int(text)


def check_point(text):
    """The type of an argument: ID@SECONDS.MICROSECONDS."""
    found = re.fullmatch(
        r"(0[xX][0-9a-fA-F]{1,8}|\d+)(?:@(\d+)(?:\.(\d{1,6}))?)?", text)
    point = found and [int(found[1], 0), int(found[2] or 0),
                       int((found[3] or "").ljust(6, "0"))]
    if not point or max(point) > 0xFFFFFFFF:
        raise argparse.ArgumentTypeError(
            "'%s' is no checkpoint; 0xFFE80000@12.000345 is" % text)
    return point


def seconds(text):
    """The type of an argument: a time, up to a year."""
    try:
        value = float(text)
    except ValueError:
        value = math.nan
    if not 0 < value <= 366 * 86400:
        raise argparse.ArgumentTypeError(
            "'%s' is no time; seconds above 0, up to a year, are" % text)
    return value


def add_message(parser):
    """The arguments that describe a message."""
    group = parser.add_argument_group("the message")
    for name, bits in (("id", 32), ("type", 16), ("sub-type", 16), ("aux", 16),
                       ("flags", 16), ("seq", 32)):
        group.add_argument("--" + name, type=number(bits), default=0,
                           metavar="N", help="%d bits, 0 unless said" % bits)
    group.add_argument("--profile", action="store_true",
                       help="carry a profile, also one without checkpoints")
    group.add_argument("--checkpoint", type=check_point, action="append",
                       metavar="ID[@SECONDS[.MICROSECONDS]]",
                       help="a checkpoint of the profile; may be repeated")
    body = group.add_mutually_exclusive_group()
    body.add_argument("--body", default="", metavar="TEXT",
                      help="the bytes of the body")
    body.add_argument("--body-file", metavar="FILE",
                      help="take the body from a file, - for standard input")


def add_network(parser, count_help):
    """The arguments of a command that uses the network."""
    parser.add_argument("address", type=Address, metavar="ADDRESS")
    parser.add_argument("--count", type=count, default=1, metavar="N",
                        help=count_help)
    parser.add_argument("--time-out", type=seconds, metavar="SECONDS",
                        help="give up when nothing moves for so long")
    parser.add_argument("--save", metavar="FILE",
                        help="keep the bytes of received messages")
    add_json(parser)


def add_json(parser):
    """How messages are shown."""
    parser.add_argument("--json", action="store_true",
                        help="show each message as one line of JSON")


def parse(arguments):
    """The command line."""
    parser = argparse.ArgumentParser(
        prog="tolvwire.py", description=__doc__, epilog=EXAMPLES,
        formatter_class=argparse.RawDescriptionHelpFormatter)
    commands = parser.add_subparsers(dest="command", metavar="COMMAND")
    commands.required = True

    encode = commands.add_parser(
        "encode", help="write a message to standard output")
    add_message(encode)
    encode.set_defaults(run=run_encode)

    decode_ = commands.add_parser("decode", help="show the messages of a file")
    decode_.add_argument("file", metavar="FILE", help="- for standard input")
    add_json(decode_)
    decode_.set_defaults(run=run_decode)

    send = commands.add_parser("send", help="connect and send a message")
    add_network(send, "send it so often, 1 unless said")
    send.add_argument("--reply", action="store_true",
                      help="wait for an answer to each and show it")
    add_message(send)
    send.set_defaults(run=run_send)

    recv = commands.add_parser("recv", help="listen and show what comes")
    add_network(recv, "end after so many messages, 1 unless said")
    recv.add_argument("--echo", action="store_true",
                      help="send each message back")
    recv.set_defaults(run=run_recv)
    return parser.parse_args(arguments)


def main(arguments):
    """Returns: 0, or 1 when something went wrong (2 for a wrong call)."""
    parsed = parse(arguments)
    try:
        parsed.run(parsed)
    except socket.timeout:
        return fail("nothing came within %g seconds" % parsed.time_out)
    except OSError as error:
        where = error.filename or getattr(parsed, "address", "")
        return fail("%s: %s" % (where, error.strerror or error) if where
                    else error.strerror or error)
    except WireError as error:
        return fail(error)
    except KeyboardInterrupt:
        return fail("interrupted")
    return 0


def fail(reason):
    """Says why to standard error."""
    print("tolvwire.py: %s" % reason, file=sys.stderr)
    return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
