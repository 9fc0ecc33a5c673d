# SPDX-License-Identifier: MIT
"""What all pictures share: axes, colours, keys, notes and scales.

Of all modules this one alone knows matplotlib, and imports it where it draws: text needs none.
"""

import datetime
import math
import warnings
from collections.abc import Callable, Sequence
from typing import Any

import numpy

from vorn_companions.figures.numbers import Floats, Values, is_wide, outside_text

PALETTE = ("tab:blue", "tab:orange", "tab:green", "tab:purple", "tab:brown", "tab:cyan", "tab:olive", "tab:pink",
           "tab:gray", "black")
BAD_COLOUR = "crimson"
WIDTH_INCHES = 10
CHAR_INCHES = 0.07  # of small print
LINE_INCHES = 0.2
BESIDE_LENGTH = int(WIDTH_INCHES / 5 / CHAR_INCHES)  # names that take more of the width than a fifth stand below
LABEL_LENGTH = 100
SCALE_LABEL_LENGTH = 28
MOST_NAMES = 48  # more lines than this are told apart by a scale of colours alone
SCALE_END = 0.93  # the brightest yellow beyond it is lost on white
RASTER_POINTS = 20000  # an SVG with more points than this takes minutes to open

# Families that hold what the usual one lacks. matplotlib complains of each glyph that it finds nowhere.
WIDE_FONTS = ("Noto Sans CJK JP", "Noto Sans CJK SC", "Droid Sans Fallback", "WenQuanYi Zen Hei", "IPAGothic",
              "Noto Sans", "Unifont")


def prepare() -> None:
    """Once before the first picture. The same input gives the same bytes: no random identifiers."""
    import matplotlib
    from matplotlib import font_manager
    matplotlib.rcParams["svg.hashsalt"] = "vorn-plot"
    there = {font.name for font in font_manager.fontManager.ttflist}
    matplotlib.rcParams["font.family"] = ["DejaVu Sans", *(font for font in WIDE_FONTS if font in there)]
    warnings.filterwarnings("ignore", message="Glyph .* missing from current font")


def settle(figure: Any) -> None:
    """Before it is written: the same input gives the same bytes. The order in which the layout is solved is not always
    the same, and its last digits with it."""
    figure.draw_without_rendering()
    figure.set_layout_engine("none")
    for axis in figure.axes:
        axis.set_position([round(part, 5) for part in axis.get_position().bounds])


def shortened(label: str, length: int) -> str:
    """Cut in the middle: names of hosts differ at their ends."""
    if len(label) <= length:
        return label
    head = (length - 1) // 2
    return f"{label[:head]}\N{HORIZONTAL ELLIPSIS}{label[len(label) - (length - 1 - head):]}"


def legend_text(label: str, length: int = LABEL_LENGTH) -> str:
    """A label as matplotlib shows it to the letter: no formulas, no hidden entries, no endless line."""
    short = shortened(label, length)
    return (" " if short.startswith("_") else "") + short.replace("$", r"\$")


def bare_figure(title: str, width: float, height: float) -> Any:
    from matplotlib.figure import Figure
    figure = Figure(figsize=(width, height), layout="constrained")
    figure.get_layout_engine().set(w_pad=0.1, h_pad=0.1)
    figure.suptitle(legend_text(title), wrap=True)
    return figure


def new_figure(title: str, height: float, rows: int = 1, ratios: Sequence[float] | None = None,
               sharex: bool = True) -> tuple[Any, list[Any]]:
    figure = bare_figure(title, WIDTH_INCHES, height)
    axes = figure.subplots(rows, 1, sharex=sharex, squeeze=False, gridspec_kw={"height_ratios": ratios or [1] * rows})
    for axis in axes[:, 0]:
        axis.grid(True, alpha=0.3)
        axis.ticklabel_format(useOffset=False, style="plain")
    figure.align_ylabels()
    return figure, list(axes[:, 0])


