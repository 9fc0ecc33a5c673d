# vorn-plot on records: the figures against a slow count of the same rows, outages, what is chosen
# and taken over, pictures and pages.
import contextlib, os, random, re, shutil, sqlite3, time

import numpy, pytest
from matplotlib.dates import date2num
from companions import ERROR, HOP, draw
from lab import Lab
from vorn_companions import words
from vorn_companions.commands import plot
from vorn_companions.figures import cdf, guaranteed, latency, numbers
from vorn_companions.figures.options import Options
from vorn_companions.read.records import Sources
from vorn_companions.store import database as store, reading
from vorn_companions.store.reading import Selection
from vorn_companions.read.records import REPLY, Batch, Destination, Echo, Hop, Request, StreamPacket, Timeout

START, SEC = 1_795_000_000 * 10**6, 10**6
HOST, OTHER = "10.0.0.1", "10.0.0.2"


def at(seconds):
    return START + round(seconds * SEC)


# A request that was answered after so many microseconds, or (None) was not.
def request(sequence, usec, host=HOST):
    return Timeout(sequence, None, host, "") if usec is None else Echo(sequence, usec, host, REPLY)


def batch(number, rate=94.1, bad=False):
    return Batch(number, bad, 49, 50, rate, 1.5)


def write_run(target, host, rows, words=(), site="here", **options):
    begin = at(rows[0][0])
    run = store.begin_run(target, ["vorn", *words, host], begin, site, **options)
    store.append(target, run, begin, Destination(host, None))
    for seconds, record in rows:
        store.append(target, run, at(seconds), record)


# The path of a new store of runs: (host, [(seconds, record)], options).
def make(path, *runs):
    opened = store.open_to_write(str(path))
    for host, rows, options in runs:
        store.write(opened, lambda target: write_run(target, host, rows, **options))
    opened.db.close()
    return str(path)


def choice(by=None, **selection):
    return Options(by=by, selection=Selection(**selection))


def distributions(path, **chosen):
    return {each.label: ([round(time * 1000) for time in each.times], each.lost)
            for each in cdf.compute(Sources(stores=path), choice(**chosen))}


def random_rows(chance, host):
    rows = []
    for n in range(700):
        answered, bad = chance.random() < 0.8, chance.random() < 0.1
        rows.append((n * 7 + chance.random(), request(n, chance.randrange(10**6) if answered else None, host)))
        rows.append((n * 7 + 2, batch(n, chance.randrange(10**4) / 10, bad)))
    return rows


def test_intervals_hold_what_a_slow_count_finds(tmp_path):
    chance = random.Random(7)
    rows_of = {host: random_rows(chance, host) for host in (HOST, OTHER)}
    path = make(tmp_path / "r.db", *((host, rows, {"label": host}) for host, rows in rows_of.items()))
    for history, kind, value_of, points in (
            (latency.compute([path], choice(), 24), Request, lambda request: request.rtt,
             lambda values: numbers.percentiles(values, latency.PERCENTS)),
            (guaranteed.compute([path], choice("label"), 24), Batch, lambda batch: None if batch.bad else batch.rate,
             lambda values: numbers.guaranteed(values, guaranteed.SHARES))):
        assert 12 < history.grid.count <= 25 and {series.label for series in history.series} == {HOST, OTHER}
        for series in history.series:
            for each in series.intervals:
                found = [record for seconds, record in rows_of[series.label] if isinstance(record, kind)
                         and each.start_usec <= at(seconds) < each.start_usec + history.grid.width_usec]
                values = [value_of(record) for record in found if value_of(record) is not None]
                assert (each.counted, each.missing) == (len(values), len(found) - len(values))
                assert each.points == points(values)
                assert each.packets_lost == (len(found) if kind is Batch else 0)  # one of each batch
            assert series.counted + series.missing == 700
            assert series.packets_lost == (700 if kind is Batch else 0)


