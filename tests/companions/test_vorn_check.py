# vorn-check: what it makes of a run, and that nothing but a run within its limits is OK.
import contextlib, io, json, os, re, shutil, signal, stat, subprocess

import pytest
from companions import ERROR, HOST, answer, batch, companion, printing, script, silent_batch, timed_out, totals
from lab import VORN, Lab, Program, eventually

pytest.importorskip("nagiosplugin")
from vorn_companions.commands import check as vorn_check

PROGRAM = companion("check")
OK, WARNING, CRITICAL, UNKNOWN = range(4)


# The status and the line that come of a program, or of one that only prints this.
def check(folder, program, options, arguments=f"-e9 {HOST}"):
    made = script(folder / "vorn", program if program.startswith("#!") else printing(program))
    out = io.StringIO()
    with contextlib.redirect_stdout(out):
        try:
            status = vorn_check.main(["--program", str(made), *options.split(), "--", *arguments.split()])
        except SystemExit as left:
            status = left.code
    assert out.getvalue().count("\n") == 1 and out.getvalue().count("|") <= 1, out.getvalue()
    return status, out.getvalue()


TEN = "".join(answer(n) for n in range(10))
NINE = TEN.replace(answer(4), timed_out(4))
SLOW = "".join(answer(n, 0.001 * (100 - n)) for n in range(100)) + totals(100, 100)  # p95: 95 ms
SILENT = "Engaging options: -a1 -s -m\n"
PERMISSION = "Error- Could not allocate socket. (Permissions?)\n"
ECHO_RUNS = {
    "all answered": (TEN + totals(10, 10), "--loss 1:5 --rtt-p95 20:40", OK, "VORN OK - 10.0.0.2: 10 of 10 answered, "
                     "loss 0 %, p95 10.000 ms | loss=0.0%;1;5;0 rtt_p95=10.0ms;20;40;0\n"),
    "without a limit no packet may be lost": (NINE, "", WARNING, "loss 10 % (outside range 0:0)"),
    "the limit itself": (NINE, "--loss 10:20", OK, ""),
    "beyond both limits": (NINE, "--loss 5:9.9", CRITICAL, "loss 10 % (outside range 0:9.9)"),
    "within the only limit": (NINE, "--loss :20", OK, ""),
    "time-outs without a line": (TEN + totals(20, 10), "--loss 1:60", WARNING, "loss 50 % ("),
    "too slow": (SLOW, "--rtt-p95 94.9:96", WARNING, "p95 95.000 ms ("),
    "two ranges": (SLOW, "--rtt-p95 1:2 --loss 5,@0:1", CRITICAL, "loss 0 % (outside range @0:1)"),
    "only errors": ("".join(answer(n, kind=ERROR) for n in range(3)), "--loss 100:", CRITICAL, "no answer; "),
    "nothing": ("", "", UNKNOWN, "no request and no batch"),
    "cut off": (TEN + "           9: Recei\n", "", UNKNOWN, "not understood"),
    "answers without a line": (SILENT + totals(9, 9), "", UNKNOWN, "-s leaves out the answers"),
    "no number": (SILENT + totals(9, 0), "--loss :", UNKNOWN, "two numbers"),
    "no answer in the totals": (SILENT + totals(9, 0), "", CRITICAL, "no answer"),
    "a monitor": (f"Monitor locked on {HOST}, id 4\n" + TEN, "", UNKNOWN, "a monitor"),
    "not permitted": (printing(PERMISSION + "Cleanup exit\n", "exit 1"), "", UNKNOWN, f"with status 1: {PERMISSION}"),
    "failed": (printing(TEN, "exit 1"), "", UNKNOWN, ""),
    "failed, and beyond both limits": (printing(NINE, "exit 1"), "--loss 1:2", CRITICAL, ""),
    "killed": (printing(TEN, "kill -9 $$"), "", UNKNOWN, ""),
    "jitter and the longest": (SLOW, "--rtt-max 99: --jitter 0.9:", WARNING, "max 100.000 ms (outside range 0:99); "
                               "jitter 1.000 ms (outside range 0:0.9)"),
    "the 99th of a hundred": (SLOW, "--rtt-p99 99:", OK, "p99 99.000 ms"),
    "digits without end": (TEN + answer(10 ** 30), "", UNKNOWN, "not understood"),
    "nothing sent": ("Err- could not send 8 bytes, sent -1 bytes\n" + timed_out(0), "--loss 100:", CRITICAL,
                     "nothing could be sent: could not send 8 bytes"),
    "too long": (printing(TEN, "trap '' INT; exec sleep 0.5"), "--timeout 0.3", UNKNOWN, "0.3 s; 10 of 10 answered"),
}

