# What a line carries: the arithmetic of its search and its verdict, and the command on real lines in the laboratory, on
# which every bound is one that a busy machine keeps.
import array, json, os, re, signal, time
from contextlib import contextmanager, suppress
from pathlib import Path

import pytest
from companions import companion
from lab import VORN, Program, eventually
from bottleneck import FAR, Way, bottleneck
from vorn_companions.line import arrivals, delay, measure, pace, search, verdict
from vorn_companions.line.result import Line, Rate
from vorn_companions.store import database, reading

needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="a network namespace needs root")
DOWN, UP = Way(8, 32), Way(2, 16)


def test_every_rate_can_be_asked_for():
    for mbps in (0.05, 1, 19.9, 486.13, 940, 2500):
        below, above = pace.pace_below(mbps), pace.pace_above(mbps)
        assert 0.99 * mbps < below.rate <= mbps * 1.0001 and above.rate >= mbps, (mbps, below, above)
        assert below.length <= pace.FULL_LENGTH == above.length


# A stream of 3 s at this share of what the line carries; the queue in front of the line holds so many microseconds.
def stream(share, queue_usec, lost=(), size=1000):
    sent = pace.Pace(3000, pace.FULL_LENGTH)
    found, free, service = arrivals.Arrivals(sent, size), 0, 3000 * share
    for sequence in range(size):
        due = sent.due_usec(sequence)
        if sequence not in lost and free - due <= queue_usec:
            free = max(free, due) + service
            found.add(sequence, round(free))
    return found


def test_a_stream_is_carried_when_it_arrives_whole_and_in_time():
    carried = {"below": stream(0.99, 20_000), "burst lost": stream(0.9, 20_000, lost=range(3)),
               "above": stream(1.005, 20_000), "hidden by the queue": stream(1.005, 1e9),
               "lossy": stream(0.9, 20_000, lost={500})}
    assert {name: arrivals.is_carried(each, 0) for name, each in carried.items()} == {
        "below": True, "burst lost": True, "above": False, "hidden by the queue": False, "lossy": False}
    assert arrivals.is_carried(carried["lossy"], 1)
    assert arrivals.rate_of(stream(1.1, 20_000)) == pytest.approx(1472 * 8 / 3300, rel=0.003)  # the line's
    assert arrivals.is_filled(stream(1.1, 20_000)) and not arrivals.is_filled(carried["below"])
    assert arrivals.rate_of(stream(1, 0, range(5, 1000))) is None


# The rate that the search ends with, when the line carries this much of what looks like its capacity.
@pytest.mark.parametrize("carries", (1, 0.98, 0.93, 0.5, 0.2))
def test_the_search_ends_close_below_what_is_carried(carries):
    trials = []
    while (rate := search.next_rate(100, trials)) is not None:
        trials.append((rate, rate <= 100 * carries))
        assert len(trials) < 15
    found = search.highest_carried(trials)
    assert (found == 0) if carries == 0.2 else 100 * carries - 1.5 < found <= 100 * carries


