# Many hosts: the rounds in which they meet, the matrix of what is kept, who the hosts are, and meshes over ssh.
import asyncio, contextlib, itertools, json, os, random, re, shutil, signal, subprocess, time
from pathlib import Path

import pytest
from companions import answer, batch, companion, script, timed_out
from lab import VORN, End, Host, Lab, Link, Program, eventually, standing
from vorn_companions.commands import mesh
from vorn_companions.figures import matrix
from vorn_companions.figures.options import Options
from vorn_companions.mesh import far_end, inventory, keep
from vorn_companions.mesh.far_end import Line
from vorn_companions.mesh.rounds import rounds
from vorn_companions.read.records import Sources
from vorn_companions.store import database as store, reading

ALL = Options()


def test_rounds_hold_every_pair_once_and_no_host_twice():
    for count, expected in ((0, 0), (1, 0), (2, 1), (3, 3), (4, 3), (9, 9), (100, 99)):
        found = rounds(count)
        assert [len(pairs) for pairs in found] == [count // 2] * expected
        assert all(len({host for pair in pairs for host in pair}) == 2 * len(pairs) for pairs in found)
        met = [tuple(sorted(pair)) for pairs in found for pair in pairs]
        assert sorted(met) == list(itertools.combinations(range(count), 2))


# ---- the matrix ----

def echoes(milliseconds, lost=0):
    answers = [answer(lost + number, each / 1000) for number, each in enumerate(milliseconds)]
    return "".join([timed_out(number) for number in range(lost)] + answers)


def run(source, to, start, text, option="-u"):
    lines = [Line(start, line) for line in text.splitlines()]
    return keep.Run(source, to, start, start + 1, ["vorn", option, "x"], 0, lines)


def kept(folder, runs):
    opened = store.open_to_write(str(folder / "mesh.db"))
    for each in runs:
        keep.keep(opened, each, "mesh")
    opened.db.close()
    return [opened.path]


def test_the_matrix_holds_the_last_figures_and_their_direction(tmp_path):
    stream = batch(1, 90.0) + batch(2, 95.0) + batch(3, 1.0, "*") + batch(4, 80.0)
    paths = kept(tmp_path, [
        run("a", "b", 1, echoes([9] * 9)), run("a", "b", 5, echoes([1, 2, 30], lost=1)), run("b", "a", 6, echoes([4])),
        run("a", "b", 7, stream, "--client"), run("b", "a", 8, batch(1, 50.0, "*"), "--client"),
        run("a", "h10", 9, echoes([], lost=4)), run("a", "h2", 10, echoes([1]), "-t"),
        keep.Run("h10", "a", 9, 9, trouble="h10 was not reached")])
    found = matrix.compute(paths, ALL)
    assert found.hosts == ["a", "b", "h10"] and matrix.silent_hosts(found) == ["h10"]
    cells = {way: tuple(cell.shown(name) for name in ("rate", "rtt", "loss")) for way, cell in found.cells.items()}
    assert cells == {("a", "b"): ("none", 2.0, 25.0),  # what a commanded of b was sent by b
                     ("b", "a"): (80.0, 4.0, 0.0), ("a", "h10"): (None, "none", 100.0),
                     ("h10", "a"): ("none", None, None)}
    worst = [matrix.worst(found, face) for face in matrix.FACES]
    assert worst == [[("a", "b", "none"), ("b", "a", 80.0)], [("b", "a", 4.0), ("a", "b", 2.0)], [("a", "b", 25.0)]]
    text = subprocess.check_output([*companion("plot"), "-k", "matrix", "--text", *paths], text=True)
    assert "worst: a to b none, b to a 80.0" in text and "h10 was not reached: h10 towards a" in text
    assert re.search(r"b +80.0 +-$", text, re.MULTILINE), text


def test_a_run_that_the_file_does_not_take_is_printed(tmp_path, capsys):
    opened = store.open_to_write(str(tmp_path / "mesh.db"))
    opened.db.execute("DROP TABLE echo")
    failed = []
    for number, text in enumerate((echoes([1]), "", echoes([2]))):  # the second would fit
        assert not mesh.kept_or_printed(opened, run("a", "b", number, text), "l", failed)
    printed = [json.loads(line) for line in capsys.readouterr().out.splitlines()]
    assert [(each["label"], len(each["lines"])) for each in printed] == [("l", 1), ("l", 0), ("l", 1)]
    assert len(failed) == 1 and reading.runs(opened) == []
    opened.db.close()


def test_pictures_of_few_and_of_many_hosts(tmp_path):
    for count, written in ((2, 2), (13, 13 * 12), (17, 0)):
        names = [f"$h_{number}" for number in range(count)]
        paths = kept(tmp_path, [run(*way, count, echoes([1])) for way in itertools.permutations(names, 2)])
        drawn = matrix.draw(Sources(stores=paths), ALL)
        drawn.savefig(tmp_path / "m.png")
        assert len(drawn.axes[1].texts) == written
        assert (drawn.axes[0].images[1].get_array() == 1).sum() == count * (count - 1)  # no rate was measured
        assert matrix.text(Sources(stores=paths), ALL)


# ---- who the hosts are ----

FIELDS = {"name": "a", "connection": "ssh", "reached": "10.0.0.1", "user": "", "port": "", "key": "", "ssh": "ssh",
          "ssh_arguments": "-F 'my file'", "address": "10.0.0.1", "program": "nice vorn", "echo": "", "stream": "-e1",
          "bound": ""}


def test_hosts_are_taken_as_they_are_set_or_refused():
    found = inventory.mesh_host({**FIELDS, "user": "me", "port": "2222"}, None, "--client -e9")
    assert found == inventory.MeshHost("a", "10.0.0.1", ("ssh", "-F", "my file", "-l", "me", "-p", "2222"), "10.0.0.1",
                                       ("nice", "vorn"), ("-u", "-e100", "-r50"), ("--client", "-e9"), 30)
    for field, value in (("name", "a b"), ("name", "$(x)"), ("name", "-a"), ("name", ""),
                         ("reached", "-oProxyCommand=x"), ("address", "1;x"), ("connection", "docker"), ("port", "0"),
                         ("bound", "-1"), ("bound", "9" * 20), ("program", "'x"), ("echo", "-u -M9"), ("ssh_arguments", '"')):
        with pytest.raises(inventory.Refused, match="host"):
            inventory.mesh_host({**FIELDS, field: value}, None, None)


# ---- the far end ----

def processes(command):
    """The ids of all processes with these words somewhere in their command line."""
    words, found = "\0".join(command).encode(), []
    for process in Path("/proc").glob("[0-9]*"):
        with contextlib.suppress(OSError):  # it has just ended
            if words in (process / "cmdline").read_bytes():
                found.append(int(process.name))
    return found


# A signal that comes just when timeout(1) has started the command ends timeout alone.
def test_a_command_that_is_let_go_at_any_moment_of_its_start_ends():
    host = inventory.mesh_host({**FIELDS, "connection": "local"}, None, None)
    command = ["sleep", f"600.{random.randrange(10 ** 9)}"]

    async def begin_and_let_go():
        async with far_end.held(host, "", 300, command, far_end.Haste()):
            await asyncio.sleep(random.uniform(0, 0.03))

    async def many():
        for _ in range(10):
            await asyncio.gather(*(begin_and_let_go() for _ in range(8)))

    asyncio.run(many())
    eventually(lambda: not processes(command), "the end of all commands", patience=20)


# ---- over ssh: a host in the middle, to which others are joined, each with an sshd of its own ----

SSHD = shutil.which("sshd", path="/usr/sbin:/usr/local/sbin")
NAMES = ["berlin", "oslo", "paris", "rome"]
MIDDLE = "10.9.0.1"
QUICK = ["--echo=-u -e5 -r50 -T100000", "--stream=--client -e2 -d200"]
# Nobody is in two tests at once: each marks both of its hosts as long as it runs.
MARKING = """#!/bin/sh
[ "$1" = --server ] && exec {vorn} "$@"
for host; do :; done
trap 'rmdir {busy}-{own} {busy}-$host; echo {own} $host >>{log}' EXIT
mkdir {busy}-{own} {busy}-$host || echo "{own} or $host is in two tests at once" >>{log}
{vorn} "$@"
"""


class Site:
    """The network, the keys that let into it, and the inventory of all its hosts; `folder` is for one test."""

    def __init__(self, lab, folder):
        self.folder, self.addresses = folder, {name: f"10.9.{n}.2" for n, name in enumerate(NAMES)}
        links = [Link(End("middle", [f"10.9.{n}.1/24"]), End(name, [f"10.9.{n}.2/24"])) for n, name in enumerate(NAMES)]
        routes = {name: Host(routes=[f"default via 10.9.{n}.1"]) for n, name in enumerate(NAMES)}
        self.places = lab.enter_context(standing({"middle": Host(forwards=True), **routes}, links))
        self.lab, self.log = lab, folder / "log"
        for key in ("host", "user"):
            subprocess.run(["ssh-keygen", "-q", "-t", "ed25519", "-N", "", "-f", folder / key], check=True)
        (folder / "home").mkdir()
        key = (folder / "host.pub").read_text()
        (folder / "known").write_text("".join(f"{address} {key}" for address in self.addresses.values()))
        os.makedirs("/run/sshd", exist_ok=True)  # it will not start without
        # What the shell of this machine's root does at its start is none of our business: another home.
        home = f"mount --bind {folder}/home ~ && exec \"$@\""
        options = ["UsePAM=no", "StrictModes=no", f"AuthorizedKeysFile={folder}/user.pub", "PidFile=none",
                   "PermitRootLogin=yes"]
        for name in NAMES:
            self.places[name].start(["unshare", "--mount", "sh", "-c", home, "sh", SSHD, "-D", "-f", "/dev/null",
                                     "-h", folder / "host", *(word for each in options for word in ("-o", each))])
            eventually(lambda: self.places[name].has_port(22, "tcp"), f"sshd of {name}")

    def mesh(self, *arguments, more="", program=lambda name: VORN):
        way = f"-F /dev/null -o UserKnownHostsFile={self.folder}/known"
        lines = [f"{name} ansible_host={address} ansible_user=root ansible_ssh_private_key_file={self.folder}/user "
                 f"ansible_ssh_common_args='{way}' mesh_program={program(name)}\n"
                 for name, address in self.addresses.items()]
        (self.folder / "hosts").write_text("".join(lines) + more)
        command = [*companion("mesh"), "-i", "hosts", *QUICK, *arguments]
        return self.lab.own(Program(self.places["middle"].command(command), merged=True, cwd=self.folder,
                                    env={"HOME": str(self.folder)}))

    def running(self):
        """What belongs to the program, by host."""
        ours = set(processes([VORN]))
        found = {name: [process for process in place.inhabitants() if process in ours]
                 for name, place in self.places.items()}
        return {name: those for name, those in found.items() if those}

    def runs(self):
        with store.reading(str(self.folder / "mesh.db")) as opened:
            return [(run, reading.messages(opened, run.id)) for run in reading.runs(opened)]


@pytest.fixture
def site(tmp_path):
    if os.geteuid() != 0 or not SSHD or not shutil.which("ansible-playbook"):
        pytest.skip("needs root, openssh-server and ansible-core")
    with Lab() as lab:
        yield Site(lab, tmp_path)


def test_every_pair_is_measured_over_ssh_and_hosts_that_cannot_be_cost_their_own_cells(site):
    label = f'{{{{ lookup("pipe", "touch {site.folder}/executed") }}}} {{{{x'
    foreign = site.lab.monitor(at=site.places["rome"])
    addresses = {**site.addresses, "here": MIDDLE}
    marking = {name: script(site.folder / name, MARKING.format(vorn=VORN, own=own, busy=site.folder / "busy",
                                                               log=site.log)) for name, own in addresses.items()}
    more = (f"here ansible_connection=local mesh_address={MIDDLE} mesh_program={marking['here']}\n"
            "down ansible_host=10.9.0.99\n")
    done = site.mesh("--label", label, more=more, program=marking.get).finish()
    assert done.status == 1 and "rome has a monitor already" in done.out and "down was not reached: ssh: " in done.out
    assert site.running() == {"rome": [foreign.pid]} and not (site.folder / "executed").exists()

    measured = ["berlin", "here", "oslo", "paris"]
    ways = [f"{addresses[source]} {addresses[to]}" for source, to in itertools.permutations(measured, 2)]
    assert sorted(site.log.read_text().splitlines()) == sorted(ways * 2)
    assert {run.label for run, _ in site.runs()} == {label}
    found = matrix.compute([str(site.folder / "mesh.db")], ALL)
    assert found.hosts == sorted([*measured, "down", "rome"]) and matrix.silent_hosts(found) == ["down", "rome"]
    for way in itertools.permutations(measured, 2):
        cell = found.cells[way]
        assert cell.rate > 1 and 0 < cell.rtt < 1000 and cell.loss < 100, (way, cell, done.out)


def test_a_host_that_dies_in_the_middle_is_named_and_the_others_go_on(site):
    running = site.mesh("--echo=-u -e20 -r20")
    eventually(lambda: "oslo" in site.running(), "a monitor in oslo")
    site.places["oslo"].ip("link set to-middle down")
    done = running.finish()
    assert done.status == 1 and re.search("^vorn-mesh: oslo was (lost|not reached)", done.out, re.MULTILINE), done.out
    measured = {(run.site, run.asked) for run, messages in site.runs() if not messages}
    assert measured >= set(itertools.permutations(["berlin", "paris", "rome"], 2))
    # No requests that were lost because their partner was gone.
    with store.reading(str(site.folder / "mesh.db")) as opened:
        lost = opened.db.execute("SELECT count(*) FROM echo JOIN run ON run.id = run WHERE asked = 'oslo' "
                                 "AND rtt_usec IS NULL").fetchone()[0]
    assert lost < 10, done.out  # of 20 in each run


@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGKILL])
def test_however_it_ends_nothing_runs_on_and_what_was_measured_is_kept(site, number):
    running = site.mesh("--echo=-u -e20 -r20")
    eventually(site.running, "a monitor")  # so the file is there
    eventually(lambda: any(run.status == 0 for run, _ in site.runs()), "a run")
    time.sleep(random.uniform(0, 2))
    running.signal(number)
    done = running.finish()
    assert done.status in (-number, 0) and "Traceback" not in done.out, done.out
    eventually(lambda: not site.running(), "the end of all monitors", patience=10)  # their bound is minutes
    # Those that were stopped in the middle may have been stopped before their first request.
    ended = [run.sent for run, _ in site.runs() if run.status == 0 and "-u" in run.command]
    assert ended and set(ended) == {20}


def test_nothing_that_could_be_measured_is_an_error_that_is_kept(site):
    done = site.mesh(program=lambda name: "/nowhere/vorn").finish()
    assert done.status == 2 and "paris has no monitor: " in done.out, done.out
    assert len(site.runs()) == 12 and all("has no monitor" in text for _, (text,) in site.runs())
    (site.folder / "odd.yml").write_text('all: {hosts: {"a b; touch executed": {}, c: {}}}')
    refused = site.mesh("-i", "odd.yml").finish()
    assert refused.status == 2 and "blanks or" in refused.out and not (site.folder / "executed").exists(), refused.out
