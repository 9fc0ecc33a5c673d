"""vorn-plot: what it reads from each kind of file, the figures it makes of them, and its pictures."""
import pathlib
import runpy
import subprocess
import types

import pytest

PROGRAM = pathlib.Path(__file__).resolve().parents[2] / "plot" / "vorn-plot"
plot = types.SimpleNamespace(**runpy.run_path(str(PROGRAM)))

NAMES = ("Vorn Version,Filename,Protocol,Bad Samples,Packets Lost,Packets Lost(Bad Samples),Batches,Batch Size,"
         "Frame IP Length,usecs between frames,Test Time,Date,Tag,")
RESULTS = NAMES + "".join(f"{n / 10:4.1f}%," for n in [*range(0, 1000, 10), *range(991, 1001)]) + "\n"
HISTOGRAM = NAMES + "".join(f"{label}," for label in range(1, 101)) + "\n"
RATES = [100.0 - index / 2 for index in range(110)]  # Mbit/s: 100.0 in the best batch, 45.5 in the worst
NOTHING = [0.0] * 110
BANNER = "Vorn version 5.2, a notice\nBuilt Jan  5 2026 at 09:00:00\nDestination IP = 10.0.0.2\n"
COLUMNS = " 94.0  93.9  91.8  91.2 123456.7  52.0  41.6 "
SILENT = "    1:*** Rx 0, Lost 50\n"
TIMEOUT = "           1: TIMEOUT in  0.200031s, expected rsp from 10.0.0.2\n"
GRAPH = "|    1    X    3    4    5    6    |"


def row(values, name="r.csv", tag="NULL", bad=3, batches=100, day=5):
    date = f"Mon Jan {day:2} 09:30:00 2026"
    fields = ["5.2", name, "udp", bad, 12, 140, batches, 50, 1500, 1, "  12.500s", date, tag, *values]
    return "".join(f"{field:4.1f}," if isinstance(field, float) else f"{field}," for field in fields) + "\n"


def short_line(number, mark, received, rate, columns="", buffers=""):
    return (f"{number:5}:{mark} Pkts: {received:3}/50   {rate:5.1f} mbps  {columns}   1.5 msec {buffers}"
            "  Lost: 0      Bad Samples: 1\n")


def verbose_line(number, mark, lost, rate, columns):
    return (f"{number:5}:{mark}{GRAPH} {lost:3}/ 50   8.00% lost,   0 late  4000.0 rx/s, {rate:5.1f} Mbps "
            f"D=0.012, m/M/a   0.010/  0.900/  0.250, {columns}   2.5 msec {columns}\n")


def answer(sequence, seconds, name=" Echo Reply "):
    return f"{sequence:12}: Received {name} in {seconds:9.6f}s from 10.0.0.2\n"


@pytest.fixture
def read(tmp_path):
    def read_text(text):
        (tmp_path / "f").write_bytes(text.encode())
        return plot.read_source(str(tmp_path / "f")).items
    return read_text


def test_results_rows_are_read_whatever_their_ends(read):
    first, second = read((RESULTS + row(RATES, tag="a") + "\n" + row(RATES)).replace(",", "\t").replace("\n", "\r\n"))
    assert (first.bad_samples, first.lost, first.lost_in_bad, first.batches, first.delay_usec) == (3, 12, 140, 100, 1)
    assert (first.test_time, first.date.isoformat(), first.tag) == (12.5, "2026-01-05T09:30:00", "a")
    assert [plot.rate_at(second, share) for share in (0.0, 50.0, 99.0, 99.1, 100.0)] == [100.0, 75.0, 50.5, 50.0, 45.5]
    # No header, separators in the name and the tag, spreadsheet padding, and a row that was cut after 50 %.
    ragged = read(row(RATES, "udp,1/r.csv", "east, 2") + row(RATES)[:-1] + ",,,\n" + row(RATES[:51]))
    assert [(r.name, r.tag, r.values) for r in ragged] == [
        ("udp,1/r.csv", "east, 2", RATES), ("r.csv", "NULL", RATES), ("r.csv", "NULL", RATES[:51])]
    assert (plot.rate_at(ragged[2], 50.0), plot.rate_at(ragged[2], 51.0)) == (75.0, None)


