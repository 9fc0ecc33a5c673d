# vorn-record: what it keeps of what a program prints, and what is left after a stop, a kill and a full disk.
import contextlib, json, os, signal, sqlite3, subprocess, time, types

import pytest
from companions import BANNER, ERROR, HOST, answer, batch, companion, printing, script, timed_out, totals
from lab import Lab, Program, eventually
from vorn_companions.commands import record, record_sinks
from vorn_companions.read.records import REPLY, Batch, Echo
from vorn_companions.store import reading
from vorn_companions.store.database import reading as opened_store
from vorn_companions.store.reading import Selection

UNSENT = "Err- could not send 8 bytes, sent -1 bytes"
PRINTS = printing(
    BANNER + answer(0, 0.000120) + timed_out(1) + answer(2, 3.000001, ERROR, "10.0.0.9") + batch(1, 94.1, "*", 48)
    + "Running Bitrate:   0.176 Megabits/s,   98.9 fps,      3 tx,      2 rx,      1 missing,      0 late,      1 lost,"
    " 33.33% lost\nan unknown line\n" + totals(3, 2) + "Min =  0.000120, Max =  3.000001, Avg =  1.500060, \n",
    f"echo '{UNSENT}' >&2")

# Ends by the signal after its summary, as vorn does; a second one would show.
WAITS = f"""#!/bin/sh
trap 'trap "echo Flushed 2 frames" TERM; echo "{totals(1, 1).rstrip()}"
  kill $! 2>/dev/null; trap - TERM; kill $$' TERM
echo '{(BANNER + answer(0, 0.000120)).rstrip()}'
sleep 60 >/dev/null 2>&1 & wait
"""


@pytest.fixture
def start(tmp_path):
    def start_recorder(program, *arguments, **options):
        env = {"VORN": str(script(tmp_path / "vorn", program))}
        return lab.own(Program([*companion("record"), *arguments], cwd=tmp_path, env=env, **options))
    with Lab() as lab:
        yield start_recorder


def rows(path, query):
    with contextlib.closing(sqlite3.connect(path)) as db, contextlib.suppress(sqlite3.OperationalError):  # no table yet
        return db.execute(query).fetchall()


def test_every_kind_of_line_is_kept_with_its_run(start, tmp_path):
    before = time.time() * 1e6
    run = start(PRINTS, "--label", "lab", "--count", "2", "--", "-e3", "example").finish()
    assert run.status == 0 and "6 requests, 2 without an answer; 2 batches, 2 bad; in vorn.db" in run.err
    assert run.err.count("not understood: an unknown line") == 2 and run.err.count(UNSENT) == 2
    with opened_store(str(tmp_path / "vorn.db")) as opened:
        first, second = reading.runs(opened)
        assert (first.label, first.command[1:], first.asked, first.target) == ("lab", ["-e3", "example"], "example", HOST)
        assert (first.status, first.sent) == (0, 3)
        assert before < first.start_usec < first.end_usec <= second.start_usec
        names, found = reading.name_texts(opened), reading.requests(opened, Selection())
        echoes = [(rtt, run, names[host]) for rtt, run, host in zip(found.value, found.run, found.host)]
        assert echoes == [(rtt, run, HOST) for run in (1, 2) for rtt in (120, -1, -1)]  # an error is no answer
        assert reading.messages(opened, 2) == ["not understood: an unknown line", UNSENT]
    assert rows(tmp_path / "vorn.db", "SELECT bad, received, size, rate_kbps, buffer_usec, run FROM batch") == [
        (1, 48, 50, 94100, 1500, 1), (1, 48, 50, 94100, 1500, 2)]
    assert rows(tmp_path / "vorn.db", "SELECT received, min_usec, max_usec, mean_usec FROM run") == [
        (2, 120, 3000001, 1500060)] * 2
    assert rows(tmp_path / "vorn.db", "SELECT rate_kbps, missing FROM rate") == [(176, 1)] * 2


