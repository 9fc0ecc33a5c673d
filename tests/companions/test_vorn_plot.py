# vorn-plot: what it reads from each kind of file, the figures it makes of them, and its pictures.
import contextlib, math, random, re, signal, subprocess

import pytest
from companions import BANNER, ERROR, HOP, answer, batch, companion, draw, silent_batch, timed_out, totals
from lab import VERSION, Program
from vorn_companions import words
from vorn_companions.commands import plot
from vorn_companions.figures import echo, histogram, hosts, numbers, rate, rows as tests
from vorn_companions.figures.batches import good, rate_of
from vorn_companions.figures.units import MILLISECONDS
from vorn_companions.read import files
from vorn_companions.read.records import Sources

NAMES = ("Vorn Version,Filename,Protocol,Bad Samples,Packets Lost,Packets Lost(Bad Samples),Batches,Batch Size,"
         "Frame IP Length,usecs between frames,Test Time,Date,Tag,")
RESULTS = NAMES + "".join(f"{n / 10:4.1f}%," for n in [*range(0, 1000, 10), *range(991, 1001)]) + "\n"
HISTOGRAM = NAMES + "".join(f"{label}," for label in range(1, 101)) + "\n"
RATES = [100.0 - index / 2 for index in range(110)]  # Mbit/s: 100.0 in the best batch, 45.5 in the worst
COLUMNS = " 94.0  93.9  91.8  91.2 123456.7  52.0  41.6 "  # what -b and -B add to the line of a batch


def row(values, name="r.csv", tag="NULL", bad=3, batches=100, day=5):
    when = f"Mon Jan {day:2} 09:30:00 2026"
    fields = [VERSION, name, "udp", bad, 12, 140, batches, 50, 1500, 1, "  12.500s", when, tag, *values]
    return "".join(f"{field}," for field in fields) + "\n"


def verbose_batch(number, mark, lost, rate):
    return (f"{number:5}:{mark}|    1    X    3    4    5    6    | {lost:3}/ 50   8.00% lost,   0 late  4000.0 rx/s, "
            f"{rate:5.1f} Mbps D=0.012, m/M/a   0.010/  0.900/  0.250, {COLUMNS}   2.5 msec {COLUMNS}\n")


def sweep(first, last):
    return f"Start IP= {first}  End IP= {last}\n"


def read(folder, text):
    (folder / "f").write_bytes(text.encode())
    found = Sources()
    files.read_source(found, str(folder / "f"))
    return found


# All rows, batches and requests.
def items(found):
    return [*found.results, *found.histograms, *(each for run in found.streams for each in run.batches),
            *(each for run in found.echoes for each in run.requests)]


def test_results_rows_are_read_whatever_their_ends(tmp_path):
    whole = RESULTS + row(RATES, tag="a") + "\n" + row(RATES)
    first, second = read(tmp_path, whole.replace(",", "\t").replace("\n", "\r\n")).results
    assert (first.bad_samples, first.lost, first.lost_in_bad, first.batches, first.delay_usec) == (3, 12, 140, 100, 1)
    assert [tests.rate_at(second, share) for share in (0, 50, 99, 99.1, 100)] == [100.0, 75.0, 50.5, 50.0, 45.5]
    # No header, separators in the name and the tag, spreadsheet padding, and a row that was cut after 50 %.
    ragged = row(RATES, "udp,1/r.csv", "east, 2") + row(RATES)[:-1] + ",,,\n" + row(RATES[:51])
    found = [(each.tag, each.values) for each in read(tmp_path, ragged).results]
    assert found == [("east, 2", RATES), ("NULL", RATES), ("NULL", RATES[:51])]
    lower = "".join(row([max(0.0, rate - drop) for rate in RATES]) for drop in (0, 30, 10, 200))  # the last has no rate
    lines = rate.lines_of(read(tmp_path, lower).results, "tag")
    assert [line[99] for line in lines.values()] == [(99.0, 20.5, 40.5, 50.5)]


