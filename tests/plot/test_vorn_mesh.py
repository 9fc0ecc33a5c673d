# Many hosts: the rounds in which they meet, what is kept of each, the matrix, and the playbook between namespaces.
import importlib.util, itertools, os, pathlib, re, shutil, subprocess, sys, types

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "plot"))
from vornplot import matrix, matrix_pictures, mesh, store  # noqa: E402

location = importlib.util.spec_from_file_location("filters", ROOT / "mesh/filter_plugins/mesh.py")
filters = importlib.util.module_from_spec(location)
location.loader.exec_module(filters)
ALL = types.SimpleNamespace(since=None, host=None, label=None, title=None)


def output_of(*command):
    return subprocess.run(command, stdout=subprocess.PIPE, text=True).stdout


def test_rounds_hold_every_pair_once_and_no_host_twice():
    for count, expected in ((0, 0), (1, 0), (2, 1), (3, 3), (4, 3), (9, 9), (100, 99)):
        rounds = filters.rounds([f"h{number}" for number in range(count)])
        assert len(rounds) == expected
        assert all(len(pairs) == count // 2 == len({host for pair in pairs for host in pair}) / 2 for pairs in rounds)
        met = [frozenset(pair) for pairs in rounds for pair in pairs]
        assert len(met) == len(set(met)) == count * (count - 1) // 2
    assert filters.pair_of([["a", "b"]], "b") == ["a", "b"] and filters.pair_of([["a", "b"]], "c") == []


def ran(words, text, status=0):
    return {"rc": status, "cmd": ["timeout", "--signal=INT", "--kill-after=10", "30", *words], "stdout": text,
            "stderr": "Err- could not send", "start": "2026-01-05 10:00:00.5", "end": "2026-01-05 10:00:02"}


def test_a_round_tells_of_every_test_that_was_made_and_why_others_were_not():
    found = {"a": {"mesh_time": "100.0", "mesh_echo_result": ran(["vorn", "-u", "2"], "x"),
                   "mesh_stream_result": ran(["vorn", "--client", "2"], "y")},
             "b": {"mesh_time": "110.0", "mesh_echo_result": {"msg": "no timeout here"},
                   "mesh_stream_result": {"skipped": True}},
             "c": {"mesh_monitor": {"unreachable": True}}, "d": {"mesh_monitor": {"rc": 127}}}
    runs = filters.results([["a", "b"], ["c", "d"]], found, ["a", "b"], 120.0)
    assert [(run["from"], run["to"], run["start"], run.get("trouble")) for run in runs] == [
        ("a", "b", 100.0, None), ("a", "b", 101.5, None), ("b", "a", 110.0, "b: no timeout here"),
        ("c", "d", 120.0, "c was not reached"), ("d", "c", 120.0, "d has no monitor")]
    assert (runs[0]["command"], runs[1]["command"]) == (["vorn", "-u", "2"], ["vorn", "--client", "2"])


def echoes(milliseconds, lost=0):
    lines = [f"{n:12}: TIMEOUT in  0.200031s, expected rsp from 10.0.0.2" for n in range(lost)]
    return "\n".join(lines + [f"{lost + n:12}: Received  Echo Reply  in {each / 1000:9.6f}s from 10.0.0.2"
                              for n, each in enumerate(milliseconds)])


def batches(*rates):
    return "\n".join(f"{n:5}:{'*' if rate < 0 else ' '} Pkts:  50/50   {abs(rate):5.1f} mbps     1.5 msec   Lost: 0"
                     "      Bad Samples: 0" for n, rate in enumerate(rates, 1))


@pytest.fixture
def kept(tmp_path):
    """Keeps runs (from, to, words, text, start), a text for words when there was none; the path of their store."""
    def keep(*runs):
        opened = store.open_to_write(str(tmp_path / "mesh.db"))
        for source, to, words, text, start in runs:
            result = {"from": source, "to": to, "start": start}
            result |= {"trouble": words} if text is None else {"command": ["vorn", *words], "text": text, "status": 0}
            store.write(opened, lambda target: mesh.keep_run(target, result, "mesh"))
        opened.db.close()
        return [str(tmp_path / "mesh.db")]
    return keep


STREAM, ECHO = ["--client", "-e3", "x"], ["-u", "x"]


def test_the_matrix_holds_the_last_figures_and_their_direction(kept):
    paths = kept(("a", "b", ECHO, echoes([9] * 9), 1), ("a", "b", ECHO, echoes([1, 2, 30], lost=1), 5),
                 ("b", "a", ECHO, echoes([4]), 6), ("a", "b", STREAM, batches(90, 95, -1, 80), 7),
                 ("b", "a", STREAM, batches(-50), 8), ("a", "h10", ECHO, echoes([], lost=4), 9),
                 ("h10", "a", "h10 was not reached", None, 9), ("a", "h2", ["-t", "x"], echoes([1]), 10))
    found = matrix.matrix(paths, ALL)
    assert found.hosts == ["a", "b", "h10"] and matrix.silent_hosts(found) == ["h10"]
    cells = {way: tuple(cell.shown(name) for name in ("rate", "rtt", "loss")) for way, cell in found.cells.items()}
    assert cells == {("a", "b"): ("none", 2.0, 25.0),  # what a commanded of b was sent by b
                     ("b", "a"): (80.0, 4.0, 0.0), ("a", "h10"): (None, "none", 100.0),
                     ("h10", "a"): ("none", None, None)}
    worst = [matrix.worst(found, face) for face in matrix.FACES]
    assert worst == [[("a", "b", "none"), ("b", "a", 80.0)], [("b", "a", 4.0), ("a", "b", 2.0)], [("a", "b", 25.0)]]
    text = output_of(ROOT / "plot/vorn-plot", "-k", "matrix", "--text", *paths)
    assert "worst: a to b none, b to a 80.0" in text and "h10 was not reached: h10 towards a" in text
    assert re.search(r"b +80.0 +-$", text, re.MULTILINE), text


def test_pictures_of_few_and_of_many_hosts(kept, tmp_path):
    pytest.importorskip("matplotlib")
    from vornplot.sheet import print_blocks
    for count in (2, 13, 17):
        names = [f"$h_{number}" for number in range(count)]
        paths = kept(*((source, to, ECHO, echoes([1]), count) for source, to in itertools.permutations(names, 2)))
        drawn = matrix_pictures.draw_matrix(paths, ALL)
        drawn.savefig(tmp_path / "m.png")
        written = [text.get_text() for text in drawn.axes[1].texts]
        assert len(written) == (count * (count - 1) if count <= 16 else 0)
        gaps = drawn.axes[0].images[1].get_array()
        assert (gaps == 1).sum() == count * (count - 1)  # no rate was measured
        print_blocks(matrix.matrix_text(paths, ALL))


# --- the playbook ---

WRAPPER = """#!/bin/sh
place=$1
shift
for host; do :; done
[ "$1" = --server ] || echo "begin $place $host" >>{log}
ip netns exec $place {vorn} "$@"
status=$?
[ "$1" = --server ] || echo "end $place $host" >>{log}
exit $status
"""


@pytest.fixture
def places():
    """Three namespaces on one switch: {name: (namespace, address)}."""
    base = f"vorn-mesh-{os.getpid()}-"
    made = {name: (base + name, f"10.66.0.{number}") for number, name in enumerate(("one", "two", "three"), 1)}

    def ip(words):
        subprocess.run(["ip", *words.split()], check=True)
    try:
        ip(f"netns add {base}switch")
        ip(f"-n {base}switch link add name switch type bridge")
        ip(f"-n {base}switch link set switch up")
        for namespace, address in made.values():
            port = "p" + address[-1]
            ip(f"netns add {namespace}")
            ip(f"-n {base}switch link add name {port} type veth peer name eth netns {namespace}")
            ip(f"-n {base}switch link set {port} master switch up")
            for words in ("link set lo up", f"address add {address}/24 dev eth", "link set eth up"):
                ip(f"-n {namespace} {words}")
        yield made
    finally:
        for namespace in (*(each for each, _ in made.values()), base + "switch"):
            subprocess.run(["ip", "netns", "del", namespace], stderr=subprocess.DEVNULL)


@pytest.mark.skipif(os.geteuid() != 0, reason="network namespaces need root")
@pytest.mark.skipif(not shutil.which("ansible-playbook"), reason="ansible-core is not installed")
def test_the_playbook_measures_every_pair_and_a_host_that_is_down_costs_its_own_cells(places, tmp_path):
    log, wrapper = tmp_path / "log", tmp_path / "inside"
    vorn = os.environ.get("VORN", str(ROOT / "build/release/vorn"))
    wrapper.write_text(WRAPPER.format(log=log, vorn=vorn))
    refusing = tmp_path / "refusing"
    refusing.write_text("#!/bin/sh\nexit 255\n")  # as ssh does when nobody is there
    for script in (wrapper, refusing):
        script.chmod(0o755)
    (tmp_path / "hosts").write_text("".join(
        f'{name} ansible_connection=local ansible_python_interpreter={sys.executable} mesh_address={address} '
        f'mesh_program="{wrapper} {namespace}"\n' for name, (namespace, address) in places.items())
        + f"down ansible_connection=ssh ansible_ssh_executable={refusing} mesh_address=10.66.0.9\n")
    own = subprocess.Popen(["ip", "netns", "exec", places["two"][0], vorn, "--server"], stdout=subprocess.DEVNULL,
                           stderr=subprocess.PIPE, text=True)
    try:
        while not own.stderr.readline().startswith("Destination IP"):
            assert own.poll() is None
        done = subprocess.run(
            [ROOT / "plot/vorn-mesh", "-i", tmp_path / "hosts", "-o", tmp_path / "m.db", "--echo=-u -e5 -r50 -T100000",
             "--stream=--client -e2 -d200"], cwd=tmp_path, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
            env={**os.environ, "HOME": str(tmp_path)})
        left = {name: output_of("ip", "netns", "pids", namespace).split() for name, (namespace, _) in places.items()}
        assert left == {"one": [], "two": [str(own.pid)], "three": []}  # monitors ended, but not one that was there
    finally:
        own.kill()
        own.communicate()
    assert done.returncode == 1 and "UNREACHABLE" in done.stdout and "Keep round 3 of 3" in done.stdout, done.stdout

    name_of = {each: name for name, pair in places.items() for each in pair} | {"10.66.0.9": "down"}
    busy, begun = [], 0
    for line in log.read_text().splitlines():
        what, *pair = line.split()
        pair = [name_of[each] for each in pair]
        if what == "begin":
            assert not {host for other in busy for host in other} & set(pair), log.read_text()
            busy.append(pair)
            begun += 1
        else:
            busy.remove(pair)
    assert not busy and begun == 15  # six times an echo test and a stream, three echo tests towards who is down

    found = matrix.matrix([str(tmp_path / "m.db")], ALL)
    assert found.hosts == ["down", "one", "three", "two"] and matrix.silent_hosts(found) == ["down"]
    for way in itertools.permutations(places, 2):
        cell = found.cells[way]
        assert cell.rate > 1 and 0 < cell.rtt < 1000 and cell.loss < 100, (way, cell, done.stdout)
    assert all(found.cells[name, "down"].loss == 100 for name in places)
    assert set(found.troubles.values()) == {"down was not reached"}
