# Every preset line, every refusal with its words, stream and status, the usage text to the letter, and privileges.
from lab import *

USAGE = (Path(__file__).parent / "usage.txt").read_text().replace("%s", VORN)
AS_NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")


def test_presets_and_their_abbreviations(lab):
    here = lab.namespace()
    for name, line in {
        "--client": "-c -u -s -d0 -l1500 -E50 -e1000", "--server": "-M -u -s", "--blast": "-U -i -e -l1500 -d0",
        "--discover": "-m -e1 -d0 -a500 -T1000000 -s", "--trace": "-e20 -t -d0",
        "--lots": "-e -a10 -l1500 -d0 -A50 -s -T200000", "--voice": "-e3000 -a1 -l250 -r50 -A50 -s -T20000 -m",
    }.items():
        run = lab.run(name[:3], name[:5], name, "-x", at=here)  # refused before it could run
        assert (run.body, run.status) == (f"Engaging options: {line}\n" * 3, 1)


def test_refusals(lab):
    here = lab.namespace()
    for arguments, words in {
        "": "Error- Expecting a host to send traffic to\n", "-x": "", "-d5000 -": "",
        **{f"-{letter}": f"Error- could not parse <-{letter}>\n" for letter in "AEISTadlqr"},
        "-E65537": "ERROR: Max -E is 65536\n", "-q256": "ERROR: Max TOS is 255\n", "-r0": "ERROR: Min -r is 1\n",
        "-f": "Error: Expecting filename for -f\n", "-F": "Error: Expecting tag for -F\n",
        "-fno/such/place": "Error: Bad filename? Permissions?\n",
        "--": "Error: Expecting more than just --\n", "--clientx": "Error: unexpected -- option received\n",
        "0.0.0.0": "Error- could not interpret <0.0.0.0>\n",
        "no-such-host.invalid": "Error- unresolved host <no-such-host.invalid>\n",
        "10.0.0.1 10.0.0.2 10.0.0.3": "Error- unexpected argument <10.0.0.3> \n",
        f"-c -i {LOOPBACK}": "-c and -i incompatible\n",
        **dict.fromkeys((f"-p -c {LOOPBACK}", f"-p -u {LOOPBACK}"), "-u and -p incompatible\n"),
        "-a65535 -l65536 -E65536 -x": "-a# capped at 65534\n-l# capped at 65535\n",
    }.items():
        run = lab.run(*arguments.split(), at=here)
        before, version, usage = run.err.partition("vorn, version 5.2, ")
        assert (before, run.body, run.status) == (words, "", 1), arguments
        assert version and usage.partition("\n")[2] == USAGE + "Cleanup exit\n", arguments


def test_sockets_that_cannot_be_had_and_a_detached_monitor(lab):
    here, free = lab.namespace(), lab.namespace()
    lab.socket(here, LOCAL_PORT), lab.socket(here, REMOTE_PORT, socket.SOCK_STREAM)
    for at, options, words in ((free, ["-p"], f"Error- could not connect to {LOOPBACK}\n"),
                               (here, ["-u"], "Error- Could not bind in socket.\n"),
                               (here, ["-p", "--server"], "Error- could not bind TCP socket\n")):
        run = lab.run(*options, LOOPBACK, at=at)
        assert (run.err, run.status) == (words + "Cleanup exit\n", 1)

    def end():
        with free:  # whoever has a UDP socket in there
            holders = subprocess.run(["ss", "-uanpH"], capture_output=True, text=True, check=True).stdout
        for pid in re.findall(r"pid=(\d+)", holders):
            os.kill(int(pid), signal.SIGKILL)

    lab.callback(end)
    assert lab.run("-M", "--server", at=free).status == 0
    eventually(lambda: "Received" in lab.run("-u", "-e1", LOOPBACK, at=free).out, "the detached monitor")


def test_privileges_of_ordinary_users(lab):
    here, place = lab.namespace(), lab.enter_context(tempfile.TemporaryDirectory())
    lab.monitor(at=here)
    os.chmod(place, 0o755)
    for name, mode in (("capable", 0o755), ("plain", 0o755), ("setuid", 0o4755)):
        os.chmod(shutil.copyfile(VORN, f"{place}/{name}"), mode)
    subprocess.run(["setcap", "cap_net_raw+p", f"{place}/capable"], check=True)
    for name, bounds in (("capable", ()), ("setuid", ()), ("plain", ()), ("capable", ["--bounding-set=-net_raw"])):
        options = {"at": here, "before": (*AS_NOBODY, *bounds), "program": f"{place}/{name}", "cwd": place}
        assert shape(lab.run("-u", "-e1", "-T9000000", LOOPBACK, **options).body).startswith(received(0, LOOPBACK))
        run = lab.start("-d90000000", LOOPBACK, **options)
        if name == "plain" or bounds:
            words = "Error- Could not allocate socket. (Permissions?)\nCleanup exit\n"
            assert (run.finish().err, run.status) == (words, 1)
            continue
        run.wait_for("Received")
        status = dict(line.split(":\t") for line in run.proc("status").splitlines())
        assert {status[f"Cap{which}"] for which in ("Inh", "Prm", "Eff", "Amb")} == {"0" * 16}, name
        assert (status["NoNewPrivs"], status["Uid"]) == ("1", "\t".join(["65534"] * 4))
        run = lab.run("--client", "-e1", "-fout.csv", LOOPBACK, **options)
        assert run.err.startswith("Error: Bad filename? Permissions?\n") and run.status == 1
