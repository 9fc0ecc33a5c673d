# Refusals with their words, stream and status, the usage text, and what ordinary users may do.
import hashlib, os, shutil, signal, socket, subprocess, tempfile

from lab import LOOPBACK, REMOTE_PORT, VERSION, VORN, eventually, received, shape, summary

# SHA-256 of the usage text, whose letters scripts may read: in the program's place stands "vorn". An option that is
# added changes it.
USAGE = "f2288944c138567048b2508ea24713cf9f1c74a29250ae8cc41d1b54a10af5ef"
PRESETS = "Sending reporting to 127.0.0.1\n" + "".join(f"Engaging options: {options}\n" for options in (
    "-c -u -s -d0 -l1500 -E50 -e1000", "-M -u -s", "-U -i -e -l1500 -d0", "-m -e1 -d0 -a500 -T1000000 -s",
    "-e20 -t -d0", "-e -a10 -l1500 -d0 -A50 -s -T200000", "-e3000 -a1 -l250 -r50 -A50 -s -T20000 -m"))
SURE = "-T9000000"
AS_NOBODY = ("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups")


def test_presets_and_refusals(lab):
    for arguments, words in {
        "": "Error- Expecting a host to send traffic to\n", "-x": "", "-d": "Error- could not parse <-d>\n",
        "-q256": "ERROR: Max TOS is 255\n",
        "-f": "Error: Expecting filename for -f\n", "-F": "Error: Expecting tag for -F\n",
        "-fno/such/place": "Error: Bad filename? Permissions?\n", "-f/": "Error: Bad filename? Permissions?\n",
        "--clientx": "Error: unexpected -- option received\n", "10.0.0.1 10.0.0.2 -p -u": "-u and -p incompatible\n",
        "0.0.0.0": "Error- could not interpret <0.0.0.0>\n", "-c -i 10.0.0.1": "-c and -i incompatible\n",
        "10.0.0.1 10.0.0.2 10.0.0.3": "Error- unexpected argument <10.0.0.3> \n",
        "--": "Error: Expecting more than just --\n",
        "no-such-host.invalid": "Error- unresolved host <no-such-host.invalid>\n",
        "-Rno-such-host.invalid --c --s --b --d --t --l --v -x": "",
        "-a65535 -l65536 -E65536 -x": "-a# capped at 65534\n-l# capped at 65535\n",
    }.items():
        run = lab.run(*arguments.split())
        before, version, usage = run.err.partition(f"vorn, version {VERSION}, ")
        assert (before, run.body, run.status) == (words, PRESETS if "--v" in arguments else "", 1), arguments
        text, _, end = usage.partition("\n")[2].replace(VORN, "vorn").rpartition("Cleanup exit\n")
        assert version and hashlib.sha256(text.encode()).hexdigest() == USAGE and end == "", text


def test_sockets_that_cannot_be_had_and_a_detached_monitor(lab):
    here = lab.namespace()
    for options, words in ((["-p", LOOPBACK], f"could not connect to {LOOPBACK}"),
                           (["--server"], "Could not bind in socket."), (["-p", "--server"], "could not bind TCP socket")):
        if "--server" in options:
            lab.monitor(*options[:-1], at=here)  # it holds the port
        run = lab.run(*options, at=here)
        assert (run.err, run.status) == (f"Error- {words}\nCleanup exit\n", 1), options
    there = lab.namespace()
    for options, port, table in ((["-M", "--server"], REMOTE_PORT, "udp"), (["-M"], socket.IPPROTO_ICMP, "raw")):
        run = lab.run(*options, at=there)
        assert (run.status, run.body, run.err) == (0, "", "")
        eventually(lambda: there.has_port(port, table), "the detached monitor")  # ended with its namespace
    assert [os.readlink(f"/proc/{monitor}/cwd") for monitor in there.inhabitants()] == ["/", "/"]
    run = lab.run("-u", "-e2", "-T9000000", LOOPBACK, at=there)
    assert shape(run.body) == received(0, LOOPBACK) + received(1, LOOPBACK) + summary(2, 2)


