# SPDX-License-Identifier: MIT
"""What all pictures share: axes, colours, keys, notes and scales."""

import datetime

from vorn_companions.figures.computed import outside_text

PALETTE = ("tab:blue", "tab:orange", "tab:green", "tab:purple", "tab:brown", "tab:cyan", "tab:olive", "tab:pink",
           "tab:gray", "black")
BAD_COLOUR = "crimson"
LABEL_LENGTH = 44
SCALE_LABEL_LENGTH = 28
SCALE_END = 0.93  # the brightest yellow beyond it is lost on white
RASTER_POINTS = 20000  # an SVG with more points than this takes minutes to open


def legend_text(label, length=LABEL_LENGTH):
    """A label as matplotlib shows it to the letter: no formulas, no hidden entries, no endless line."""
    short = label if len(label) <= length else label[:length - 3] + "..."
    return (" " if short.startswith("_") else "") + short.replace("$", r"\$")


def new_figure(title, height, rows=1, ratios=None, sharex=True):
    from matplotlib.figure import Figure
    figure = Figure(figsize=(10, height), layout="constrained")
    figure.get_layout_engine().set(w_pad=0.1, h_pad=0.1)
    axes = figure.subplots(rows, 1, sharex=sharex, squeeze=False, gridspec_kw={"height_ratios": ratios or [1] * rows})
    figure.suptitle(title.replace("$", r"\$"))
    for axis in axes[:, 0]:
        axis.grid(True, alpha=0.3)
        axis.ticklabel_format(useOffset=False, style="plain")
    figure.align_ylabels()
    return figure, list(axes[:, 0])


def line_colours(count):
    if count <= len(PALETTE):
        return PALETTE[:count]
    from matplotlib import cm
    return [cm.viridis(SCALE_END * index / (count - 1)) for index in range(count)]


def add_key(figure, axis, labels, extra=()):
    """Name the lines: a legend beside the axis, or a colour scale when there are too many for one."""
    from matplotlib.lines import Line2D
    many = len(labels) > len(PALETTE)
    handles = [] if many else [Line2D([], [], color=colour, linewidth=2, label=legend_text(label))
                               for colour, label in zip(line_colours(len(labels)), labels)]
    handles += extra
    if handles:
        axis.legend(handles=handles, loc="upper left", bbox_to_anchor=(1.01, 1), borderaxespad=0, fontsize="small")
    if many:
        add_colour_scale(figure, labels)


def add_colour_scale(figure, labels):
    from matplotlib import cm, colors
    colours = colors.ListedColormap(line_colours(len(labels)))
    scale = figure.colorbar(cm.ScalarMappable(colors.Normalize(0.5, len(labels) + 0.5), colours), ax=figure.axes[-1],
                            location="bottom", aspect=60, pad=0.02)
    ticks = (1, (len(labels) + 1) // 2, len(labels))
    scale.set_ticks(ticks, labels=[legend_text(f"{tick}: {labels[tick - 1]}", SCALE_LABEL_LENGTH) for tick in ticks])
    for text, side in zip(scale.ax.get_xticklabels(), ("left", "center", "right")):
        text.set(ha=side, fontsize="small")


def note(axis, text):
    """Say why the axis is empty, and let it not look measured."""
    axis.set_yticks([])
    axis.text(0.5, 0.5, text, transform=axis.transAxes, ha="center", va="center", color="dimgray", fontsize="large")


def whole_ticks(axis, most=9):
    from matplotlib.ticker import MaxNLocator
    axis.set_major_locator(MaxNLocator(nbins=most, integer=True, steps=(1, 2, 5, 10)))


def log_ticks(axis):
    from matplotlib.ticker import FuncFormatter, LogLocator, NullLocator
    low, high = axis.get_view_interval()
    axis.set_major_locator(LogLocator(subs=(1, 2, 5) if high < 2000 * low else (1,)))
    axis.set_major_formatter(FuncFormatter(lambda value, _: f"{value:g}"))
    axis.set_minor_locator(NullLocator())


def mark_outside(axis, places, values, end, unit, colour):
    """Ends the scale at `end` and says what lies beyond: marks at the top edge, and the largest value in words."""
    axis.set_ylim(0, end)
    beyond = [place for place, value in zip(places, values) if value > end]
    axis.plot(beyond, [0.975] * len(beyond), color=colour, marker="^", markersize=5, linestyle="none",
              transform=axis.get_xaxis_transform())
    outside_note(axis, outside_text(values, end, unit))


def outside_note(axis, text):
    """At the right, under the top edge, where marks of what lies beyond may stand."""
    axis.text(0.99, 0.93, text, transform=axis.transAxes, ha="right", va="top", fontsize="small", color="dimgray",
              bbox={"facecolor": "white", "alpha": 0.8, "edgecolor": "none", "pad": 1.5})


# The ticks of a time axis that spans less than so many seconds.
DATE_FORMATS = ((600, "%H:%M:%S"), (86400, "%H:%M"), (3 * 86400, "%b %d %H:%M"), (400 * 86400, "%b %d"),
                (float("inf"), "%Y-%m"))


def date_axis(axis, low, high, what):
    """A time axis from low to high (local time), its unit on each tick and the date beside its name."""
    from matplotlib import dates
    if low == high:
        low, high = low - datetime.timedelta(seconds=30), high + datetime.timedelta(seconds=30)
        axis.set_xlim(low, high)
    span = (high - low).total_seconds()
    form = next(form for limit, form in DATE_FORMATS if span < limit)
    most = 6 if form.startswith("%b %d %H") or span < 3 else 8
    axis.xaxis.set_major_locator(dates.AutoDateLocator(minticks=3, maxticks=most))
    axis.xaxis.set_major_formatter(lambda place, _: f"{dates.num2date(place):%H:%M:%S.%f}"[:-3] if span < 3
                                   else dates.num2date(place).strftime(form))
    days = f"{low:%Y-%m-%d}" if low.date() == high.date() else f"{low:%Y-%m-%d} to {high:%Y-%m-%d}"
    axis.set_xlabel(f"{what}, local time, {days}")
