# vorn-plot: what it reads from each kind of file, the figures it makes of them, and its pictures.
import math, pathlib, random, re, signal, subprocess, sys

import pytest

PROGRAM = pathlib.Path(__file__).resolve().parents[2] / "plot" / "vorn-plot"
sys.path.insert(0, str(PROGRAM.parent))
from vornplot import figures, plot, reader, words

NAMES = ("Vorn Version,Filename,Protocol,Bad Samples,Packets Lost,Packets Lost(Bad Samples),Batches,Batch Size,"
         "Frame IP Length,usecs between frames,Test Time,Date,Tag,")
RESULTS = NAMES + "".join(f"{n / 10:4.1f}%," for n in [*range(0, 1000, 10), *range(991, 1001)]) + "\n"
HISTOGRAM = NAMES + "".join(f"{label}," for label in range(1, 101)) + "\n"
RATES = [100.0 - index / 2 for index in range(110)]  # Mbit/s: 100.0 in the best batch, 45.5 in the worst
BANNER = "Vorn version 5.2, a notice\nBuilt Jan  5 2026 at 09:00:00\nDestination IP = 10.0.0.2\n"
COLUMNS, SILENT = " 94.0  93.9  91.8  91.2 123456.7  52.0  41.6 ", "    1:*** Rx 0, Lost 50\n"
TIMEOUT = "           1: TIMEOUT in  0.200031s, expected rsp from 10.0.0.2\n"


def row(values, name="r.csv", tag="NULL", bad=3, batches=100, day=5):
    what, when = ["5.2", name, "udp", bad, 12, 140, batches, 50, 1500, 1], f"Mon Jan {day:2} 09:30:00 2026"
    fields = [*what, "  12.500s", when, tag, *values]
    return "".join(f"{field:4.1f}," if isinstance(field, float) else f"{field}," for field in fields) + "\n"


def short_line(number, mark, received, rate, columns="", buffers=""):
    return (f"{number:5}:{mark} Pkts: {received:3}/50   {rate:5.1f} mbps  {columns}   1.5 msec {buffers}"
            "  Lost: 0      Bad Samples: 1\n")


def verbose_line(number, mark, lost, rate, columns):
    return (f"{number:5}:{mark}|    1    X    3    4    5    6    | {lost:3}/ 50   8.00% lost,   0 late  4000.0 rx/s, "
            f"{rate:5.1f} Mbps D=0.012, m/M/a   0.010/  0.900/  0.250, {columns}   2.5 msec {columns}\n")


def answer(sequence, seconds, name=" Echo Reply "):
    return f"{sequence:12}: Received {name} in {seconds:9.6f}s from 10.0.0.2\n"


@pytest.fixture
def read(tmp_path):
    def read_text(text):
        (tmp_path / "f").write_bytes(text.encode())
        return reader.read_source(str(tmp_path / "f")).items
    return read_text


def test_results_rows_are_read_whatever_their_ends(read):
    first, second = read((RESULTS + row(RATES, tag="a") + "\n" + row(RATES)).replace(",", "\t").replace("\n", "\r\n"))
    assert (first.bad_samples, first.lost, first.lost_in_bad, first.batches, first.delay_usec) == (3, 12, 140, 100, 1)
    shares = (0.0, 50.0, 99.0, 99.1, 100.0)
    assert [figures.rate_at(second, share) for share in shares] == [100.0, 75.0, 50.5, 50.0, 45.5]
    # No header, separators in the name and the tag, spreadsheet padding, and a row that was cut after 50 %.
    ragged = read(row(RATES, "udp,1/r.csv", "east, 2") + row(RATES)[:-1] + ",,,\n" + row(RATES[:51]))
    assert [(r.tag, r.values) for r in ragged] == [("east, 2", RATES), ("NULL", RATES), ("NULL", RATES[:51])]
    lower = "".join(row([max(0.0, rate - drop) for rate in RATES]) for drop in (0, 30, 10, 200))  # the last has no rate
    assert [line[99] for line in figures.rate_lines(read(lower), "tag").values()] == [(99.0, 20.5, 40.5, 50.5)]