def test_the_rate_is_the_highest_of_the_streams_that_filled_the_line():
    asked = []

    def line_of_10(asked_pace):
        asked.append(asked_pace.rate)
        share = asked_pace.rate / 10 if asked_pace.rate > 10 else 0.5
        found = stream(share, 20_000)
        found.pace = asked_pace
        found.times_usec = array.array("q", (time * asked_pace.delay_usec // 3000 for time in found.times_usec))
        return found
    found = measure.capacity(line_of_10, 1, 2)
    assert found.mbps == pytest.approx(10, rel=0.01) and not found.at_least
    assert asked[0] == pytest.approx(1.1, rel=0.01) and len(asked) == 6 and asked[-1] == pytest.approx(11, rel=0.02)


def probes(*trips):
    return [delay.Probe(10_000 * number, trip) for number, trip in enumerate(trips)]


def test_delay_grade_and_verdict():
    found = delay.delay_of(probes(*[1000] * 90, *[5000] * 10, *[None] * 25))
    assert (found.median_usec, found.p95_usec, round(found.lost, 9)) == (1000, 5000, 0.2)
    assert delay.delay_of(probes(*[1000] * 20, *[None] * 30)).median_usec is None  # too much lost to say
    assert [delay.grade_of(msec * 1000) for msec in (0, 4.9, 5, 30, 100, 299, 300)] == list("AABCDDE")
    assert delay.is_rising(probes(*range(0, 300_000, 1000))) and not delay.is_rising(probes(*[20_000] * 300))

    line = Line("h", "", 0, down=Rate(40), up=Rate(38, "way back"))
    line.delays = {"idle": delay.delay_of(probes(*[1000] * 20)), "down": delay.delay_of(probes(*[31_000] * 20))}
    for least, most, status in (({"down": 39}, None, 0), ({"down": 41}, None, 1), ({"up": 37}, 31_000, 0),
                                ({}, 29_000, 1), ({"up": 39}, None, 2)):  # the way up may carry it all the same
        assert verdict.judge(line, verdict.Limits(least, most))[0] == status, (least, most)
    line.reasons.append("no")
    assert verdict.judge(line, verdict.Limits({}, None)) == (2, ["no"])


# --- the command in the laboratory ---

@contextmanager
def line_run(host, *arguments, user=()):
    program = Program(host.command([*user, *companion("line"), FAR, *map(str, arguments)]), env={"VORN": VORN})
    try:
        yield program
    finally:
        program.close()


# Runs it to its end: exit status, figures, standard error.
def measured(host, *arguments):
    with line_run(host, "--json", *arguments) as program:
        program.finish()
        assert host.inhabitants() == []
        return program.status, json.loads(program.out), program.err


@needs_root
def test_a_shaped_line_is_measured_kept_and_drawn(tmp_path):
    store, picture = tmp_path / "lines.db", tmp_path / "line.svg"
    with bottleneck(DOWN, UP, VORN) as hosts:
        status, found, said = measured(hosts["near"], "--into", store, "--label", "home", "-o", picture,
                                       "--min-rate", 100)
    assert status == 1 and "are less than 100" in said
    for name, way in (("down", DOWN), ("up", UP)):
        assert found[name]["mbps"] == pytest.approx(way.payload_mbps, rel=0.1) and not found[name]["at_least"]
        assert 0.4 < found["delay"][name]["added_usec"] / way.delay_usec < 1.5, found["delay"]
    assert found["lossless"]["mbps"] is None or 0.3 < found["lossless"]["mbps"] / DOWN.payload_mbps < 1.02
    assert found["path"]["reached"] and [hop["address"] for hop in found["path"]["hops"]] == ["10.78.0.2", FAR]
    assert found["reasons"] == [] and not found["stopped"]
    runs = {run.label: run for run in reading.runs(database.open_to_read(str(store)))}
    assert {"home idle", "home down", "home up"} <= set(runs) and runs["home up"].target == FAR
    assert picture.read_text().count("</svg>") == 1


@needs_root
def test_what_cannot_be_measured_is_told_before_anything_is():
    for monitor, block, user, reason in (
            ("", "", (), "no monitor answers"),
            (VORN, "udp dport 8003 udp length > 1000 drop", (), "does not arrive"),  # streams, not small answers
            (VORN, "", ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"), "no right to send ICMP")):
        with bottleneck(DOWN, UP, monitor) as hosts:
            if block:
                hosts["router"].run(["nft", "add table ip wall; add chain ip wall way { type filter hook forward "
                                     f"priority 0; }}; add rule ip wall way {block}"], check=True)
            with line_run(hosts["near"], user=user) as program:
                program.finish()
                assert program.status == 2 and reason in program.err and program.out == "", (reason, program.err)


@needs_root
def test_control_c_ends_it_at_once_and_leaves_nothing():
    with bottleneck(DOWN, UP, VORN) as hosts, line_run(hosts["near"]) as program:
        def streams():
            found = (Path(f"/proc/{each}/cmdline") for each in hosts["near"].inhabitants())
            with suppress(OSError):  # one of them has just ended
                return any(re.search(rb"\0-E\d{3}", words) for words in map(Path.read_bytes, found))
        eventually(streams, "a stream that measures the line")
        program.signal(signal.SIGINT)
        stopped = time.monotonic()
        program.finish()
        assert time.monotonic() - stopped < 5 and program.status == -signal.SIGINT
        assert "then stopped" in program.out and "idle" in program.out
        assert hosts["near"].inhabitants() == []


@needs_root
def test_a_lossy_line_keeps_its_rate_and_tells_its_loss():
    with bottleneck(DOWN, UP, VORN, loss_percent=4) as hosts:
        _, found, _ = measured(hosts["near"], "--down")
    assert found["down"]["mbps"] == pytest.approx(DOWN.payload_mbps, rel=0.1) and found["up"] is None
    assert found["lossless"]["mbps"] is None and 0.005 < found["lossless"]["lost"] < 0.2
