# vorn-record: what it keeps of what a program prints, and what is left after a stop, a kill and a full disk.
import contextlib, json, signal, sqlite3, subprocess, time, types

import pytest
from companions import BANNER, ERROR, HOST, answer, batch, companion, printing, script, timed_out, totals
from lab import Lab, Program, eventually
from vorn_companions.commands import record
from vorn_companions.store import database as store
from vorn_companions.read.records import REPLY, Batch, Echo

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
    opened = store.open_to_read(str(tmp_path / "vorn.db"))
    first, second = store.runs(opened)
    assert (first.label, first.command[1:], first.asked, first.target) == ("lab", ["-e3", "example"], "example", HOST)
    assert (first.status, first.sent, first.received, first.max_usec) == (0, 3, 2, 3000001)
    assert before < first.start_usec < first.end_usec <= second.start_usec
    names = store.name_texts(opened)
    echoes = [(rtt, run, names[host]) for _, rtt, run, host in store.echo_rows(opened)]
    assert echoes == [(rtt, run, HOST) for run in (1, 2) for rtt in (120, -1, -1)]  # an error is no answer
    assert [row[1:] for row in store.batch_rows(opened)] == [(94100, 1500, 1, 48, 50, 1), (94100, 1500, 1, 48, 50, 2)]
    assert [text for _, text in store.messages(opened, 2)] == ["not understood: an unknown line", UNSENT]
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
    assert [line["kind"] for line in lines] == ["run", "destination", "echo", "totals", "end"]
    assert (lines[2]["rtt_usec"], lines[4]["status"]) == (120, -signal.SIGTERM)
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
    (PRINTS, "-o vorn -- x", 1, "not a database")])
def test_what_goes_wrong_is_said(start, program, arguments, status, complaint):
    run = start(program, *arguments.split()).finish()
    assert run.status == status and complaint in run.err and "Traceback" not in run.err


def limit_pages(sink, pages):
    sink.store.db.execute(f"PRAGMA max_page_count = {pages}")  # as good as a full disk


def test_a_full_disk_costs_no_earlier_record_and_is_tried_again(tmp_path, capsys):
    path = str(tmp_path / "full.db")
    sink = record.StoreSink(path)
    handle = sink.begin(["vorn"], types.SimpleNamespace(every=None, site="here", label=""), 1)
    assert sink.commit()
    limit_pages(sink, 12)
    for second in range(5):
        sink.keep(handle, [(second * 10**6 + n, Echo(second * 500 + n, 120, f"10.0.{n // 200}.{n % 200}", REPLY))
                           for n in range(500)])
        assert sink.commit()
    assert sink.trouble and "trying again" in capsys.readouterr().err
    assert len(rows(path, "SELECT * FROM echo")) in range(0, 2500, 500)  # whole transactions
    limit_pages(sink, 10**6)
    assert sink.commit() and "nothing is missing" in capsys.readouterr().err
    assert [row[0] for row in rows(path, "SELECT sequence FROM echo ORDER BY time_usec")] == list(range(2500))
    limit_pages(sink, 1)
    sink.keep(handle, [(10**9 + n, Batch(n, False, 50, 50, 94.1, 1.5)) for n in range(5000)])
    assert not sink.close() and "the last 5000 lines are not kept" in capsys.readouterr().err
    assert rows(path, "PRAGMA integrity_check") == [("ok",)] and len(rows(path, "SELECT * FROM echo")) == 2500