def test_histogram_counts_belong_to_the_bins_below_their_label(read):
    one, none, wide = read(HISTOGRAM + row([0] * 12 + [60, 40]) + row([], bad=50, batches=50) + row([0] * 250 + [100]))
    assert figures.joined_bins(one.values, 12, 13, 1) == ([11, 12, 13], [60, 40]) and none.values == []
    assert figures.joined_bins(wide.values, 250, 250, 2) == ([248, 250], [100])


def test_batches_are_read_from_every_style_of_line(read):
    first, second = read(BANNER + "Engaging options: -c\n\n" + short_line(2, " ", 49, 94.1, COLUMNS)
                         + "  3:           7: Received  Data  in  0.000120s from 10.0.0.2\nFlushed 3 frames\n"
                         + short_line(3, "*", 48, 12345.6, COLUMNS, COLUMNS) + "    4:*** Rx 1, Lost 49\n"
                         + verbose_line(51, "*", 5, 47.2, COLUMNS) + "    1:*** Rx 1, Lost 0\n")
    assert [(b.number, b.bad, b.received, b.rate, b.buffer) for b in first.items] == [
        (2, False, 49, 94.1, 1.5), (3, True, 48, 12345.6, 1.5), (4, True, 1, None, None), (51, True, 45, 47.2, 2.5)]
    assert figures.good_rates(first) == [94.1] and not second.items[0].bad  # its only packet came


def test_round_trips_their_gaps_and_percentiles(read):
    first, second = read(BANNER + answer(0, 0.0105, "TTL Exceeded") + TIMEOUT + answer(2, 0.002) + answer(5, 0.001)
                         + "In  1.000000s, 9 tx pkts, 3 rx pkts, 6 missing, 0 invalid\n" + answer(0, 1.5))
    assert [r.answer for r in first.items] == ["TTL Exceeded", "", "Echo Reply", "Echo Reply"] and second.sent == 1
    line = [(sequence, None if math.isnan(time) else time) for sequence, time in zip(*figures.with_gaps(first.items))]
    assert line == [(0, 10.5), (1, None), (2, 2.0), (3, None), (5, 1.0)]
    assert [figures.percentile(range(1, 1001), percent) for percent in (50, 95, 99, 100)] == [500, 950, 990, 1000]


@pytest.mark.parametrize("text, complaint", [
    ("", "1: empty"), (RESULTS, "1: a header without"), (row(RATES).replace(",50,", ",x,"), "1: Batch Size: 'x'"),
    (row(RATES).replace("75.0", "7\x1b.0"), "1: value 51: '7?.0'"), (row(RATES) + "x\n", "2: not a row"),
    (HISTOGRAM + row([0, 99]), "2: the counts"), (TIMEOUT[:30] + "\n", "1: a damaged"),
    (answer(0, 1) + SILENT, "2: a line")])
def test_what_cannot_be_read_is_named_with_its_line(read, tmp_path, text, complaint):
    with pytest.raises(words.Unreadable, match="^" + re.escape(f"{tmp_path}/f:{complaint}")):
        read(text)


@pytest.mark.parametrize("arguments, status, complaint", [("--text r.csv", 0, ""), ("-o x.png r.csv", 1, "python3-")])
def test_command_line_without_matplotlib(tmp_path, arguments, status, complaint):
    (tmp_path / "r.csv").write_text(RESULTS + row(RATES, tag="\x1b[2Jnight"))
    (tmp_path / "matplotlib.py").write_text("raise ImportError\n")
    here = {"env": {"PYTHONPATH": str(tmp_path)}, "cwd": tmp_path}
    done = subprocess.run([PROGRAM, *arguments.split()], capture_output=True, text=True, check=False, **here)
    assert done.returncode == status and complaint in done.stderr and bool(complaint) == bool(done.stderr)
    assert ("?[2Jnight      100.0    75.0    55.0" in done.stdout) == (status == 0) and "\x1b" not in done.stdout


