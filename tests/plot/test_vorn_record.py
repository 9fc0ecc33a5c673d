# vorn-record: what it keeps of what a program prints, and what is left after a stop, a kill and a full disk.
import json
import pathlib
import signal
import sqlite3
import subprocess
import sys
import time
import types

import pytest

PLOT = pathlib.Path(__file__).resolve().parents[2] / "plot"
sys.path.insert(0, str(PLOT))
from vornplot import record, store
from vornplot.records import REPLY, Batch, Destination, Echo

PATIENCE = 30  # seconds that only a hanging program exceeds

PRINTS = r"""#!/bin/sh
printf 'Vorn version 5.2, a notice\nBuilt Jan  5 2026 at 09:00:00\n'
printf 'Destination IP = 10.0.0.2\n' >&2
printf '           0: Received  Echo Reply  in  0.000120s from 10.0.0.2\n'
printf '           1: TIMEOUT in  0.200031s, expected rsp from 10.0.0.2\n'
printf '           2: Received Destination Unreachable in  3.000001s from 10.0.0.9\n'
printf '    1:* Pkts:  48/50    94.1 mbps     1.5 msec   Lost: 0      Bad Samples: 1\n'
printf 'Running Bitrate:   0.176 Megabits/s,   98.9 fps,      3 tx,      2 rx,      1 missing,      0 late,'
printf '      1 lost, 33.33%% lost\n'
printf 'Err- could not send 8 bytes, sent -1 bytes\nan unknown line\n'
printf 'In  0.300000s, 3 tx pkts, 2 rx pkts, 1 missing, 0 invalid\n'
printf 'Min =  0.000120, Max =  3.000001, Avg =  1.500060, \n'
"""

# Ends by the signal after its summary, as vorn does; a second one would show.
WAITS = r"""#!/bin/sh
trap 'trap "echo Flushed 2 frames" TERM; echo "In  1.000000s, 1 tx pkts, 1 rx pkts, 0 missing, 0 invalid"
  kill $! 2>/dev/null; trap - TERM; kill $$' TERM
printf 'Destination IP = 10.0.0.2\n           0: Received  Echo Reply  in  0.000120s from 10.0.0.2\n'
sleep 60 >/dev/null 2>&1 & wait
"""


@pytest.fixture
def start(tmp_path):
    started = []

    def start_recorder(program, *arguments):
        (tmp_path / "vorn").write_text(program)
        (tmp_path / "vorn").chmod(0o755)
        started.append(subprocess.Popen([PLOT / "vorn-record", *arguments], cwd=tmp_path, stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE, text=True,
                                        env={"PATH": "/usr/bin:/bin", "VORN": str(tmp_path / "vorn")}))
        return started[-1]

    yield start_recorder
    for process in started:
        process.kill()
        process.communicate()


def rows(path, query):
    db = sqlite3.connect(path)
    try:
        return db.execute(query).fetchall()
    finally:
        db.close()


def wait_for_rows(path, query):
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        try:
            if found := rows(path, query):
                return found
        except sqlite3.OperationalError:
            pass  # the tables are not there yet
        time.sleep(0.05)
    raise AssertionError(f"nothing came: {query}")


def test_every_kind_of_line_is_kept_with_its_run(start, tmp_path):
    before = time.time() * 1e6
    process = start(PRINTS, "--label", "lab", "--count", "2", "--", "-e3", "host.example")
    _, errors = process.communicate(timeout=PATIENCE)
    assert process.returncode == 0 and "6 requests, 2 without an answer; 2 batches, 2 bad; in vorn.db" in errors
    assert errors.count("not understood: an unknown line") == 2 and errors.count("Err- could not send") == 2
    opened = store.open_to_read(str(tmp_path / "vorn.db"))
    first, second = store.runs(opened)
    assert (first.label, first.command[1:], first.asked, first.target) == ("lab", ["-e3", "host.example"],
                                                                           "host.example", "10.0.0.2")
    assert (first.status, first.sent, first.received, first.max_usec) == (0, 3, 2, 3000001)
    assert before < first.start_usec < first.end_usec <= second.start_usec
    names = store.name_texts(opened)
    echoes = [(rtt, run, names[host]) for _, rtt, run, host in store.echo_rows(opened)]
    assert echoes == [(rtt, run, "10.0.0.2") for run in (1, 2) for rtt in (120, -1, -1)]  # an error is no answer
    assert [row[1:] for row in store.batch_rows(opened)] == [(94100, 1500, 1, 48, 50, 1), (94100, 1500, 1, 48, 50, 2)]
    assert [text for _, text in store.messages(opened, 2)] == ["Err- could not send 8 bytes, sent -1 bytes",
                                                               "not understood: an unknown line"]
    assert rows(tmp_path / "vorn.db", "SELECT rate_kbps, missing FROM rate") == [(176, 1)] * 2


def test_a_stop_signal_goes_on_once_and_the_summary_is_kept(start, tmp_path):
    process = start(WAITS, "--every", "0.1", "--", "10.0.0.2")
    wait_for_rows(tmp_path / "vorn.db", "SELECT * FROM echo")
    process.send_signal(signal.SIGTERM)
    process.communicate(timeout=PATIENCE)
    assert process.returncode == -signal.SIGTERM
    assert rows(tmp_path / "vorn.db", "SELECT sent, status, end_usec > start_usec FROM run") == [(1, -15, 1)]
    assert rows(tmp_path / "vorn.db", "SELECT * FROM message") == []


