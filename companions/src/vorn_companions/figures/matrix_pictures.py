# SPDX-License-Identifier: MIT
"""The matrix as a picture: a map for each figure, the worse the darker."""

from vorn_companions.figures.canvas import legend_text
from vorn_companions.figures.matrix import FACES, Cell, matrix, silent_text, value_text, worst_text
from vorn_companions.figures.recorded import local_time

MOST_WRITTEN = 16  # hosts; with more the cells are too small for their figures
COLOURS = "YlOrRd"
GAPS = {"none": ("0.25", "dark: nothing arrived"), None: ("0.85", "grey: not measured")}
NAME_LENGTH = 18


def values_of(found, face):
    """Rows from, columns to; NaN where there is no figure."""
    import numpy
    values = numpy.full((len(found.hosts),) * 2, numpy.nan)
    for row, source in enumerate(found.hosts):
        for column, to in enumerate(found.hosts):
            value = found.cells.get((source, to), Cell()).shown(face.name)
            if value is not None and value != "none":
                values[row, column] = value
    return values


def norm_of(values, face):
    """From 0 on, and hosts that are alike look harmless; of losses the small ones are told apart."""
    import numpy
    from matplotlib import colors
    if face.name == "loss":
        return colors.PowerNorm(0.4, 0, 100)
    known = values[~numpy.isnan(values)]
    if not known.size or known.max() <= 0:
        return colors.Normalize(0, 1)
    return colors.Normalize(0, known.max() if face.low_is_worse else max(known.max(), 3 * numpy.median(known)))


def name_ticks(axis, hosts):
    step = max(1, len(hosts) // 50 + (len(hosts) > 50))
    places = range(0, len(hosts), step)
    names = [legend_text(hosts[place], NAME_LENGTH) for place in places]
    size = "small" if len(hosts) <= 20 else 6
    axis.set_xticks(places, names, rotation=90 if len(hosts) > 6 or max(map(len, names)) > 8 else 0, fontsize=size)
    axis.set_yticks(places, names, fontsize=size)
    axis.xaxis.tick_top()


def fill_gaps(axis, found, face):
    """Colours what has no figure, but for the diagonal; which kinds of gaps there are."""
    import numpy
    from matplotlib import colors
    kinds = list(GAPS)
    gaps = numpy.full((len(found.hosts),) * 2, numpy.nan)
    for row, source in enumerate(found.hosts):
        for column, to in enumerate(found.hosts):
            shown = found.cells.get((source, to), Cell()).shown(face.name)
            if source != to and shown in GAPS:
                gaps[row, column] = kinds.index(shown)
    axis.imshow(gaps, cmap=colors.ListedColormap([colour for colour, _ in GAPS.values()]), vmin=0, vmax=len(GAPS) - 1,
                interpolation="nearest")
    return [kind for number, kind in enumerate(kinds) if (gaps == number).any()]


def write_values(axis, found, face, values, norm):
    size = 9 if len(found.hosts) <= 8 else 6.5
    for row in range(len(found.hosts)):
        for column in range(len(found.hosts)):
            value = values[row, column]
            if value == value:
                share = norm(value)
                dark = (1 - share if face.low_is_worse else share) > 0.6
                axis.text(column, row, value_text(value, face), ha="center", va="center", fontsize=size,
                          color="white" if dark else "black")


def draw_face(figure, axis, found, face):
    values = values_of(found, face)
    norm = norm_of(values, face)
    image = axis.imshow(values, cmap=COLOURS + ("_r" if face.low_is_worse else ""), norm=norm, interpolation="nearest")
    gaps = fill_gaps(axis, found, face)
    if len(found.hosts) <= MOST_WRITTEN:
        write_values(axis, found, face, values, norm)
    name_ticks(axis, found.hosts)
    axis.set_title(f"{face.title}, {face.unit}", fontsize="medium")
    axis.set_ylabel("from (row) to (column)", fontsize="small")
    worst_pairs = worst_text(found, face).replace(", ", "\n").replace("$", r"\$")
    notes = ["worst: " + worst_pairs] * bool(worst_pairs) + [GAPS[kind][1] for kind in gaps]
    axis.set_xlabel("\n".join(notes), fontsize="small")
    scale = figure.colorbar(image, ax=axis, shrink=0.8)
    if face.name == "loss":
        scale.set_ticks([0, 0.1, 1, 5, 20, 50, 100])


def draw_matrix(paths, args):
    from matplotlib.figure import Figure
    found = matrix(paths, args)
    side = min(7.5, 3.2 + 0.28 * len(found.hosts))
    figure = Figure(figsize=(3 * side + 3, side + 1.6), layout="constrained")
    figure.get_layout_engine().set(w_pad=0.1, h_pad=0.1)
    title = args.title or f"From host to host, {local_time(found.first_usec):%Y-%m-%d %H:%M} to " \
                          f"{local_time(found.last_usec):%Y-%m-%d %H:%M}"
    figure.suptitle(title.replace("$", r"\$"))
    if silent_text(found):
        figure.supxlabel(legend_text(silent_text(found), 150), fontsize="small")
    for axis, face in zip(figure.subplots(1, len(FACES)), FACES):
        draw_face(figure, axis, found, face)
    return figure
