# vorn-check: what it makes of a run, and that nothing but a run within its limits is OK.
import json, os, pathlib, re, signal, subprocess

import pytest

pytest.importorskip("nagiosplugin")
PROGRAM = pathlib.Path(__file__).resolve().parents[2] / "plot" / "vorn-check"
OK, WARNING, CRITICAL, UNKNOWN = range(4)


def reply(sequence, seconds=0.010, answer=" Echo Reply "):
    return f"{sequence:12}: Received {answer} in {seconds:9.6f}s from 10.0.0.2\n"


def timeout(sequence):
    return f"{sequence:12}: TIMEOUT in  0.200031s, expected rsp from 10.0.0.2\n"


def totals(sent, received):
    return f"In  1.000000s, {sent} tx pkts, {received} rx pkts, {sent - received} missing, 0 invalid\n"


def batch(number, rate=90.0, mark=" ", received=50):
    return f"{number:5}:{mark} Pkts: {received:3}/50   {rate:5.1f} mbps     1.5 msec   Lost: 0      Bad Samples: 0\n"


TEN = "".join(map(reply, range(10)))
NINE = TEN.replace(reply(4), timeout(4))
SLOW = "".join(reply(n, 0.001 * (n + 1)) for n in range(100)) + totals(100, 100)  # p95: 95 ms
STREAM = "".join(batch(n) for n in range(1, 100)) + batch(100, 60.0)  # 99 %: 90, the worst 60
BAD = batch(1) + batch(2, 40.0, "*", 49) + batch(3)
DEAD = "    1:*** Rx 0, Lost 50\n"
PERMISSION = "Error- Could not allocate socket. (Permissions?)\nCleanup exit\n"


@pytest.fixture
def check(tmp_path):
    def run(printed, options, arguments="-e9 10.0.0.2", status=0, then=""):
        (tmp_path / "printed").write_text(printed)
        script = tmp_path / "vorn"
        script.write_text(f"#!/bin/sh\ncat {tmp_path}/printed\n{then}\nexit {status}\n")
        script.chmod(0o755)
        done = subprocess.run([PROGRAM, "--program", script, *options.split(), "--", *arguments.split()],
                              stdout=subprocess.PIPE, text=True, timeout=60)
        assert done.stdout.count("\n") == 1 and done.stdout.count("|") <= 1, done.stdout
        return done.returncode, done.stdout
    return run


ECHO_RUNS = [
    (TEN + totals(10, 10), "--loss 1:5 --rtt-p95 20:40", OK,
     "VORN OK - 10.0.0.2: 10 of 10 answered, loss 0 %, p95 10.000 ms | loss=0.0%;1;5;0 rtt_p95=10.0ms;20;40;0\n"),
    (NINE, "", WARNING, "loss 10 % (outside range 0:0)"),  # without a limit no packet may be lost
    (NINE, "--loss 10:20", OK, ""),  # a limit itself is still within
    (NINE, "--loss 5:9.9", CRITICAL, "loss 10 % (outside range 0:9.9)"),
    (NINE, "--loss :20", OK, ""),
    (TEN + totals(20, 10), "--loss 1:60", WARNING, "loss 50 % ("),  # -m: time-outs have no line
    (SLOW, "--rtt-p95 95:96", OK, "p95 95.000 ms"),
    (SLOW, "--rtt-p95 94.9:96", WARNING, "p95 95.000 ms ("),
    (SLOW, "--rtt-p95 1:2 --loss 5,@0:1", CRITICAL, "loss 0 % (outside range @0:1)"),
    ("".join(reply(n, answer="Destination Unreachable") for n in range(3)), "--loss 100:", CRITICAL, "no answer; "),
    (timeout(0) + timeout(1) + totals(2, 0), "--loss 100:", CRITICAL, "no answer; "),
    ("", "", UNKNOWN, "no request and no batch"),
    (TEN + "           9: Recei\n", "", UNKNOWN, "not understood"),
    ("Engaging options: -a1 -s -m\n" + totals(9, 9), "", UNKNOWN, "-s leaves out the answers"),
    ("Engaging options: -a1 -s -m\n" + totals(9, 0), "--loss :", UNKNOWN, "two numbers"),
    ("Engaging options: -a1 -s -m\n" + totals(9, 0), "", CRITICAL, "no answer"),
    ("Monitor locked on 10.0.0.2, id 4\n" + TEN, "", UNKNOWN, "a monitor"),
]


def test_echo_runs(check):
    for printed, options, status, text in ECHO_RUNS:
        found, line = check(printed, options)
        assert (found, text in line) == (status, True), line


