# SPDX-License-Identifier: MIT
"""The version of the companions is that of the program: from its header in a checkout, noted in a source package."""

import pathlib
import re

import setuptools

HERE = pathlib.Path(__file__).resolve().parent


def version() -> str:
    header = HERE.parent / "src" / "base" / "version.h"
    if header.exists():
        return ".".join(re.findall(r"version_(?:major|minor) = (\d+);", header.read_text()))
    return re.findall(r"^Version: (.+)$", (HERE / "PKG-INFO").read_text(), re.MULTILINE)[0]


setuptools.setup(version=version())