def test_histogram_counts_belong_to_the_bins_below_their_label(tmp_path):
    rows = row([0] * 12 + [60, 40]) + row([], bad=50, batches=50) + row([0] * 250 + [100])
    one, none, wide = read(tmp_path, HISTOGRAM + rows).histograms
    assert histogram.joined_bins(one.values, 12, 13, 1) == ([11, 12, 13], [60, 40]) and none.values == []
    assert histogram.joined_bins(wide.values, 250, 250, 2) == ([248, 250], [100])


def test_batches_are_read_from_every_style_of_line(tmp_path):
    text = (BANNER + "Engaging options: -c\n\n" + batch(2, 94.1, " ", 49, COLUMNS)
            + "  3:           7: Received  Data  in  0.000120s from 10.0.0.2\nFlushed 3 frames\n"
            + batch(3, 12345.6, "*", 48, COLUMNS, COLUMNS) + silent_batch(4, 1, 49) + verbose_batch(51, "*", 5, 47.2))
    first, second = read(tmp_path, text + silent_batch(1, 1, 0)).streams
    assert [(each.number, each.bad, each.received, each.rate, each.buffer) for each in first.batches] == [
        (2, False, 49, 94.1, 1.5), (3, True, 48, 12345.6, 1.5), (4, True, 1, None, None), (51, True, 45, 47.2, 2.5)]
    assert good(first.batches, rate_of) == [94.1] and not second.batches[0].bad  # its only packet came


def test_round_trips_their_gaps_and_percentiles(tmp_path):
    text = BANNER + answer(0, 0.0105, HOP) + timed_out(1) + answer(2, 0.002) + answer(5, 0.001) + totals(9, 3)
    first, second = read(tmp_path, text + answer(0, 1.5)).echoes
    assert [each.answer for each in first.requests] == [HOP, "", "Echo Reply", "Echo Reply"]
    assert (first.sent, second.sent) == (9, 1)
    line = [(sequence, None if math.isnan(time) else time)
            for sequence, time in zip(*echo.with_gaps(first.requests, MILLISECONDS))]
    assert line == [(0, 10.5), (1, None), (2, 2.0), (3, None), (5, 1.0)]
    assert numbers.percentiles(range(1, 1001), (0, 50, 99, 99.9, 100)) == [1, 500, 990, 999, 1000]


def test_what_cannot_be_read_is_named_with_its_line(tmp_path):
    for text, complaint in (
            ("", "1: empty"),
            (RESULTS, "1: a header without"),
            (RESULTS + row(RATES)[:-3], "1: no whole row; "),
            (row(RATES).replace(",50,", ",x,"), "1: Batch Size: 'x'"),
            (row(RATES).replace("75.0", "7\x1b.0"), "1: value 51: '7?.0'"),
            (row(RATES) + "x\n", "2: not a row"),
            (row(RATES)[:-300] + row(RATES), "1: two rows on one line"),
            (HISTOGRAM + row([0, 99]), "2: the counts"),
            (timed_out(1)[:30] + "\n", "1: a damaged"),
            (answer(0) + silent_batch(1), "2: a line")):
        with pytest.raises(words.Unreadable, match="^" + re.escape(f"{tmp_path}/f:{complaint}")):
            read(tmp_path, text)


def test_what_is_cut_off_or_foreign_is_named_and_not_read(tmp_path):
    cut_answer, cut_row, place = answer(1, 1)[:-1], row(RATES)[:-9], f"{tmp_path}/f"
    for text, notes in (
            (answer(0) + cut_answer, [f"{place}:2: the last line is cut off: '{cut_answer.strip()}'"]),
            (answer(0) + "$ ls\n", [f"{place}:2: not understood: '$ ls'"]),
            (RESULTS + row(RATES) + cut_row, [f"{place}:3: the last row is cut off, after '{cut_row[-20:]}'"]),
            (row(RATES)[:-1], []),
            (row([0, 100])[:-1], [])):
        found = read(tmp_path, text)
        assert found.notes == notes and len(items(found)) == 1