STREAM = batch(1, 60.0) + "".join(batch(n) for n in range(2, 101))  # 99 %: 90, the worst 60
BAD = batch(1) + batch(2, 40.0, "*", 49) + batch(3)
STREAMS = {
    "fast enough": (STREAM, "--rate-p99 90:80", OK, "5000 of 5000 packets, loss 0 %, 99 % reached 90.0 Mbit/s, 0 bad"),
    "below one limit": (STREAM, "--rate-p99 90.1:80", WARNING, "99 % reached 90.0 Mbit/s (outside range 90.1:)"),
    "below both": (STREAM, "--rate-p99 200:100", CRITICAL, "rate_p99=90.0;200:;100:;0"),
    "without a limit no batch may be bad": (BAD, "--rate-p99 50:40 --loss 1:", WARNING, "1 bad (outside range 0:0)"),
    "as many bad as allowed": (BAD, "--loss 1: --bad 1:2", OK, "3 batches, 149 of 150 packets, loss 0.667 %, 99 %"),
    "all bad": (batch(1, 40.0, "*", 49), "--loss 5: --bad 1:2", CRITICAL, "no good batch"),
    "all lost": (silent_batch(1), "--loss 100: --bad 5:", CRITICAL, "no answer"),
    "copies do not make up for losses":
        (batch(1, received=60) + batch(2, received=40), "--loss 9:20", WARNING, "loss 10 % ("),
    "silent for three batches": (printing("".join(map(silent_batch, range(3))), "exec sleep 60"), "", CRITICAL,
                                 "no answer in 3 batches"),
    "never ends": (printing(silent_batch(1), "exec sleep 60"), "--timeout 0.1 --loss 100: --bad 9:", CRITICAL, ""),
    "refused": (printing("Error- could not connect to h\n", "exit 1"), "", CRITICAL, "no answer: could not connect"),
}


@pytest.mark.parametrize("arguments, runs", [(f"-e9 {HOST}", ECHO_RUNS), (f"--client -e100 {HOST}", STREAMS)])
def test_runs_against_limits(tmp_path, arguments, runs):
    for name, (program, options, status, text) in runs.items():
        found, line = check(tmp_path, program, options, arguments)
        assert (found, text in line) == (status, True), (name, line)


def test_what_cannot_be_checked_is_unknown(tmp_path):
    for options, arguments in (("", "--server"), ("", f"-t {HOST}"), ("--bad 1:2", HOST), ("--loss 5:1", HOST),
                               ("--rate-p99 1:5", f"-c {HOST}"), ("--loss nan:nan", HOST), ("--loss 1", HOST),
                               ("--timeout 0", HOST),
                               ("--loss 20:10", HOST), ("--loss 10,5", HOST), ("--loss 5:1,9", HOST),
                               ("--prometheus x.txt", HOST), ("--program /missing", HOST)):
        found, line = check(tmp_path, TEN, options, arguments)
        assert found == UNKNOWN and line.startswith("VORN UNKNOWN - "), line
    found, line = check(tmp_path, TEN, "--loss 20:10", HOST)
    assert "critical before it warns" in line and "write the smaller first" in line


