# What the tests of the companions share: the lines that the program prints, a program that prints nothing but these,
# and how pictures are drawn. It makes the companions importable, and the laboratory of the end-to-end tests.
import shlex, sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[2]
COMPANIONS = ROOT / "companions/src"
sys.path += [str(COMPANIONS), str(ROOT / "tests/end_to_end")]
from lab import VERSION
from vorn_companions.commands import plot


def companion(name):
    """The beginning of a command line that runs a companion."""
    return ["/usr/bin/python3", "-c",
            f"import sys; sys.path.insert(0, {str(COMPANIONS)!r}); sys.argv[0] = 'vorn-{name}'\n"
            f"from vorn_companions.commands import {name}; sys.exit({name}.main())"]


HOST = "10.0.0.2"
ERROR, HOP = "Destination Unreachable", "TTL Exceeded"  # kinds of answers beside the reply
BANNER = f"Vorn version {VERSION}, a notice\nBuilt Jan  5 2026 at 09:00:00\nDestination IP = {HOST}\n"


def answer(sequence, seconds=0.010, kind=" Echo Reply ", host=HOST):
    return f"{sequence:12}: Received {kind} in {seconds:9.6f}s from {host}\n"


def timed_out(sequence, host=HOST):
    return f"{sequence:12}: TIMEOUT in  0.200031s, expected rsp from {host}\n"


def totals(sent, received):
    return f"In  1.000000s, {sent} tx pkts, {received} rx pkts, {sent - received} missing, 0 invalid\n"


def batch(number, rate=90.0, mark=" ", received=50, rates="", buffers=""):
    return (f"{number:5}:{mark} Pkts: {received:3}/50   {rate:5.1f} mbps  {rates}   1.5 msec {buffers}"
            "  Lost: 0      Bad Samples: 1\n")


def silent_batch(number, received=0, lost=50):
    return f"{number:5}:*** Rx {received}, Lost {lost}\n"


# A program that prints the text, then does what these commands of the shell say.
def printing(text, then=""):
    return f"#!/bin/sh\nprintf %s {shlex.quote(text)}\n{then}\n"


def script(path, text):
    path.write_text(text)
    path.chmod(0o755)
    return path


# The same picture comes out the same, and in both formats.
def draw(folder, *arguments):
    for picture in ("one.svg", "two.svg", "three.png"):
        plot.main([*arguments, "-o", str(folder / picture)])
    assert (folder / "one.svg").read_bytes() == (folder / "two.svg").read_bytes()