STREAMS = [
    (STREAM, "--rate-p99 90:80", OK, "100 batches, 5000 of 5000 packets, loss 0 %, 99 % reached 90.0 Mbit/s, 0 bad"),
    (STREAM, "--rate-p99 90.1:80", WARNING, "99 % reached 90.0 Mbit/s (outside range 90.1:)"),
    (STREAM, "--rate-p99 200:100", CRITICAL, "rate_p99=90.0;200:;100:;0"),
    (BAD, "--rate-p99 50:40 --loss 1:", WARNING, "1 bad (outside range 0:0)"),  # bad ones do not pass unseen
    (BAD, "--loss 1: --bad 1:2", OK, "loss 0.667 %, 99 % reached 90.0"),
    (batch(1, 40.0, "*", 49), "--loss 5: --bad 1:2", CRITICAL, "no good batch"),
    (DEAD, "--loss 100: --bad 5:", CRITICAL, "no answer"),
    ("Error- could not connect to 10.0.0.2\n", "", CRITICAL, "no answer: could not connect to 10.0.0.2"),
]


def test_streams(check):
    for printed, options, status, text in STREAMS:
        ended = 1 if printed.startswith("Error") else 0
        found, line = check(printed, options, "--client -e100 10.0.0.2", ended)
        assert (found, text in line) == (status, True), line


def test_a_run_that_fails_or_hangs_is_never_ok(check):
    assert check(PERMISSION, "", status=1) == (
        UNKNOWN, f"VORN UNKNOWN - 10.0.0.2: vorn ended with status 1: {PERMISSION.splitlines()[0]}\n")
    assert check(TEN, "", status=1)[0] == UNKNOWN and check(NINE, "--loss 1:2", status=1)[0] == CRITICAL
    assert check(TEN, "", then="kill -9 $$")[0] == UNKNOWN
    found, line = check(TEN, "--timeout 0.3", then="trap '' INT; sleep 0.1; exec sleep 0.5")
    assert found == UNKNOWN and "not over within 0.3 s; 10 of 10 answered" in line
    assert check(DEAD, "--timeout 0.1 --loss 100: --bad 9:", "-c h", then="exec sleep 60")[0] == CRITICAL  # soon ended
    for options, arguments in (("", "--server"), ("", "-t 10.0.0.2"), ("--bad 1:2", "10.0.0.2"), ("--loss 5:1", "h"),
                               ("--rate-p99 1:5", "-c h"), ("--loss nan:nan", "h"), ("--loss 1", "h"),
                               ("--timeout 0", "h"), ("--prometheus x.txt", "h"), ("--program /missing", "h")):
        found, line = check(TEN, options, arguments)
        assert found == UNKNOWN and line.startswith("VORN UNKNOWN - "), line


def test_a_stopped_check_takes_its_run_with_it(tmp_path):
    script = tmp_path / "vorn"
    script.write_text(f"#!/bin/sh\necho $$ >{tmp_path}/id\nexec sleep 1000\n")
    script.chmod(0o755)
    process = subprocess.Popen([PROGRAM, "--program", script, "--", "h"], stdout=subprocess.PIPE, text=True)
    while not (tmp_path / "id").exists() or not (tmp_path / "id").read_text().endswith("\n"):
        assert process.poll() is None
    process.send_signal(signal.SIGTERM)
    assert process.communicate(timeout=60)[0] == "VORN UNKNOWN - stopped by a signal\n"
    assert process.returncode == UNKNOWN
    with pytest.raises(ProcessLookupError):
        os.kill(int((tmp_path / "id").read_text()), 0)


def test_figures_for_other_programs(check, tmp_path):
    pytest.importorskip("prometheus_client")
    metrics = tmp_path / "lan.prom"
    found, line = check(NINE, f"--json --prometheus {metrics} --label a\"b")
    told = json.loads(line)
    assert (told["status"], told["state"], told["answered"], told["rtt_p95"]) == (WARNING, "WARNING", 9, 10.0)
    values = dict(re.findall(r"^(\w+)\{.*\} (\S+)$", metrics.read_text(), re.MULTILINE))
    assert (float(values["vorn_check_loss_ratio"]), float(values["vorn_check_rtt_p95_seconds"])) == (0.1, 0.01)
    assert values["vorn_check_status"] == "1.0" and 'label="a\\"b",mode="echo",target="10.0.0.2"' in metrics.read_text()
    # A run that failed replaces the figures of the one before; a file that cannot be written is not passed over.
    check(PERMISSION, f"--prometheus {metrics}", status=1)
    assert "vorn_check_status" in metrics.read_text() and "loss" not in metrics.read_text()
    metrics.unlink()
    metrics.mkdir()
    found, line = check(TEN, f"--prometheus {metrics}")
    assert found == UNKNOWN and "lan.prom: Is a directory" in line
    assert sorted(path.name for path in tmp_path.iterdir()) == ["lan.prom", "printed", "vorn"]


@pytest.mark.skipif(os.geteuid() != 0, reason="a network namespace needs root")
def test_the_program_itself():
    inside = f"ip link set lo up; exec {PROGRAM} --rtt-p95 1000:2000 -- -e3 -d0 $1"
    command = ["unshare", "--net", "sh", "-c", inside, "-"]
    for target, status, text in (("127.0.0.1", OK, "3 of 3 answered"), ("10.0.0.2", CRITICAL, "no answer")):
        done = subprocess.run([*command, target], stdout=subprocess.PIPE, text=True, timeout=60)
        assert done.returncode == status and text in done.stdout, done.stdout