@pytest.mark.parametrize("arguments, status, complaint", [("--text r.csv", 0, ""), ("-o x.png r.csv", 1, "python3-")])
def test_command_line_without_matplotlib(tmp_path, arguments, status, complaint):
    (tmp_path / "r.csv").write_text(RESULTS + row(RATES, tag="\x1b[2Jnight"))
    (tmp_path / "matplotlib.py").write_text("raise ImportError\n")
    done = subprocess.run([*companion("plot"), *arguments.split()], capture_output=True, text=True, cwd=tmp_path,
                          env={"PYTHONPATH": str(tmp_path)})
    assert done.returncode == status and complaint in done.stderr and bool(complaint) == bool(done.stderr)
    assert ("?[2Jnight      100.0    75.0    55.0" in done.stdout) == (status == 0) and "\x1b" not in done.stdout


TEXTS = {
    "trend": (row(RATES, tag="a", day=7) + row([0.0] * 110, day=6), """\
Trend: Mbit/s of the good batches, test by test
date                 tag           low 5 %   median  top 5 %    bad     lost   in bad
2026-01-06 09:30:00  no tag              -        -        -      3       12      140
2026-01-07 09:30:00  a                52.5     75.0     97.5      3       12      140
"""),
    "batches": (batch(1) + batch(2, 40.0, "*", 45) + batch(3, 80.0, received=48) + silent_batch(4), """\
Rate and buffer consumption, batch by batch

f: 4 batches, 2 bad; 2 packets lost in good ones, 55 in bad ones
                                 min        p5       p50       p95       p99       max
  rate, Mbit/s                  80.0      80.0      80.0      90.0      90.0      90.0
  buffer, ms                     1.5       1.5       1.5       1.5       1.5       1.5
          batches      low   median  high Mbit/s  buffer ms   bad
       1 to     1     90.0     90.0         90.0        1.5     0  ########################################
       2 to     2        -        -            -          -     1
       3 to     3     80.0     80.0         80.0        1.5     0  ####################################
       4 to     4        -        -            -          -     1
"""),
    "echo": (BANNER + answer(0) + timed_out(1) + answer(2, 0.015) + totals(4, 2), """\
Round-trip time

f: 4 sent, 2 answers, 1 time-outs, 1 without a line
                                 min        p5       p50       p95       p99       max
  round trip, ms              10.000    10.000    10.000    15.000    15.000    15.000
         requests       low    median   high ms  time-outs
       0 to     0    10.000    10.000    10.000          0
       1 to     1         -         -         -          1
       2 to     2    15.000    15.000    15.000          0
  distribution
     10.000 to    10.250 ms        1  ########################################
""")}


@pytest.mark.parametrize("figure", TEXTS)
def test_texts_to_the_letter(tmp_path, monkeypatch, capsys, figure):
    monkeypatch.chdir(tmp_path)
    text, shown = TEXTS[figure]
    (tmp_path / "f").write_text(text)
    plot.main(["-k", figure, "--text", "f"])
    assert capsys.readouterr().out.startswith(shown)


MANY = "".join(row([rate + n for rate in RATES], tag=f"_$site {n}$", day=n + 1) for n in range(20))
LONG = "".join(timed_out(n) if n % 999 == 0 else answer(n, n / 1000) for n in range(4000))


@pytest.mark.parametrize("figure, texts", [  # of one, of nothing and of many
    ("rate", (row(RATES), row([0.0] * 110), MANY)),
    ("trend", (row(RATES), row([0.0] * 110), MANY)),
    ("histogram", (row([0, 100]), row([], bad=50, batches=50), HISTOGRAM + row([0] * 9000 + [100]) * 20)),
    ("batches", (batch(1), silent_batch(1), batch(1) * 20)),
    ("echo", (answer(0), timed_out(1), (answer(0) + timed_out(1) + answer(2, 9.0)) * 20, LONG))])
@pytest.mark.filterwarnings("error")
def test_pictures_draw_without_warning(tmp_path, figure, texts):
    for text in texts:
        (tmp_path / "in").write_text(text)
        draw(tmp_path, "-k", figure, "--text", str(tmp_path / "in"))