def line_colours(count: int) -> Sequence[Any]:
    if count <= len(PALETTE):
        return PALETTE[:count]
    from matplotlib import colormaps
    if count <= 20:
        return [colormaps["tab20"](index) for index in range(count)]
    return [colormaps["viridis"](SCALE_END * index / (count - 1)) for index in range(count)]


def colours_of(names: Sequence[Any]) -> Any:
    from matplotlib import colors
    return colors.ListedColormap(names)


def map_norm(known: Floats, percent: bool, low_is_worse: bool) -> Any:
    """From 0 on, and places that are alike look harmless; of percents the small ones are told apart."""
    from matplotlib import colors
    if percent:
        return colors.PowerNorm(0.4, 0, 100)
    top = known.max(initial=0)
    if top > 0 and not low_is_worse:
        top = max(top, 3 * numpy.median(known))
    return colors.Normalize(0, top if top > 0 else 1)


# --- keys ---

def key_line(label: str, **style: Any) -> Any:
    """An entry of a key as a line or as a mark."""
    from matplotlib.lines import Line2D
    return Line2D([], [], label=label, **style)


def key_mark(label: str, marker: str, **style: Any) -> Any:
    return key_line(label, marker=marker, linestyle="none", **style)


def key_patch(label: str, **style: Any) -> Any:
    from matplotlib.patches import Patch
    return Patch(label=label, linewidth=0, **style)


def add_key(figure: Any, axis: Any, labels: Sequence[str], extra: Sequence[Any] = ()) -> None:
    """Names the lines: beside the axis, below the picture when the names are long or many, or by a scale of colours
    when they are more than anybody reads."""
    if len(labels) > MOST_NAMES:
        add_colour_scale(figure, labels)
        labels = []
    handles = [key_line(legend_text(label), color=colour, linewidth=2)
               for colour, label in zip(line_colours(len(labels)), labels)] + list(extra)
    longest = max(map(len, labels), default=0)
    if handles and len(labels) <= len(PALETTE) and longest <= BESIDE_LENGTH:
        legend_beside(axis, handles)
    elif handles:
        legend_below(figure, handles)


def legend_beside(axis: Any, handles: Sequence[Any]) -> None:
    axis.legend(handles=handles, loc="upper left", bbox_to_anchor=(1.01, 1), borderaxespad=0, fontsize="small")


def legend_below(figure: Any, handles: Sequence[Any]) -> None:
    """The picture grows by what the key takes."""
    longest = max(len(line) for handle in handles for line in handle.get_label().split("\n"))
    columns = max(1, min(len(handles), int(WIDTH_INCHES / (longest * CHAR_INCHES + 0.6))))
    inches = math.ceil(len(handles) / columns) * LINE_INCHES + 0.2
    width, height = figure.get_size_inches()
    figure.set_size_inches(width, height + inches)
    share = inches / (height + inches)
    figure.get_layout_engine().set(rect=(0, share, 1, 1 - share))
    figure.legend(handles=handles, loc="lower center", ncol=columns, fontsize="small", frameon=False)