def test_percentiles_are_those_of_an_exact_count():
    for count in (1, 2, 3, 19, 20, 21, 100, 999, 1000, 1001):
        for percent in (0, 5, 50, 90, 95, 99, 99.9, 100):
            wanted = max(1, -(-count * round(percent * 10) // 1000))
            assert numbers.percentile(range(1, count + 1), percent) == wanted
            assert numbers.guaranteed(range(1, count + 1), [percent]) == [count + 1 - wanted]


def test_outages_are_three_lost_in_a_row_of_one_watch(tmp_path):
    def run(begin, pattern, **options):
        rows = [(begin + n, request(n, None if mark == "x" else 100)) for n, mark in enumerate(pattern)]
        return HOST, rows, options
    every = {"every_usec": 60 * SEC}
    path = make(tmp_path / "r.db", run(0, ".xx.xxx..xxxx"), run(1000, "xx.x"), run(1060, "x", **every),
                run(1120, "x.", **every), run(1400, "xx", **every), run(1460, "..", **every))
    outages = [(outage.begin_usec, outage.end_usec, outage.requests)
               for outage in latency.compute([path], choice(), 24).series[0].outages]
    # Up to the next answer; between the first two runs nobody looked; one start of the series was left out.
    assert outages == [(at(4), at(7), 3), (at(9), at(12), 4), (at(1003), at(1121), 3)]


def test_errors_count_against_their_destination_but_not_in_a_trace(tmp_path):
    ping = [(0, request(0, 100)), (1, Echo(1, 3_000_000, "10.0.0.254", ERROR)), (2, Hop(2, 50, "10.0.0.7", HOP))]
    trace = [(3, Hop(0, 40, "10.0.0.7", HOP))]
    path = make(tmp_path / "r.db", (HOST, ping, {}), ("10.0.0.9", trace, {"words": ["-t"]}))
    assert distributions([path]) == {HOST: ([100], 2), "10.0.0.7": ([40], 0)}


def test_records_are_chosen_and_grouped(tmp_path):
    first = (HOST, [(0, request(0, 100)), (100, request(1, 200))], {"label": "a", "site": "s"})
    other = (OTHER, [(50, request(0, 300, OTHER))], {"label": "b", "site": "t"})
    one, two = make(tmp_path / "one?%.db", first, other), make(tmp_path / "two.db", first)

    def values(paths, **chosen):
        return {label: times for label, (times, _) in distributions(paths, **chosen).items()}
    assert values([one, two]) == {HOST: [100, 100, 200, 200], OTHER: [300]}
    assert values([one], by="label") == {"a": [100, 200], "b": [300]}
    assert values([one], by="site") == {"s": [100, 200], "t": [300]}
    assert values([one], host=OTHER) == {OTHER: [300]}
    assert values([one], label="a", since_usec=at(1)) == {HOST: [200]}
    assert values([one], until_usec=at(50)) == {HOST: [100]}
    with pytest.raises(words.NothingChosen, match="no record of a request with --host 10.0.0.9"):
        values([one], host="10.0.0.9", given=" with --host 10.0.0.9")


def test_ages_are_read_in_their_units(monkeypatch):
    now = plot.moment("0s")
    for text, seconds in (("90s", 90), ("5m", 300), ("2h", 7200), ("7d", 7 * 86400), ("2w", 14 * 86400)):
        assert abs(now - plot.moment(text) - seconds * SEC) < 60 * SEC, text


# ---- what the user reads and sees ----

LAST_SUMMER = 1_792_886_400 * SEC  # 2026-10-25 00:00 UTC: an hour before the clocks of Berlin go back
PACKETS = [StreamPacket(7, sequence, 0 if sequence == 0 else 1 if sequence < 10 else gap, HOST) for sequence, gap in (
    *((n, 1000) for n in range(20)), (22, 3000), (21, 40), (21, 10), (24, 1950), *((n, 1000) for n in range(25, 40)))]
TEXTS = {
    "latency": """\
Latency over time, in intervals of 60 min (local time)

10.0.0.1: 9 requests, 3 lost (33.3 %), 1 outages
                                 min        p5       p50       p95       p99       max
  round trip, ms               1.000     1.000     3.000     6.000     6.000     6.000
  interval from                 answers    lost  lost %        p5    median       p95       p99    max ms
  2026-10-25 02:00:00 +0200           2       0    0.00     1.000     1.000     2.000     2.000     2.000
  2026-10-25 02:00:00 +0100           2       3   60.00     3.000     3.000     4.000     4.000     4.000
  2026-10-25 03:00:00 +0100           1       0    0.00     5.000     5.000     5.000     5.000     5.000
  2026-10-25 21:00:00 +0100           1       0    0.00     6.000     6.000     6.000     6.000     6.000
  outages: three requests in a row or more without an answer
  from                       to                                for  requests
  2026-10-25 02:20:00 +0100  2026-10-25 02:50:00 +0100      30 min         3
""",
    "guaranteed": """\
Guaranteed rate over time: Mbit/s that this share of the good batches reached or beat, in intervals of 1 ms \
(local time, +0200)

10.0.0.1: 3 batches, 1 bad
  interval from                good     bad  pkts lost      5 %     50 %     95 %     99 %
  2026-10-25 02:59:59.000         2       1          3     94.0     94.0     90.0     90.0
""",
    "cdf": """\
Round trips: ms that this share of the answers did not exceed
               answers  lost %       0 %       5 %      50 %      90 %      95 %      99 %    99.9 %     100 %
10.0.0.1             6   33.33     1.000     1.000     3.000     6.000     6.000     6.000     6.000     6.000
""",
    "packets": """\
Packets of streams: delay variation, losses and order

10.0.0.1: 38 of 40 packets in 1 batches, 2 lost (5 %), 1 duplicates, 1 reordered (2.63 %) by up to 1 packets
  10 packets of the first 10 ms of their batches leave at once and are left out of delay variation
                                 min        p5       p50       p95       p99       max
  IPDV, usec                   -1040         0         0         0         0         0
  PDV, usec                        0         0         0         0      1040      1040
    lost in a row   times
                1       2
"""}


# Two answers in each of the hours that the local clock calls two, three losses in the second of them.
def summer(path):
    rows = [(minute * 60, request(n, usec)) for n, (minute, usec) in enumerate((
        (0, 1000), (30, 2000), (60, 3000), (80, None), (90, None), (100, None), (110, 4000), (130, 5000), (1200, 6000)))]
    rows += [(3599, batch(1, 94.0)), (3599, batch(2, 90.0)), (3599, batch(3, 10.0, True))]
    opened = store.open_to_write(str(path))

    def write(target):
        run = store.begin_run(target, ["vorn", HOST], LAST_SUMMER, "here")
        store.append(target, run, LAST_SUMMER, Destination(HOST, None))
        for seconds, record in rows:
            store.append(target, run, LAST_SUMMER + round(seconds * SEC), record)
        for packet in PACKETS:
            store.append(target, run, LAST_SUMMER, packet)
    store.write(opened, write)
    store.close(opened)
    return str(path)


@pytest.fixture
def berlin(monkeypatch):
    monkeypatch.setenv("TZ", "Europe/Berlin")
    time.tzset()
    yield
    monkeypatch.undo()
    time.tzset()


@pytest.mark.parametrize("figure", TEXTS)
def test_texts_to_the_letter(tmp_path, capsys, berlin, figure):
    plot.main(["-k", figure, "--text", summer(tmp_path / "r.db")])
    assert capsys.readouterr().out == TEXTS[figure]


@pytest.mark.parametrize("arguments", ("-k latency", "-k guaranteed", "-k cdf", "-k cdf --by run"))
@pytest.mark.filterwarnings("error")
def test_pictures_draw_without_warning_whatever_they_hold(tmp_path, capsys, arguments):
    lost = [(0, Batch(1, True, 1, 50, None, None)), *((n / 5, request(n, None)) for n in range(3))]
    months, stray = [], []
    for n in range(200):
        months += [(n * 86400, request(n, 100 + n)), (n * 86400, batch(n, 9.4, n % 7 == 0))]
        stray += [(n, request(n, 100)), (n, batch(n, 9e4 if n == 5 else 9))]
    runs = [(HOST, rows, {}) for rows in ([(0, request(0, 100)), (0, batch(1))], lost, months, stray)]
    many = [(f"10.0.0.{n}", [(n, request(0, 10 ** (n % 5), f"10.0.0.{n}")), (n, batch(1))], {"label": "_$x$"})
            for n in range(25)]
    for number, held in enumerate([*([run] for run in runs), many]):
        draw(tmp_path, *arguments.split(), "--text", make(tmp_path / f"{number}.db", *held))
        assert re.search(r"10\.0\.0\.|_\$x\$", capsys.readouterr().out)


# Values of y where something is drawn, and the widest step of x between two of them, in seconds.
def drawn(line):
    points = [(date2num(x), y) for x, y in zip(line.get_xdata(), line.get_ydata()) if y == y]
    return [y for _, y in points], max(after[0] - before[0] for before, after in zip(points, points[1:])) * 86400


def test_a_gap_is_blank_and_a_spike_is_seen(tmp_path):
    rows = [(n / 10, request(n, 30_000 if n == 400 else None if n % 9 == 0 else 10_000)) for n in range(1000)]
    path = make(tmp_path / "r.db", (HOST, rows, {}), (HOST, [(seconds + 4000, each) for seconds, each in rows], {}))
    times, losses = latency.draw(Sources(stores=[path]), choice()).axes
    median, _, ninety_nine, _, maximum = times.get_lines()
    assert set(drawn(median)[0]) == {10.0} and drawn(maximum)[0].count(30.0) == 2  # in every run once
    for line in (median, maximum, ninety_nine):
        values, gap = drawn(line)
        between = line.get_ydata()[len(line.get_ydata()) // 2 - 3:len(line.get_ydata()) // 2 + 3]
        assert gap > 3800 and any(y != y for y in between)  # as long as nobody measured
    loss, = losses.get_lines()
    places, levels = date2num(loss.get_xdata()) * 86400, loss.get_ydata()
    watches = [places[part] for part in numpy.split(range(len(places)), numpy.flatnonzero(levels != levels))]
    assert [round(part[-1] - part[1], -2) for part in watches if len(part) > 1] == [100, 100]
    assert max(abs(level - 100 / 9) for level in levels if level == level) < 2


def test_a_page_is_one_file_with_all_figures(tmp_path):
    path = make(tmp_path / "r.db", (HOST, [(0, request(0, 100)), (1, batch(1))], {"label": "<b>&"}))
    plot.main(["--html", str(tmp_path / "p.html"), "--by", "label", "--title", "A & B", path])
    page = (tmp_path / "p.html").read_text()
    assert page.count("<svg ") == page.count("</svg>") == page.count("<h2") == 3 and page.count("<table>") >= 4
    assert "<h1>A &amp; B</h1>" in page and "&lt;b&gt;&amp;: 1 requests" in page and "<b>" not in page
    own = re.findall(r'\bid="([^"]*)"', page)
    assert len(set(own)) == len(own)
    assert all(address[:1] == "#" and address[1:] in own for address in re.findall(r'(?:src|href)="([^"]*)"', page))
    assert not re.search(r"url\((?!#)|@import|<script", page)


BROWSER = shutil.which("chromium")


@pytest.mark.skipif(not BROWSER or os.geteuid() != 0, reason="needs chromium, and root for a host without a network")
def test_a_browser_has_nothing_to_say_of_a_page(tmp_path):
    label = "a label that goes on and on without a blank: " + "x" * 300
    path = make(tmp_path / "r.db", (HOST, [(n, request(n, 100)) for n in range(30)] + [(1, batch(1))], {"label": label}))
    plot.main(["--html", str(tmp_path / "p.html"), "--by", "label", path])
    with Lab() as lab:  # a host without a network
        shown = lab.run("--headless", "--no-sandbox", "--disable-gpu", "--enable-logging=stderr", "--v=0",
                        f"--user-data-dir={tmp_path}/profile", "--window-size=1000,3000", "--dump-dom",
                        f"--screenshot={tmp_path}/page.png", f"file://{tmp_path}/p.html", program=BROWSER,
                        env={"HOME": str(tmp_path)})
        assert "CONSOLE" not in shown.err, shown.err
        assert shown.out.count("<svg ") == 3


def test_a_store_of_the_first_version_is_read_and_brought_up_to_date(tmp_path):
    path = make(tmp_path / "old.db", (HOST, [(0, request(0, 120))], {"label": "east"}))
    with contextlib.closing(sqlite3.connect(path)) as db:
        db.executescript("DROP TABLE packet; ALTER TABLE run ADD COLUMN uid TEXT; PRAGMA user_version = 1")
    assert distributions([path]) == {HOST: ([120], 0)}
    with store.reading(path) as opened:
        assert len(reading.packets(opened, Selection()).run) == 0
    make(path, (HOST, [(1, request(1, 130))], {"label": "west"}))
    assert distributions([path], by="label") == {"east": ([120], 0), "west": ([130], 0)}


def test_what_is_old_is_forgotten(tmp_path):
    path = make(tmp_path / "r.db", (HOST, [(0, request(0, 100))], {"label": "old"}),
                (HOST, [(9, request(1, 200)), (20, request(2, 300))], {"label": "new"}))
    opened = store.open_to_write(path)
    assert store.prune(opened, at(10)) == 2
    assert [run.label for run in reading.runs(opened)] == ["new"] and distributions([path]) == {HOST: ([300], 0)}
    store.close(opened)


def test_what_is_no_store_is_named(tmp_path):
    (tmp_path / "x.db").write_bytes(b"SQLite format 3\0" + bytes(200))
    sqlite3.connect(tmp_path / "y.db").executescript("CREATE TABLE t(x)")
    for name, complaint in (("x.db", "x.db: "), ("y.db", "y.db: a database, but not one of vorn-record")):
        before = (tmp_path / name).read_bytes()
        with pytest.raises(SystemExit, match=complaint):
            plot.main(["--text", str(tmp_path / name)])
        with pytest.raises(words.Unreadable, match=complaint):
            store.open_to_write(str(tmp_path / name))
        assert (tmp_path / name).read_bytes() == before
