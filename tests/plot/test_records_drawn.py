# vorn-plot on records: the figures against a slow count of the same rows, outages, what is chosen, pictures and pages.
import html.parser
import pathlib
import random
import re
import sys
import types

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "plot"))
from vornplot import figures, plot, recorded, store, words
from vornplot.records import REPLY, Batch, Destination, Echo, Hop, Timeout

START = 1_795_000_000 * 10**6
SEC = 10**6


@pytest.fixture
def make(tmp_path):
    """Writes a store: a run is (options of begin_run, host, [(seconds, record)])."""
    def write_store(*runs, name="r.db"):
        opened = store.open_to_write(str(tmp_path / name))

        def write(target):
            for options, host, rows in runs:
                begin = START + round(rows[0][0] * SEC) if rows else START
                run = store.begin_run(target, ["vorn", *options.get("words", ()), host], begin,
                                      options.get("site", "here"), options.get("label", ""), options.get("every"))
                store.append(target, run, begin, Destination(host, None))
                for seconds, record in rows:
                    store.append(target, run, START + round(seconds * SEC), record)
        store.write(opened, write)
        opened.db.close()
        return str(tmp_path / name)
    return write_store


def echo(sequence, usec, host="10.0.0.1"):
    return Echo(sequence, usec, host, REPLY)


def timeout(sequence, host="10.0.0.1"):
    return Timeout(sequence, None, host, "")


def choice(by=None, since=None, host=None, label=None):
    return types.SimpleNamespace(by=by, since=since, host=host, label=label)


def random_runs(seed):
    chance = random.Random(seed)
    runs = []
    for host in ("10.0.0.1", "10.0.0.2"):
        rows = [(n * 7 + chance.random(), echo(n, chance.randrange(10**6), host) if chance.random() < 0.8 else
                 timeout(n, host)) for n in range(700)]
        rows += [(n * 7 + chance.random(), Batch(n, chance.random() < 0.1, 49, 50, chance.randrange(10**4) / 10, 1.0))
                 for n in range(300)]
        runs.append(({"label": f"to {host}"}, host, sorted(rows, key=lambda row: row[0])))
    return runs


@pytest.mark.parametrize("chunk", (1, 7, 50_000))
def test_intervals_hold_what_a_slow_count_finds(make, monkeypatch, chunk):
    monkeypatch.setattr(recorded, "CHUNK", chunk)
    runs = random_runs(chunk)
    path = make(*runs)
    history = recorded.latency([path], choice(), 24)
    rates = recorded.guaranteed([path], choice("label"), 24)
    assert 12 < history.grid.count <= 25 and [each.label for each in rates.series] == ["to 10.0.0.1", "to 10.0.0.2"]
    for series, batches, (_, _, rows) in zip(history.series, rates.series, runs):
        for each in series.intervals:
            inside = [record for seconds, record in rows if each.start_usec <= START + round(seconds * SEC)
                      < each.start_usec + history.grid.width_usec and not isinstance(record, Batch)]
            times = sorted(record.rtt for record in inside if record.answer)
            assert (each.counted, each.missing) == (len(times), len(inside) - len(times))
            assert each.points == [figures.percentile(times, percent) for percent in (5, 50, 95)]
        for each in batches.intervals:
            inside = [record for seconds, record in rows if each.start_usec <= START + round(seconds * SEC)
                      < each.start_usec + rates.grid.width_usec and isinstance(record, Batch)]
            good = sorted((batch.rate for batch in inside if not batch.bad), reverse=True)
            assert (each.counted, each.missing, each.packets_lost) == (len(good), len(inside) - len(good), len(inside))
            # The rate that a share of the batches reached is a percentile from above.
            assert each.points == [-figures.percentile([-rate for rate in good], share) for share in (5, 50, 95, 99)]
        assert sum(each.counted + each.missing for each in series.intervals) == 700


@pytest.mark.parametrize("chunk", (1, 2, 3, 50_000))
def test_outages_are_three_lost_in_a_row_of_one_watch(make, monkeypatch, chunk):
    monkeypatch.setattr(recorded, "CHUNK", chunk)

    def run(begin, pattern, **options):
        return options, "10.0.0.1", [(begin + n, echo(n, 100) if mark == "." else timeout(n))
                                     for n, mark in enumerate(pattern)]
    path = make(run(0, ".xx.xxx..xxxx"), run(1000, "xx.x"), run(1060, "x", every=60 * SEC),
                run(1120, "x.", every=60 * SEC), run(1400, "xx", every=60 * SEC), run(1460, "..", every=60 * SEC))
    outages = [((outage.begin_usec - START) / SEC, (outage.end_usec - START) / SEC, outage.requests)
               for outage in recorded.latency([path], choice(), 24).series[0].outages]
    # Up to the next answer; between the first two runs nobody looked; one start of the series was left out.
    assert outages == [(4, 7, 3), (9, 12, 4), (1003, 1121, 3)]