def test_rates_by_tag_are_median_and_range_and_skip_tests_without_a_rate(read):
    lower = [row([rate - drop for rate in RATES], tag="a", day=drop + 1) for drop in (0, 30, 10)]
    rows = read(RESULTS + "".join(lower) + row(NOTHING, tag="a", day=9) + row(NOTHING, tag="b"))
    assert [line[99:100] for line in plot.rate_lines(rows, "tag").values()] == [[(99.0, 20.5, 40.5, 50.5)], []]
    assert list(plot.rate_lines(rows, None))[3:] == ["a, 2026-01-09 09:30:00", "b"]
    assert list(plot.rate_lines(rows * 3, None)) == ["a (12 tests)", "b (3 tests)"]


def test_histogram_counts_belong_to_the_bins_below_their_label(read):
    rows = read(HISTOGRAM + row([0] * 12 + [60, 40]) + row([2, 98], tag="floor,7", bad=0) + row([], bad=50, batches=50)
                + row([0] * 250 + [100], tag="lab, 5") + row([0, 97]))
    assert [f"{r.tag}/{len(r.values)}" for r in rows] == ["NULL/14", "floor,7/2", "NULL/0", "lab, 5/251", "NULL/2"]
    assert plot.joined_bins(rows[0].values, 12, 13, 1) == ([11, 12, 13], [60, 40])
    assert plot.joined_bins(rows[0].values, 0, 13, 5) == ([-5, 0, 5, 10, 15], [0, 0, 0, 100])
    assert plot.joined_bins(rows[3].values, 250, 250, 2) == ([248, 250], [100])
    assert plot.used_bins({"a": rows[0].values, "b": rows[3].values, "c": []}) == (12, 250)
    assert plot.histograms([rows[0], rows[4]], "tag") == {"no tag": [0, 97] + [0] * 10 + [60, 40]}


def test_batches_are_read_from_every_style_of_line(read):
    labels = " " * 35 + "  0.0  50.0  90.0  95.0  98.0  99.0  99.9 " + " " * 12 + "\n" + " " * 12
    first, second, third = read(BANNER + "Engaging options: -c\n\n" + short_line(2, " ", 49, 94.1, COLUMNS)
                         + "  3:           7: Received  Data  in  0.000120s from 10.0.0.2\nFlushed 3 frames\n"
                         + short_line(3, "*", 48, 12345.6, COLUMNS, COLUMNS) + "    4:*** Rx 1, Lost 49\n" + labels
                         + short_line(50, " ", 51, 0.0) + verbose_line(51, "*", 5, 47.2, COLUMNS)
                         + verbose_line(52, " ", 0, 48.0, "").rstrip()
                         + f"\n   53:*{GRAPH}   53:*** Rx 0, Lost 50\n\n" + "    1:*** Rx 1, Lost 0\n" * 2)
    assert [(b.number, b.bad, b.received, b.rate, b.buffer) for b in first.items] == [
        (2, False, 49, 94.1, 1.5), (3, True, 48, 12345.6, 1.5), (4, True, 1, None, None), (50, False, 51, 0.0, 1.5),
        (51, True, 45, 47.2, 2.5), (52, False, 50, 48.0, 2.5), (53, True, 0, None, None)]
    assert plot.good_rates(first) == [0.0, 48.0, 94.1] and [first.label, third.label] == ["f run 1", "f run 3"]
    assert not second.items[0].bad  # the only packet of its batch came


def test_round_trips_their_gaps_and_percentiles(read):
    first, second = read(BANNER + answer(0, 0.0105, "TTL Exceeded") + TIMEOUT + answer(2, 0.002) + answer(5, 0.001)
                         + "In  1.000000s, 9 tx pkts, 3 rx pkts, 6 missing, 0 invalid\n" + answer(0, 1.5))
    assert [r.answer for r in first.items] == ["TTL Exceeded", "", "Echo Reply", "Echo Reply"] and second.sent == 1
    line = [(sequence, None if plot.math.isnan(time) else time) for sequence, time in zip(*plot.with_gaps(first.items))]
    assert line == [(0, 10.5), (1, None), (2, 2.0), (3, None), (5, 1.0)]
    assert plot.echo_counts(first) == "9 sent, 3 answers, 1 time-outs, 5 without a line"
    assert [plot.percentile(range(1, 1001), percent) for percent in (50, 95, 99, 100)] == [500, 950, 990, 1000]
    for times in ([0.0, 1.0, 1.0, 2.0], [0.1, 0.2, 90.0], [3.0, 3.0]):  # even, wide, one value: none falls out
        assert sum(plot.bin_counts(times, plot.rtt_edges(times, 20))) == len(times)


