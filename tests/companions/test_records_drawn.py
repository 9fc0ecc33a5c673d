# vorn-plot on records: the figures against a slow count of the same rows, outages, what is chosen
# and taken over, pictures and pages.
import random, re, sqlite3, types

import pytest
from companions import ERROR, HOP, draw
from vorn_companions import words
from vorn_companions.commands import plot
from vorn_companions.figures import computed as figures, recorded
from vorn_companions.store import database as store
from vorn_companions.read.records import REPLY, Batch, Destination, Echo, Hop, Request, Timeout

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


def choice(by=None, since=None, host=None, label=None):
    return types.SimpleNamespace(by=by, since=since, host=host, label=label)


def random_rows(chance, host):
    rows = []
    for n in range(700):
        answered, bad = chance.random() < 0.8, chance.random() < 0.1
        rows.append((n * 7 + chance.random(), request(n, chance.randrange(10**6) if answered else None, host)))
        rows.append((n * 7 + 2, batch(n, chance.randrange(10**4) / 10, bad)))
    return rows


@pytest.mark.parametrize("chunk", (1, 7, 50_000))
def test_intervals_hold_what_a_slow_count_finds(tmp_path, monkeypatch, chunk):
    monkeypatch.setattr(recorded, "CHUNK", chunk)
    chance = random.Random(chunk)
    rows_of = {host: random_rows(chance, host) for host in (HOST, OTHER)}
    path = make(tmp_path / "r.db", *((host, rows, {"label": host}) for host, rows in rows_of.items()))
    for history, kind, value_of, percents, from_top in (
            (recorded.latency([path], choice(), 24), Request, lambda request: request.rtt, (5, 50, 95), False),
            (recorded.guaranteed([path], choice("label"), 24), Batch,
             lambda batch: None if batch.bad else batch.rate, (5, 50, 95, 99), True)):
        assert 12 < history.grid.count <= 25 and {series.label for series in history.series} == {HOST, OTHER}
        for series in history.series:
            for each in series.intervals:
                found = [record for seconds, record in rows_of[series.label] if isinstance(record, kind)
                         and each.start_usec <= at(seconds) < each.start_usec + history.grid.width_usec]
                values = [value_of(record) for record in found if value_of(record) is not None]
                values.sort(reverse=from_top)
                assert (each.counted, each.missing) == (len(values), len(found) - len(values))
                assert each.points == [figures.percentile(values, percent) for percent in percents]
                assert each.packets_lost == (len(found) if kind is Batch else 0)  # one of each batch
            assert series.counted + series.missing == 700


@pytest.mark.parametrize("chunk", (1, 2, 3, 50_000))
def test_outages_are_three_lost_in_a_row_of_one_watch(tmp_path, monkeypatch, chunk):
    monkeypatch.setattr(recorded, "CHUNK", chunk)

    def run(begin, pattern, **options):
        rows = [(begin + n, request(n, None if mark == "x" else 100)) for n, mark in enumerate(pattern)]
        return HOST, rows, options
    every = {"every_usec": 60 * SEC}
    path = make(tmp_path / "r.db", run(0, ".xx.xxx..xxxx"), run(1000, "xx.x"), run(1060, "x", **every),
                run(1120, "x.", **every), run(1400, "xx", **every), run(1460, "..", **every))
    outages = [(outage.begin_usec, outage.end_usec, outage.requests)
               for outage in recorded.latency([path], choice(), 24).series[0].outages]
    # Up to the next answer; between the first two runs nobody looked; one start of the series was left out.
    assert outages == [(at(4), at(7), 3), (at(9), at(12), 4), (at(1003), at(1121), 3)]


def test_errors_count_against_their_destination_but_not_in_a_trace(tmp_path):
    ping = [(0, request(0, 100)), (1, Echo(1, 3_000_000, "10.0.0.254", ERROR)), (2, Hop(2, 50, "10.0.0.7", HOP))]
    trace = [(3, Hop(0, 40, "10.0.0.7", HOP))]
    path = make(tmp_path / "r.db", (HOST, ping, {}), ("10.0.0.9", trace, {"words": ["-t"]}))
    found = {each.label: (list(each.ordered), each.lost) for each in recorded.distributions([path], choice())}
    assert found == {HOST: ([100], 2), "10.0.0.7": ([40], 0)}


def test_records_are_chosen_and_grouped(tmp_path):
    first = (HOST, [(0, request(0, 100)), (100, request(1, 200))], {"label": "a", "site": "s"})
    other = (OTHER, [(50, request(0, 300, OTHER))], {"label": "b", "site": "t"})
    one, two = make(tmp_path / "one.db", first, other), make(tmp_path / "two.db", first)

    def values(paths, **chosen):
        return {each.label: list(each.ordered) for each in recorded.distributions(paths, choice(**chosen))}
    assert values([one, two]) == {HOST: [100, 100, 200, 200], OTHER: [300]}
    assert values([one], by="label") == {"a": [100, 200], "b": [300]}
    assert values([one], by="site") == {"s": [100, 200], "t": [300]}
    assert values([one], host=OTHER) == {OTHER: [300]}
    assert values([one], label="a", since=at(1)) == {HOST: [200]}
    with pytest.raises(words.Unreadable, match="no record of a request with --host 10.0.0.9"):
        values([one], host="10.0.0.9")


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


def test_runs_of_another_store_are_taken_over_once(tmp_path):
    site = make(tmp_path / "site.db", (HOST, [(0, request(0, 120))], {"site": "there", "label": "east"}))
    whole, opened = store.open_to_write(str(tmp_path / "all.db")), store.open_to_write(site)
    store.write(whole, lambda target: store.name_id(target, "203.0.113.9"))  # numbers names otherwise
    assert store.merge(whole, site) == 1
    store.write(opened, lambda target: store.append(target, 1, at(1), Echo(1, 130, OTHER, HOP)))
    store.write(opened, lambda target: store.end_run(target, 1, at(2), 0))
    assert (store.merge(whole, site), store.merge(whole, site)) == (1, 0)  # what went on is taken anew, then never more
    run, = store.runs(whole)
    assert (run.site, run.label, run.target, run.end_usec) == ("there", "east", HOST, at(2))
    names = store.name_texts(whole)
    echoes = whole.db.execute("SELECT host, answer FROM echo")
    assert [(names[host], names[kind]) for host, kind in echoes] == [(HOST, REPLY), (OTHER, HOP)]


def test_what_is_no_store_is_named(tmp_path):
    (tmp_path / "x.db").write_bytes(b"SQLite format 3\0" + bytes(200))
    sqlite3.connect(tmp_path / "y.db").executescript("CREATE TABLE t(x)")
    for name, complaint in (("x.db", "x.db: "), ("y.db", "y.db: a database, but not one of vorn-record")):
        with pytest.raises(SystemExit, match=complaint):
            plot.main(["--text", str(tmp_path / name)])