def test_errors_count_against_their_destination_but_not_in_a_trace(make):
    unreachable = Echo(1, 3_000_000, "10.0.0.254", "Destination Unreachable")
    path = make(({}, "10.0.0.1", [(0, echo(0, 100)), (1, unreachable), (2, Hop(2, 50, "10.0.0.7", "TTL Exceeded"))]),
                ({"words": ["-t"]}, "10.0.0.9", [(3, Hop(0, 40, "10.0.0.7", "TTL Exceeded"))]))
    found = {each.label: (list(each.ordered), each.lost) for each in recorded.distributions([path], choice())}
    assert found == {"10.0.0.1": ([100], 2), "10.0.0.7": ([40], 0)}


def test_records_are_chosen_and_grouped(make):
    first = ({"label": "a", "site": "s"}, "10.0.0.1", [(0, echo(0, 100)), (100, echo(1, 200))])
    other = ({"label": "b", "site": "t"}, "10.0.0.2", [(50, echo(0, 300, "10.0.0.2"))])
    one, two = make(first, other), make(first, name="second.db")

    def values(paths, **chosen):
        return {each.label: list(each.ordered) for each in recorded.distributions(paths, choice(**chosen))}
    assert values([one, two]) == {"10.0.0.1": [100, 100, 200, 200], "10.0.0.2": [300]}
    assert values([one], by="label") == {"a": [100, 200], "b": [300]} and set(values([one], by="site")) == {"s", "t"}
    assert values([one], host="10.0.0.2") == {"10.0.0.2": [300]} and values([one], label="a", since=START + SEC) == {
        "10.0.0.1": [200]}
    with pytest.raises(words.Unreadable, match="no record of a request with --host 10.0.0.9"):
        values([one], host="10.0.0.9")


@pytest.mark.parametrize("arguments", ("-k latency", "-k guaranteed", "-k cdf", "-k cdf --by run"))
@pytest.mark.filterwarnings("error")
def test_pictures_draw_without_warning_whatever_they_hold(make, tmp_path, capsys, arguments):
    batch = (0, Batch(1, False, 50, 50, 94.1, 1.5))
    months = [(n * 86400, record) for n in range(200)
              for record in (echo(n, 100 + n), Batch(n, n % 7 == 0, 49, 50, 9.4, 1))]
    stray = [(n, record) for n in range(99)
             for record in (echo(n, 100), Batch(n, False, 50, 50, 9e4 if n == 5 else 9, 1))]
    lost = [(0, Batch(1, True, 1, 50, None, None)), *((n / 5, timeout(n)) for n in range(3))]
    for number, runs in enumerate((
            [({}, "10.0.0.1", [(0, echo(0, 100)), batch])],
            [({}, "10.0.0.1", lost)],
            [({"label": "_$x$"}, f"10.0.0.{n}", [(n, echo(0, 10 ** (n % 5), f"10.0.0.{n}")), batch])
             for n in range(25)],
            [({}, "10.0.0.1", months)], [({}, "10.0.0.1", stray)])):
        path = make(*runs, name=f"{number}.db")
        for picture in ("one.svg", "two.svg", "three.png"):
            plot.main([*arguments.split(), "--text", "-o", str(tmp_path / picture), path])
        assert (tmp_path / "one.svg").read_bytes() == (tmp_path / "two.svg").read_bytes()
        assert re.search(r"10\.0\.0\.|_\$x\$", capsys.readouterr().out)


class PageParts(html.parser.HTMLParser):
    def __init__(self):
        super().__init__()
        self.tags, self.ids, self.addresses = [], [], []

    def handle_starttag(self, tag, attrs):
        self.tags.append(tag)
        self.ids += [value for name, value in attrs if name == "id"]
        self.addresses += [value for name, value in attrs if name in ("src", "href", "xlink:href")]


def test_a_page_is_one_file_with_all_figures(make, tmp_path):
    path = make(({"label": "<b>&"}, "10.0.0.1", [(0, echo(0, 100)), (1, Batch(1, False, 50, 50, 94.1, 1.5))]))
    plot.main(["--html", str(tmp_path / "p.html"), "--by", "label", "--title", "A & B", path])
    text = (tmp_path / "p.html").read_text()
    page = PageParts()
    page.feed(text)
    assert page.tags.count("svg") == 3 and page.tags.count("h2") == 3 and page.tags.count("table") >= 4
    assert "<h1>A &amp; B</h1>" in text and "&lt;b&gt;&amp;: 1 requests" in text and "b" not in page.tags
    assert all(address.startswith("#") and address[1:] in page.ids for address in page.addresses)
    assert len(set(page.ids)) == len(page.ids) and not re.search(r"url\((?!#)|@import|<script", text)


def test_what_is_no_store_is_named(tmp_path):
    (tmp_path / "x.db").write_bytes(b"SQLite format 3\0" + bytes(200))
    other = store.sqlite3.connect(tmp_path / "y.db")
    other.execute("CREATE TABLE t(x)")
    other.commit()
    for name, complaint in (("x.db", "x.db: "), ("y.db", "y.db: a database, but not one of vorn-record")):
        with pytest.raises(SystemExit, match=complaint):
            plot.main(["--text", str(tmp_path / name)])