def add_colour_scale(figure: Any, labels: Sequence[str]) -> None:
    from matplotlib import colors
    from matplotlib.cm import ScalarMappable
    colours = colours_of(line_colours(len(labels)))
    scale = figure.colorbar(ScalarMappable(colors.Normalize(0.5, len(labels) + 0.5), colours), ax=figure.axes[-1],
                            location="bottom", aspect=60, pad=0.02)
    ticks = (1, (len(labels) + 1) // 2, len(labels))
    scale.set_ticks(ticks, labels=[legend_text(f"{tick}: {labels[tick - 1]}", SCALE_LABEL_LENGTH) for tick in ticks])
    for text, side in zip(scale.ax.get_xticklabels(), ("left", "center", "right")):
        text.set(ha=side, fontsize="small")


# --- notes and scales ---

def note(axis: Any, text: str) -> None:
    """Says why the axis is empty, and lets it not look measured."""
    axis.set_yticks([])
    axis.text(0.5, 0.5, text, transform=axis.transAxes, ha="center", va="center", color="dimgray", fontsize="large")


def whole_ticks(axis: Any, most: int = 9) -> None:
    from matplotlib.ticker import MaxNLocator
    axis.set_major_locator(MaxNLocator(nbins=most, integer=True, steps=(1, 2, 5, 10)))


def number_axis(axis: Any, numbers: set[int]) -> None:
    """Whole numbers; a single one is named."""
    whole_ticks(axis.xaxis)
    if len(numbers) == 1:
        axis.set_xticks(list(numbers))


def log_ticks(axis: Any) -> None:
    from matplotlib.ticker import FuncFormatter, LogLocator, NullLocator
    low, high = axis.get_view_interval()
    axis.set_major_locator(LogLocator(subs=(1, 2, 5) if high < 2000 * low else (1,)))
    axis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:g}"))
    axis.set_minor_locator(NullLocator())


def time_scale(axis: Any, way: str, values: Values, room: float = 1.08) -> None:
    """The scale (way: x or y) of round trips: logarithmic when they span much, otherwise from 0."""
    if is_wide(values):
        getattr(axis, f"set_{way}scale")("log")
        log_ticks(getattr(axis, f"{way}axis"))
    elif len(values):
        getattr(axis, f"set_{way}lim")(0, max(room * max(values), 0.001))


def mark_outside(axis: Any, places: Sequence[Any], values: Values, end: float, unit: str, colour: str) -> None:
    """Ends the scale at `end` and says what lies beyond: marks at the top edge, and the largest value in words."""
    axis.set_ylim(0, end)
    beyond = [place for place, value in zip(places, values) if value > end]
    axis.plot(beyond, [0.975] * len(beyond), color=colour, marker="^", markersize=5, linestyle="none",
              transform=axis.get_xaxis_transform())
    outside_note(axis, outside_text(values, end, unit))


def outside_note(axis: Any, text: str) -> None:
    """At the right, under the top edge, where marks of what lies beyond may stand."""
    axis.text(0.99, 0.93, text, transform=axis.transAxes, ha="right", va="top", fontsize="small", color="dimgray",
              bbox={"facecolor": "white", "alpha": 0.8, "edgecolor": "none", "pad": 1.5})


def stretched(end: float) -> tuple[Callable[[Any], Any], Callable[[Any], Any]]:
    """To and from a scale of percents on which each further nine takes as much room as the one before; 100 % stays
    within reach when `end` is a little beyond it."""
    return (lambda share: -numpy.log10(end - numpy.minimum(share, end - 1e-9)),
            lambda place: end - 10.0 ** -numpy.asarray(place))


def stretch_shares(axis: Any, end: float, ticks: Sequence[float]) -> None:
    axis.set_yscale("function", functions=stretched(end))
    axis.set_ylim(0, 100, auto=False)
    axis.set_yticks(ticks, labels=[f"{tick:g} %" for tick in ticks])


def date_axis(axis: Any, low: datetime.datetime, high: datetime.datetime, what: str) -> None:
    """A time axis that spans low to high, at least a minute; its ticks are of the local clock, or of the times' own
    when they have no zone."""
    from dateutil.tz import tzlocal
    from matplotlib import dates
    if low == high:
        low, high = low - datetime.timedelta(seconds=30), high + datetime.timedelta(seconds=30)
        axis.set_xlim(low, high)
    zone = tzlocal() if low.tzinfo else None
    locator = dates.AutoDateLocator(minticks=3, maxticks=8, tz=zone)
    axis.xaxis.set_major_locator(locator)
    axis.xaxis.set_major_formatter(dates.ConciseDateFormatter(locator, tz=zone, show_offset=False))
    days = f"{low:%Y-%m-%d}" if low.date() == high.date() else f"{low:%Y-%m-%d} to {high:%Y-%m-%d}"
    axis.set_xlabel(f"{what}, local time, {days}")