def test_after_a_kill_the_records_are_there_and_more_can_be_added(start, tmp_path):
    process = start(WAITS, "--", "10.0.0.2")
    wait_for_rows(tmp_path / "vorn.db", "SELECT * FROM echo")
    process.kill()
    process.communicate(timeout=PATIENCE)
    assert start(PRINTS, "--", "10.0.0.2").wait(PATIENCE) == 0
    assert rows(tmp_path / "vorn.db", "PRAGMA integrity_check") == [("ok",)]
    assert rows(tmp_path / "vorn.db", "SELECT status, (SELECT count(*) FROM echo WHERE run = id) FROM run") == [
        (None, 1), (0, 3)]


def test_json_lines_come_live_and_a_closed_pipe_ends_the_program(start):
    process = start(WAITS, "-o", "-", "--", "10.0.0.2")
    kinds = [json.loads(process.stdout.readline()) for _ in range(3)]
    assert [line["kind"] for line in kinds] == ["run", "destination", "echo"] and kinds[2]["rtt_usec"] == 120
    process.send_signal(signal.SIGTERM)
    rest = [json.loads(line) for line in process.communicate(timeout=PATIENCE)[0].splitlines()]
    assert [line["kind"] for line in rest] == ["totals", "end"] and rest[1]["status"] == -15
    process = start("#!/bin/sh\nwhile echo '   0: TIMEOUT in  0.200031s, expected rsp from 10.0.0.2'; do :; done\n",
                    "-o", "-", "--", "10.0.0.2")
    process.stdout.readline()
    process.stdout.close()
    assert process.wait(PATIENCE) == 1 and process.stderr.read() == ""


@pytest.mark.parametrize("program, arguments, status, complaint", [
    ("#!/bin/sh\necho 'Error- no' >&2; exit 1\n", ["--every", "9", "--", "x"], 1,
     "Error- no\nvorn-record: 1 run, no re"),
    ("#!/bin/sh\nprintf '   0: Received  Echo'\n", ["--", "x"], 0, "the last line is cut off"),
    ("not a program", ["--", "x"], 1, "Exec format error"), (PRINTS, ["x"], 2, "behind --"),
    (PRINTS, ["--every", "-1", "--", "x"], 2, "positive number"),
    (PRINTS, ["-o", "vorn", "--", "x"], 1, "not a database"),
    (PRINTS, ["-o", "no/where.db", "--", "x"], 1, "unable to open")])
def test_what_goes_wrong_is_said(start, program, arguments, status, complaint):
    process = start(program, *arguments)
    _, errors = process.communicate(timeout=PATIENCE)
    assert process.returncode == status and complaint in errors and "Traceback" not in errors


def limit_pages(sink, pages):
    sink.store.db.execute(f"PRAGMA max_page_count = {pages}")  # as good as a full disk


def test_a_full_disk_costs_no_earlier_record_and_is_tried_again(tmp_path, capsys):
    path = str(tmp_path / "full.db")
    options = types.SimpleNamespace(every=None, site="here", label="")
    sink = record.StoreSink(path)
    handle = sink.begin(["vorn"], options, 1)
    sink.keep(handle, [(1, Destination("10.0.0.2", None))])
    assert sink.commit()
    limit_pages(sink, 12)
    for second in range(5):
        sink.keep(handle, [(second * 10**6 + n, Echo(second * 500 + n, 120, f"10.0.{n // 200}.{n % 200}", REPLY))
                           for n in range(500)])
        assert sink.commit()
    assert sink.trouble and "trying again" in capsys.readouterr().err
    kept = len(rows(path, "SELECT * FROM echo"))
    assert kept % 500 == 0 and kept < 2500  # whole transactions
    limit_pages(sink, 10**6)
    assert sink.commit() and "nothing is missing" in capsys.readouterr().err
    assert [row[0] for row in rows(path, "SELECT sequence FROM echo ORDER BY time_usec")] == list(range(2500))
    limit_pages(sink, 1)
    sink.keep(handle, [(10**9 + n, Batch(n, False, 50, 50, 94.1, 1.5)) for n in range(5000)])
    assert not sink.close() and "the last 5000 lines are not kept" in capsys.readouterr().err
    assert rows(path, "PRAGMA integrity_check") == [("ok",)] and len(rows(path, "SELECT * FROM echo")) == 2500


def test_runs_of_another_store_are_taken_over_once(tmp_path):
    site, whole = str(tmp_path / "site.db"), store.open_to_write(str(tmp_path / "all.db"))
    opened = store.open_to_write(site)
    store.write(whole, lambda target: store.name_id(target, "203.0.113.9"))  # numbers names otherwise

    def begin(target):
        run = store.begin_run(target, ["vorn", "10.0.0.2"], 5, "there", "east")
        store.append(target, run, 6, Destination("10.0.0.2", None))
        store.append(target, run, 7, Echo(0, 120, "10.0.0.2", REPLY))
    store.write(opened, begin)
    assert store.merge(whole, site) == 1
    store.write(opened, lambda target: (store.append(target, 1, 8, Echo(1, 130, "10.0.0.3", "TTL Exceeded")),
                                        store.end_run(target, 1, 9, 0)))
    assert (store.merge(whole, site), store.merge(whole, site)) == (1, 0)  # what went on is taken anew, then never more
    run, = store.runs(whole)
    assert (run.site, run.label, run.target, run.end_usec) == ("there", "east", "10.0.0.2", 9)
    names = store.name_texts(whole)
    assert [(names[host], names[answer]) for host, answer in whole.db.execute("SELECT host, answer FROM echo")] == [
        ("10.0.0.2", REPLY), ("10.0.0.3", "TTL Exceeded")]