MANY = "".join(row([rate + n for rate in RATES], tag=f"_$site {n}$", day=n + 1) for n in range(20))


@pytest.mark.parametrize("figure, texts", [
    *[(figure, (row(RATES), MANY, row([0.0] * 110))) for figure in ("rate", "trend")],
    ("histogram", (row([0, 100]), HISTOGRAM + row([0] * 9000 + [100]) * 20, row([], bad=50, batches=50))),
    ("batches", (short_line(1, " ", 50, 94.0), short_line(1, " ", 50, 94.0) * 20, SILENT)),
    ("echo", (answer(0, 0.1), (answer(0, 0.1) + TIMEOUT + answer(2, 9.0)) * 20, TIMEOUT))])
@pytest.mark.filterwarnings("error")
def test_pictures_of_one_of_many_and_of_nothing_draw_without_warning(tmp_path, figure, texts):
    for text in texts:
        (tmp_path / "in").write_text(text)
        for picture in ("one.svg", "two.svg", "three.png"):
            plot.main(["-k", figure, "-o", str(tmp_path / picture), str(tmp_path / "in")])
        assert (tmp_path / "one.svg").read_bytes() == (tmp_path / "two.svg").read_bytes()


TRACE = (BANNER + answer(0, 0.0001, "TTL Exceeded") + TIMEOUT + answer(2, 0.0003) + answer(3, 0.0004))
SWEEP = ("Start IP= 10.0.0.1  End IP= 10.0.0.9\n" + answer(1, 0.0001) + answer(3, 3.0, "Destination Unreachable")
         + "In  1.000000s, 9 tx pkts, 2 rx pkts, 7 missing, 0 invalid\n")


def test_sweeps_and_traces_name_hosts_and_the_silent_ones(read, tmp_path, capsys):
    def rows(text):
        return [(row.first, row.last, row.host, row.answer, len(row.times)) for row in figures.host_rows(read(text)[0])]
    first = answer(0, 0.0001, "TTL Exceeded").replace("10.0.0.2", "10.0.0.7")
    assert rows(TRACE.replace(answer(0, 0.0001, "TTL Exceeded"), first)) == [
        (0, 0, "10.0.0.7", "TTL Exceeded", 1), (1, 1, "", "no answer", 0), (2, 3, "10.0.0.2", "Echo Reply", 2)]
    assert rows(SWEEP) == [
        (0, 0, "10.0.0.1", "no line", 0), (1, 1, "10.0.0.2", "Echo Reply", 1), (2, 2, "10.0.0.3", "no line", 0),
        (3, 3, "10.0.0.4 (says 10.0.0.2)", "Destination Unreachable", 1), (4, 8, "10.0.0.5 to 10.0.0.9", "no line", 0)]
    # Two requests a host, stopped in the middle; addresses that do not follow from the range are not made up.
    two = "Start IP= 10.0.0.2  End IP= 10.0.0.3\n" + answer(1, 0.1) + SWEEP[-60:].replace("9 tx", "4 tx")
    assert rows(two)[-1] == (2, 3, "10.0.0.3", "no line", 0)
    assert rows(SWEEP.replace(answer(1, 0.0001), answer(2, 0.0001)))[0] == (0, 1, "", "no line", 0)
    plot.main(["--text", "-o", str(tmp_path / "hosts.png"), str(tmp_path / "f")])
    assert "Destination Unreachable" in capsys.readouterr().out