@pytest.mark.parametrize("text, complaint", [
    ("", "1: empty"), ("hello\n", "1: neither"), (RESULTS, "1: a header without a row"),
    (RESULTS + row(RATES) + row(RATES).replace(",50,", ",x,"), "3: Batch Size: 'x'"),
    ("5.2,r.csv,udp,\n", "1: the row does not hold"), (RESULTS + row([]), "2: the row holds no percentile"),
    (row(RATES).replace("Jan", "Foo"), "1: Date: 'Mon"), (row(RATES).replace("75.0", "7\x1b.0"), "1: value 51: '7?.0'"),
    (row(RATES) + "x\n", "2: not a row"), (RESULTS + row(RATES) + HISTOGRAM, "3: the header of a histogram"),
    (HISTOGRAM + row([0, 60, 39]), "2: the counts do not"), (HISTOGRAM + row([0, "x", 99]), "2: the counts do not"),
    ("Test complete! Total\n", "1: no line for any batch"), ("Min = \n", "1: no line for any request"),
    ("Monitor locked on 10.0.0.9, id 7\n", "1: the output of a monitor"), (TIMEOUT[:30], "1: a damaged line"),
    (BANNER + short_line(1, " ", 50, 94.0)[:40], "4: a damaged line"), (answer(0, 1) + SILENT, "2: a line of")])
def test_what_cannot_be_read_is_named_with_its_line(read, tmp_path, text, complaint):
    with pytest.raises(SystemExit) as refusal:
        read(text)
    assert str(refusal.value).startswith(f"{tmp_path}/f:{complaint}")


@pytest.mark.parametrize("arguments, status, complaint", [
    ("--text r.csv e.txt", 0, ""), ("r.csv", 2, "nothing to do"), ("-o x.pdf r.csv", 2, ".png or .svg"),
    ("-o x.png r.csv e.txt", 2, "one kind of file"), ("--text gone", 1, "gone: No such file"),
    ("--text -k trend e.txt", 1, "e.txt:1: saved echo-mode output;"), ("-o x.png r.csv", 1, "python3-matplotlib")])
def test_command_line_without_matplotlib(tmp_path, arguments, status, complaint):
    (tmp_path / "r.csv").write_text(RESULTS + row(RATES, tag="\x1b[2Jnight"))
    (tmp_path / "e.txt").write_text(answer(0, 0.25))
    (tmp_path / "matplotlib.py").write_text("raise ImportError\n")
    done = subprocess.run([PROGRAM, *arguments.split()], env={"PYTHONPATH": str(tmp_path)},
                          cwd=tmp_path, capture_output=True, text=True, check=False)
    assert done.returncode == status and complaint in done.stderr and bool(complaint) == bool(done.stderr)
    shown = "?[2Jnight      100.0    75.0    55.0" in done.stdout and "     250.000" in done.stdout
    assert shown == (status == 0) and "\x1b" not in done.stdout


MANY = RESULTS + "".join(row([rate + n for rate in RATES], tag=f"_$site {n}$", day=n + 1) for n in range(20))


@pytest.mark.parametrize("figure, texts", [
    ("rate", (row(RATES), MANY, row(NOTHING))), ("trend", (row(RATES), MANY, row(NOTHING))),
    ("histogram", (row([0, 100]), HISTOGRAM + row([0] * 9000 + [100]) * 20, row([], bad=50, batches=50))),
    ("batches", (short_line(1, " ", 50, 94.0), short_line(1, " ", 50, 94.0) * 20, SILENT)),
    ("echo", (answer(0, 0.1), (answer(0, 0.1) + TIMEOUT + answer(2, 9.0)) * 20, TIMEOUT))])
@pytest.mark.filterwarnings("error")
def test_pictures_of_one_of_many_and_of_nothing_draw_without_warning(tmp_path, figure, texts):
    one, two, three = (tmp_path / name for name in ("one.svg", "two.svg", "three.png"))
    for text in texts:
        (tmp_path / "in").write_text(text)
        for picture in (one, two, three):
            plot.main(["-k", figure, "-o", str(picture), str(tmp_path / "in")])
        assert one.read_bytes() == two.read_bytes() and three.read_bytes().startswith(b"\x89PNG")


def test_the_tail_of_the_share_axis_can_be_read(read):
    axis = plot.draw_rate(read(row(RATES, tag="_$x$")), types.SimpleNamespace(by=None, title=None)).axes[0]
    places = (axis.transData - axis.transAxes).transform([(70, share) for share in (0, 90, 99, 99.9, 100)])[:, 1]
    assert (places[0], places[4]) == pytest.approx((0, 1)) and min(places[1:] - places[:-1]) > 0.12
    assert axis.get_legend().get_texts()[0].get_text() == r" _\$x\$"