def test_a_stopped_check_takes_its_run_with_it(tmp_path):
    own_id = tmp_path / "id"
    program = script(tmp_path / "vorn", f"#!/bin/sh\necho $$ >{own_id}\nexec sleep 1000\n")
    command = [*PROGRAM, "--prometheus", tmp_path / "m.prom", "--program", program, "--", HOST]
    with contextlib.closing(Program(command)) as run:
        eventually(lambda: own_id.exists() and own_id.read_text(), "the program")
        run.signal(signal.SIGTERM)
        assert (run.finish().out, run.status) == ("VORN UNKNOWN - stopped by a signal\n", UNKNOWN)
    with pytest.raises(ProcessLookupError):
        os.kill(int(own_id.read_text()), 0)
    assert 'vorn_check_status{label="",mode="echo",target="10.0.0.2"} 3.0' in (tmp_path / "m.prom").read_text()
    assert subprocess.run([*PROGRAM, "--help"], stdout=subprocess.DEVNULL).returncode == UNKNOWN


def test_figures_for_other_programs(tmp_path):
    pytest.importorskip("prometheus_client")
    metrics = tmp_path / "lan.prom"
    found, line = check(tmp_path, NINE, f"--json --prometheus {metrics} --label a\"b")
    told = json.loads(line)
    assert (told["status"], told["state"], told["answered"], told["rtt_p95"]) == (WARNING, "WARNING", 9, 10.0)
    values = dict(re.findall(r"^(\w+)\{.*\} (\S+)$", metrics.read_text(), re.MULTILINE))
    assert (float(values["vorn_check_loss_ratio"]), float(values["vorn_check_rtt_p95_seconds"])) == (0.1, 0.01)
    assert values["vorn_check_status"] == "1.0" and 'label="a\\"b",mode="echo",target="10.0.0.2"' in metrics.read_text()
    assert stat.S_IMODE(metrics.stat().st_mode) == 0o644  # whoever the collector runs as
    # Counters and the histogram go on over checks; all but the +Inf bucket are below what took 10 ms.
    check(tmp_path, NINE + answer(10, 0.0042), f"--prometheus {metrics} --label a\"b")
    text = metrics.read_text()
    for name, value in (("packets_sent_total{", 21), ("packets_received_total{", 19), ("rtt_seconds_count{", 19),
                        ('rtt_seconds_bucket{.*le="0.0025"', 0), ('rtt_seconds_bucket{.*le="0.005"', 1),
                        ('rtt_seconds_bucket{.*le="0.01"', 19), ('rtt_seconds_bucket{.*le="\\+Inf"', 19)):
        assert float(re.search(rf"^vorn_check_{name}.*\}} (\S+)$", text, re.MULTILINE)[1]) == value, (name, text)
    if promtool := shutil.which("promtool"):
        assert subprocess.run([promtool, "check", "metrics"], input=text, text=True, capture_output=True).stderr == ""
    # A run that failed replaces the figures of the one before; a file that cannot be written is not passed over.
    check(tmp_path, printing("", "exit 1"), f"--prometheus {metrics}")
    assert "vorn_check_status" in metrics.read_text() and "loss_ratio" not in metrics.read_text()
    metrics.unlink()
    metrics.mkdir()
    found, line = check(tmp_path, TEN, f"--prometheus {metrics}")
    assert found == UNKNOWN and "lan.prom: Is a directory" in line
    found, line = check(tmp_path, TEN, f"--prometheus {tmp_path}/x.prom --label a\udcff")
    assert found == UNKNOWN and "x.prom: " in line
    assert sorted(path.name for path in tmp_path.iterdir()) == ["lan.prom", "vorn"]


@pytest.mark.skipif(os.geteuid() != 0, reason="a network namespace needs root")
def test_the_program_itself():
    with Lab() as lab:
        for target, status, text in (("127.0.0.1", OK, "3 of 3 answered"), (HOST, CRITICAL, "nothing could be sent")):
            run = lab.run(*PROGRAM[1:], "--rtt-p95", "1000:2000", "--", "-e3", "-d0", target, program=PROGRAM[0],
                          env={"VORN": VORN})
            assert run.status == status and text in run.out, run.out