def test_what_is_cut_off_or_foreign_is_named_and_not_read(tmp_path):
    def notes(text):
        (tmp_path / "f").write_text(text)
        source = reader.read_source(str(tmp_path / "f"))
        return [note.removeprefix(f"{tmp_path}/f:") for note in source.notes], len(source.items[0].items if hasattr(
            source.items[0], "items") else source.items)
    assert notes(answer(0, 1) + answer(1, 1)[:-1]) == (["2: the last line is cut off: '1: Received  Echo Reply  in  "
                                                        "1.000000s from 10.0.0.2'"], 1)
    assert notes(answer(0, 1) + "$ ls\n") == (["2: not understood: '$ ls'"], 1)
    assert notes(RESULTS + row(RATES) + row(RATES)[:-9]) == (
        ["3: the last row is cut off, after '.0,47.5,47.0,46.5,46'"], 1)
    assert notes(row(RATES)[:-1]) == ([], 1) and notes(row([0, 100])[:-1]) == ([], 1)
    with pytest.raises(words.Unreadable, match="f:1: two rows on one line"):
        notes(row(RATES)[:-300] + row(RATES))
    with pytest.raises(words.Unreadable, match="f:1: no whole row; .*:2: the last row is cut off"):
        notes(RESULTS + row(RATES)[:-3])


def test_ctrl_c_ends_the_pipe_and_shows_what_came():
    process = subprocess.Popen([PROGRAM, "--text", "-"], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                               preexec_fn=lambda: signal.signal(signal.SIGINT, signal.default_int_handler))
    process.stdin.write((answer(0, 0.001) * 2000).encode())  # more than a pipe holds: some of it has been read
    process.stdin.flush()
    process.send_signal(signal.SIGINT)
    assert b"answers" in process.stdout.read() and process.wait() == 0
    process.stdin.close()


def test_stray_values_do_not_set_the_scale():
    assert figures.scale_end([94.0] * 198 + [9e4] * 2) == 1.25 * 94
    assert figures.scale_end([94.0, 9e4, 95.0]) == 1.25 * 95
    assert figures.scale_end(range(200)) is None and figures.scale_end([94.0, 9e4]) is None
    assert figures.outside_text([1, 2, 9e4], 3, "ms") == "1 beyond the scale, up to 90000 ms"


@pytest.mark.parametrize("seed", range(4))
def test_damaged_input_is_refused_or_read_right(tmp_path, seed):
    """Cut anywhere, files have a beginning of their items or are refused; nothing else comes out of any damage."""
    chance = random.Random(seed)
    texts = [TRACE, SWEEP, RESULTS + row(RATES, tag="a") + row(RATES), HISTOGRAM + row([0, 100]) + row([0, 60, 40]),
             BANNER + short_line(1, " ", 50, 94.1, COLUMNS) + SILENT[:-1].replace("1:", "2:") + "\n"
             + verbose_line(3, "*", 5, 47.2, COLUMNS)]

    def items(text):
        (tmp_path / "f").write_text(text)
        try:
            found = reader.read_source(str(tmp_path / "f")).items
        except words.Unreadable:
            return []
        return [item for each in found for item in getattr(each, "items", [each])]
    for text in texts:
        whole = items(text)
        assert whole
        for _ in range(60):
            part = items(text[:chance.randrange(len(text))])
            assert part == whole[:len(part)]
        for _ in range(60):
            lines = text.splitlines(keepends=True)
            chance.choice((
                lambda: lines.insert(chance.randrange(len(lines)), chance.choice(texts).splitlines(True)[-1]),
                lambda: lines.pop(chance.randrange(len(lines))), lambda: chance.shuffle(lines),
                lambda: lines.__setitem__(0, lines[0][chance.randrange(len(lines[0])):]),
                lambda: lines.insert(0, bytes(chance.randrange(256) for _ in range(30)).decode("latin-1"))))()
            known = {repr(item) for each in texts for item in items(each)}
            # A row says on which line it stood; everything else is a record of a whole line.
            assert all(repr(item) in known or hasattr(item, "line") for item in items("".join(lines)))