# Descriptors that the caller left open take the numbers before the program's own, the first of which is for signals; a
# UDP socket is the second, the connection of a TCP monitor the third.
def test_descriptors_that_a_wait_cannot_take(lab):
    no_connection = "Err: Could not accept connection\n"
    no_socket = "Error- Could not allocate udp socket. (Permissions?)\n"
    for left, carrier, words in ((1022, "-u", ""), (1023, "-u", no_socket), (1024, "-u", no_socket),
                                 (1021, "-p", ""), (1022, "-p", no_connection)):
        here, leave_open = lab.namespace(), ["prlimit", "--nofile=9999", "python3", "-c", f"""if True:
            import os, sys
            for number in range(3, {left}):
                os.dup2(0, number)
            os.execvp(sys.argv[1], sys.argv[1:])"""]
        run = lab.start(carrier, "--server", at=here, before=leave_open)
        if words != no_socket:
            run.wait_for("Destination IP")
            asking = lab.start(carrier, "-e1", "-T9000000", LOOPBACK, at=here)
        if words:
            assert run.finish().err.endswith(words + "Cleanup exit\n") and run.status == 1, left
        else:
            assert ": Received  Echo Reply  in" in asking.finish().body, left


def test_options_of_the_sockets(lab):
    here, waiting, tcp = lab.namespace(), ("-d90000000", SURE, LOOPBACK), socket.IPPROTO_TCP
    broadcast, served = (socket.SOL_SOCKET, socket.SO_BROADCAST), lab.monitor(at=here)
    assert served.sockets(broadcast) == [[0, "0.0.0.0"]]  # or a forged sender would make it stream to everybody
    for options, address in ((["-u", f"-n{LOOPBACK}"], LOOPBACK), ([], "0.0.0.0")):
        run = lab.start(*options, *waiting, at=here)
        run.wait_for("Received")
        assert run.sockets(broadcast) == [[1, address]]
    served = lab.monitor("-p", "-q32", at=here)
    run = lab.start("-p", *waiting, at=here)
    run.wait_for("Received")
    assert run.sockets((tcp, socket.TCP_NODELAY)) == [[1, LOOPBACK]]
    connection = served.sockets((socket.SOL_IP, socket.IP_TOS), (socket.SOL_SOCKET, socket.SO_KEEPALIVE), *(
        (tcp, option) for option in (socket.TCP_KEEPIDLE, socket.TCP_KEEPINTVL, socket.TCP_KEEPCNT)))[1]
    assert connection == [32, 1, 60, 10, 6, LOOPBACK]
    served.signal(signal.SIGTERM)
    served.finish()
    lab.monitor("-p", at=here)  # at once, although the kernel still remembers the connection


def test_privileges_of_ordinary_users(lab):
    here, place = lab.namespace(), lab.enter_context(tempfile.TemporaryDirectory())
    lab.monitor(at=here)
    os.chmod(place, 0o755)
    for name, mode in (("capable", 0o755), ("plain", 0o755), ("setuid", 0o6755), ("setgid", 0o2755)):
        os.chmod(shutil.copyfile(VORN, f"{place}/{name}"), mode)
    for name in ("capable", "setgid"):
        subprocess.run(["setcap", "cap_net_raw+p", f"{place}/{name}"], check=True)
    for name, bounds in (("capable", ()), ("setuid", ()), ("setgid", ()), ("plain", ()),
                         ("capable", ["--bounding-set=-net_raw"])):
        options = {"at": here, "before": (*AS_NOBODY, *bounds), "program": f"{place}/{name}", "cwd": place}
        assert shape(lab.run("-u", "-e1", "-T9000000", "localhost", **options).body).startswith(received(0, LOOPBACK))
        run = lab.start("-d90000000", LOOPBACK, **options)
        if name == "plain" or bounds:
            assert run.finish().err == "Error- Could not allocate socket. (Permissions?)\nCleanup exit\n"
            assert run.status == 1
            continue
        run.wait_for("Received")
        status = dict(line.split(":\t") for line in run.proc("status").splitlines())
        assert {status[f"Cap{which}"] for which in ("Inh", "Prm", "Eff", "Amb")} == {"0" * 16}, name
        ids = "\t".join(["65534"] * 4)
        assert (status["NoNewPrivs"], status["Uid"], status["Gid"]) == ("1", ids, ids)
        run = lab.run("--client", "-e1", "-fout.csv", LOOPBACK, **options)
        assert run.err.startswith("Error: Bad filename? Permissions?\n") and run.status == 1