TRACE = BANNER + answer(0, 0.0001, HOP, "10.0.0.7") + timed_out(1) + answer(2, 0.0003) + answer(3, 0.0004)
SWEEP = sweep("10.0.0.1", "10.0.0.9") + answer(1, 0.0001) + answer(3, 3.0, ERROR) + totals(9, 2)


def test_sweeps_and_traces_name_hosts_and_the_silent_ones(tmp_path, capsys):
    def rows(text):
        return [(row.first, row.last, row.host, row.answer, len(row.times))
                for row in hosts.host_rows(read(tmp_path, text).echoes[0])]
    assert rows(TRACE) == [(0, 0, "10.0.0.7", HOP, 1), (1, 1, "", "no answer", 0), (2, 3, "10.0.0.2", "Echo Reply", 2)]
    # Two requests a host, stopped in the middle; addresses that do not follow from the range are not made up.
    assert rows(sweep("10.0.0.2", "10.0.0.3") + answer(1) + totals(4, 1))[-1] == (2, 3, "10.0.0.3", "no line", 0)
    assert rows(sweep("10.0.0.1", "10.0.0.9") + answer(2) + totals(9, 1))[0] == (0, 1, "", "no line", 0)
    assert rows(SWEEP) == [
        (0, 0, "10.0.0.1", "no line", 0), (1, 1, "10.0.0.2", "Echo Reply", 1), (2, 2, "10.0.0.3", "no line", 0),
        (3, 3, "10.0.0.4 (says 10.0.0.2)", ERROR, 1), (4, 8, "10.0.0.5 to 10.0.0.9", "no line", 0)]
    plot.main(["--text", "-o", str(tmp_path / "hosts.png"), str(tmp_path / "f")])
    assert ERROR in capsys.readouterr().out


def test_ctrl_c_ends_the_pipe_and_shows_what_came():
    command = ["env", "--default-signal=INT", *companion("plot"), "--text", "-"]
    with contextlib.closing(Program(command, stdin=subprocess.PIPE, bufsize=0)) as run:
        run.process.stdin.write((answer(0) * 2000).encode())  # more than a pipe holds: some of it has been read
        run.signal(signal.SIGINT)
        assert "answers" in run.finish().out and run.status == 0


def test_stray_values_do_not_set_the_scale():
    assert numbers.scale_end([94.0] * 198 + [9e4] * 2) == 1.25 * 94
    assert numbers.scale_end([94.0, 9e4, 95.0]) == 1.25 * 95
    assert numbers.scale_end(range(200)) is None and numbers.scale_end([94.0, 9e4]) is None
    assert numbers.outside_text([1, 2, 9e4], 3, "ms") == "1 beyond the scale, up to 90000 ms"


# Cut anywhere, a file has a beginning of its items or is refused. Of lines that are missing, foreign, cut or in another
# order come no items but those of whole lines.
@pytest.mark.parametrize("seed", range(4))
def test_damaged_input_is_refused_or_read_right(tmp_path, seed):
    def read_items(text):
        try:
            return items(read(tmp_path, text))
        except words.Unreadable:
            return []
    chance = random.Random(seed)
    intact = [TRACE, SWEEP, RESULTS + row(RATES, tag="a") + row(RATES), HISTOGRAM + row([0, 100]) + row([0, 60, 40]),
              batch(1, 94.1, rates=COLUMNS) + silent_batch(2) + verbose_batch(3, "*", 5, 47.2)]
    whole = {text: read_items(text) for text in intact}
    known = {repr(item) for found in whole.values() for item in found}
    for text in intact * 60:
        part = read_items(text[:chance.randrange(len(text))])
        assert whole[text] and part == whole[text][:len(part)]
        lines = (text + chance.choice(intact)).splitlines(keepends=True)
        damaged = chance.sample(lines, chance.randrange(1, len(lines)))
        damaged[0] = damaged[0][chance.randrange(len(damaged[0])):]
        assert all(repr(item) in known or hasattr(item, "line") for item in read_items("".join(damaged)))  # the line moves
