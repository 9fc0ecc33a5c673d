# SPDX-License-Identifier: MIT
"""What a user may want of a figure."""

import dataclasses

from vorn_companions.store.reading import Selection


@dataclasses.dataclass(frozen=True)
class Options:
    """None: as the figure does it by itself."""

    title: str | None = None
    by: str | None = None  # what a line stands for: row, tag; host, label, run, site
    selection: Selection = Selection()
