# SPDX-License-Identifier: MIT
"""What the commands say about input that they cannot read."""


class Unreadable(Exception):
    """Input that cannot be read; its text is "place: what"."""

    def __init__(self, path: str, line: int | None, what: str) -> None:
        place = f"{path}:{line}" if line else path
        super().__init__(f"{place}: {what}")


class NothingChosen(Unreadable):
    """Of what can be read, nothing is left that was chosen."""


def printable(text: str) -> str:
    """Names, tags and lines come from files; nothing in them may steer the terminal."""
    return "".join(char if char.isprintable() else "?" for char in text)


def excerpt(text: str) -> str:
    return printable(text.strip())[:60]