def test_a_stop_signal_goes_on_once_and_no_end_costs_a_record(start, tmp_path):
    path = tmp_path / "vorn.db"
    for count, number in enumerate((signal.SIGTERM, signal.SIGKILL), 1):
        run = start(WAITS, "--every", "0.1", "--", HOST)
        eventually(lambda: rows(path, "SELECT count(*) FROM echo") == [(count,)], f"request {count}")
        run.signal(number)
        assert run.finish().status == -number
    assert start(PRINTS, "--", HOST).finish().status == 0
    kept = rows(path, "SELECT status, end_usec > start_usec, sent, (SELECT count(*) FROM echo WHERE run = id) FROM run")
    assert kept == [(-signal.SIGTERM, 1, 1, 1), (None, None, None, 1), (0, 1, 3, 3)]
    assert rows(path, "SELECT * FROM message WHERE run < 3") == []
    assert rows(path, "PRAGMA integrity_check") == [("ok",)]


def test_json_lines_come_live_and_a_closed_pipe_ends_the_program(start):
    run = start(WAITS, "-o", "-", "--", HOST)
    eventually(lambda: run.out.count("\n") == 3, "its first request")
    run.signal(signal.SIGTERM)
    lines = [json.loads(line) for line in run.finish().out.splitlines()]
    assert [line["kind"] for line in lines] == ["run", "destination", "echo", "totals", "summary", "end"]
    assert (lines[0]["schema"], lines[2]["rtt_usec"], lines[4]["rtt_p99_usec"], lines[5]["status"]) == (
        1, 120, 120, -signal.SIGTERM)
    flood = f"#!/bin/sh\nwhile echo '{timed_out(0).rstrip()}'; do :; done\n"
    run = start(flood, "-o", "-", "--", HOST, stdout=subprocess.PIPE)
    run.process.stdout.readline()
    run.process.stdout.close()
    assert (run.finish().status, run.err) == (1, "")


@pytest.mark.parametrize("program, arguments, status, complaint", [
    ("#!/bin/sh\necho 'Error- no' >&2; exit 1\n", "--every 9 -- x", 1, "Error- no\nvorn-record: 1 run, no re"),
    (printing("   0: Received  Echo"), "-- x", 0, "the last line is cut off"),
    ("not a program", "-- x", 1, "Exec format error"),
    (PRINTS, "x", 2, "behind --"),
    (PRINTS, "--every -1 -- x", 2, "positive number"),
    (PRINTS, "-o vorn -- x", 2, "not a database"),
    (PRINTS, "-o /proc/self/x -- x", 2, "unable to open"),
    (PRINTS, "-o= -- x", 2, "a file of records needs a name"),
    (PRINTS, "-- -M", 2, "in the background"),
    (PRINTS, "--format influx -- x", 2, "is for lines"),
    (PRINTS, "--prune 90 -o vorn.db", 2, "not an age"),
    (printing(answer(10**30) + answer(1, 10.0**30) + answer(2)), "-- x", 0, "1 requests, 0 without")])
def test_what_goes_wrong_is_said(start, program, arguments, status, complaint):
    run = start(program, *arguments.split()).finish()
    assert run.status == status and complaint in run.err and "Traceback" not in run.err


def test_packets_are_kept_when_they_are_asked_for(start, tmp_path):
    prints = printing("  0:           0: Received Data in  0.000000s from 10.0.0.2\n"
                      "  0:           2: Received Data in  0.000120s from 10.0.0.2\n" + batch(1))
    for options, count in (([], 0), (["--packets"], 2)):
        assert start(prints, *options, "--", "-c", HOST).finish().status == 0
        assert rows(tmp_path / "vorn.db", "SELECT count(*) FROM packet") == [(count,)]
    run = start(printing("Engaging options: -c -s\n" + batch(1)), "--packets", "--", "--client", HOST)
    assert "leaves packets out (-s)" in run.finish().err


def test_the_line_protocol_is_escaped_and_counted(start):
    run = start(PRINTS, "-o", "-", "--format", "influx", "--label", "a b,c=d", "--", HOST).finish()
    stamped = [line.rsplit(" ", 1) for line in run.out.splitlines()]
    assert all(len(stamp) == 19 and abs(int(stamp) / 1e9 - time.time()) < 3600 for _, stamp in stamped)
    lines = [line.replace(f",site={record.socket.gethostname()}", "") for line, _ in stamped]
    assert lines[:2] == [
        rf"vorn_echo,label=a\ b\,c\=d,host={HOST},answer=Echo\ Reply sequence=0i,rtt_usec=120i,answered=true",
        rf"vorn_echo,label=a\ b\,c\=d,host={HOST} sequence=1i,answered=false"]
    assert lines[-1].endswith("requests=3i,replies=1i,rtt_min_usec=120i,rtt_median_usec=120i,rtt_p95_usec=120i,"
                              "rtt_p99_usec=120i,rtt_max_usec=120i,batches=1i,bad=1i,status=0i")


def test_starts_do_not_drift(monkeypatch):
    clock, starts, lasting = [0.0], [], [3.0, 1.0, 25.0, 2.0]
    monkeypatch.setattr(record.time, "monotonic", lambda: clock[0])

    def run(_sink, _wanted, _stop, tally):
        starts.append(clock[0])
        clock[0] += lasting[tally.runs]
        tally.runs += 1
        return True

    def pause(seconds):
        clock[0] += seconds
    monkeypatch.setattr(record, "record_run", run)
    record.record_runs(None, types.SimpleNamespace(every_sec=10.0, count=4),
                       types.SimpleNamespace(signal=None, pause=pause), record.Tally())
    assert starts == [0, 10, 20, 50]  # the third run passes over two


def limit_pages(sink, pages):
    sink.store.db.execute(f"PRAGMA max_page_count = {pages}")  # as good as a full disk


def test_a_full_disk_costs_no_record(tmp_path, monkeypatch, capsys):
    path = str(tmp_path / "full.db")
    monkeypatch.setattr(record_sinks.tempfile, "tempdir", str(tmp_path))
    sink = record_sinks.StoreSink(path)
    sink.take(record_sinks.Begin(1, 1, ["vorn"], "here", "", None))
    assert sink.commit()
    limit_pages(sink, 12)
    for second in range(5):
        sink.take(record_sinks.Kept(1, [(second * 10**6 + n, Echo(second * 500 + n, 120, f"10.0.{n // 200}.{n % 200}",
                                                                  REPLY)) for n in range(500)]))
        assert sink.commit()
    assert sink.failing_since and "trying again" in capsys.readouterr().err
    assert len(rows(path, "SELECT * FROM echo")) in range(0, 2500, 500)  # whole transactions
    limit_pages(sink, 10**6)
    assert sink.commit() and "nothing is missing" in capsys.readouterr().err
    assert [row[0] for row in rows(path, "SELECT sequence FROM echo ORDER BY time_usec")] == list(range(2500))
    limit_pages(sink, 1)
    sink.take(record_sinks.Kept(1, [(10**9 + n, Batch(n, False, 50, 50, 94.1, 1.5)) for n in range(5000)]))
    assert sink.commit()
    sink.failing_since -= record_sinks.PATIENCE_SEC
    assert not sink.commit() and not sink.close()
    said = capsys.readouterr().err
    assert "the run is ended" in said and "the last 5000 lines are not in it" in said
    rescued, = tmp_path.glob("vorn-record-*.json")
    assert str(rescued) in said and [json.loads(line)["number"] for line in rescued.open()] == list(range(5000))
    assert rows(path, "PRAGMA integrity_check") == [("ok",)] and len(rows(path, "SELECT * FROM echo")) == 2500


def test_a_store_that_breaks_ends_the_run_with_its_status(start, tmp_path, monkeypatch):
    flood = f"#!/bin/sh\nn=0; while echo '{answer(0).rstrip()}'; do sleep 0.01; done\n"
    run = start(flood, "-o", "r.db", "--", HOST)
    eventually(lambda: (tmp_path / "r.db").exists() and rows(tmp_path / "r.db", "SELECT 1 FROM echo LIMIT 1"), "a row")
    with contextlib.closing(sqlite3.connect(tmp_path / "r.db")) as db:
        db.execute("DROP TABLE echo")
    found = run.finish()
    assert found.status == 2 and "no such table" in found.err and "not all of it in r.db" in found.err, found.err
    rescued = found.err.split("they are in ")[1].split("\n")[0]
    assert json.loads(open(rescued).readline())["kind"] == "echo"
    os.unlink(rescued)
