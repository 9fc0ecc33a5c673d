# Many hosts: the rounds in which they meet, what is kept of each, the matrix, and the playbook between namespaces.
import itertools, json, os, re, runpy, shlex, shutil, subprocess, sys, types

import pytest
from companions import ROOT, answer, batch, companion, script, timed_out
from lab import VORN, Lab, Program
from vorn_companions.figures import matrix, matrix_pictures, sheet

MESH = ROOT / "companions/src/vorn_companions/mesh"
filters = types.SimpleNamespace(**runpy.run_path(MESH / "filter_plugins/mesh.py"))
ALL = types.SimpleNamespace(since=None, host=None, label=None, title=None)


def test_rounds_hold_every_pair_once_and_no_host_twice():
    for count, expected in ((0, 0), (1, 0), (2, 1), (3, 3), (4, 3), (9, 9), (100, 99)):
        rounds = filters.rounds(range(count))
        assert [len(pairs) for pairs in rounds] == [count // 2] * expected
        assert all(len({host for pair in pairs for host in pair}) == 2 * len(pairs) for pairs in rounds)
        met = [tuple(sorted(pair)) for pairs in rounds for pair in pairs]
        assert sorted(met) == list(itertools.combinations(range(count), 2))
    assert filters.pair_of([["a", "b"]], "b") == ["a", "b"] and filters.pair_of([["a", "b"]], "c") == []


def ran(words, text):
    return {"rc": 0, "cmd": ["timeout", "--signal=INT", "--kill-after=10", "30", *words], "stdout": text,
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


# ---- the matrix ----

def echoes(milliseconds, lost=0):
    answers = [answer(lost + number, each / 1000) for number, each in enumerate(milliseconds)]
    return "".join([timed_out(number) for number in range(lost)] + answers)


def run(source, to, start, text, option="-u"):
    return {"from": source, "to": to, "start": start, "command": ["vorn", option, "x"], "text": text, "status": 0}


def kept(folder, results):
    subprocess.run([MESH / "keep", folder / "mesh.db", "mesh"], input=json.dumps(results), text=True, check=True)
    return [str(folder / "mesh.db")]


def test_the_matrix_holds_the_last_figures_and_their_direction(tmp_path):
    stream = batch(1, 90.0) + batch(2, 95.0) + batch(3, 1.0, "*") + batch(4, 80.0)
    paths = kept(tmp_path, [
        run("a", "b", 1, echoes([9] * 9)), run("a", "b", 5, echoes([1, 2, 30], lost=1)), run("b", "a", 6, echoes([4])),
        run("a", "b", 7, stream, "--client"), run("b", "a", 8, batch(1, 50.0, "*"), "--client"),
        run("a", "h10", 9, echoes([], lost=4)), run("a", "h2", 10, echoes([1]), "-t"),
        {"from": "h10", "to": "a", "start": 9, "trouble": "h10 was not reached"}])
    found = matrix.matrix(paths, ALL)
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


def test_pictures_of_few_and_of_many_hosts(tmp_path):
    for count, written in ((2, 2), (13, 13 * 12), (17, 0)):
        names = [f"$h_{number}" for number in range(count)]
        paths = kept(tmp_path, [run(*way, count, echoes([1])) for way in itertools.permutations(names, 2)])
        drawn = matrix_pictures.draw_matrix(paths, ALL)
        drawn.savefig(tmp_path / "m.png")
        assert len(drawn.axes[1].texts) == written
        assert (drawn.axes[0].images[1].get_array() == 1).sum() == count * (count - 1)  # no rate was measured
        sheet.print_blocks(matrix.matrix_text(paths, ALL))


# ---- the playbook ----

ADDRESSES = {"one": "10.9.0.1", "two": "10.9.0.2", "three": "10.9.1.2"}  # of a chain
DOWN = "10.9.0.9"
WRAPPER = """#!/bin/sh
[ "$1" = --server ] && exec {enter} "$@"
for host; do :; done
trap 'rmdir {busy}-{own} {busy}-$host; echo {own} $host >>{log}' EXIT
mkdir {busy}-{own} {busy}-$host || echo "{own} or $host is in two tests at once" >>{log}
{enter} "$@"
"""


@pytest.mark.skipif(os.geteuid() != 0 or not shutil.which("ansible-playbook"), reason="needs root and ansible-core")
def test_the_playbook_measures_every_pair_and_a_host_that_is_down_costs_its_own_cells(tmp_path):
    inventory, log, kept = tmp_path / "hosts", tmp_path / "log", str(tmp_path / "m.db")
    refusing = script(tmp_path / "refusing", "#!/bin/sh\nexit 255\n")  # as ssh does when nobody is there
    lines = [f"down ansible_connection=ssh ansible_ssh_executable={refusing} mesh_address={DOWN}\n"]
    with Lab() as lab:
        places = dict(zip(ADDRESSES, lab.chain(routers=1)))
        for name, own in ADDRESSES.items():
            enter = shlex.join(places[name].command([VORN]))
            program = script(tmp_path / name, WRAPPER.format(enter=enter, own=own, busy=tmp_path / "busy", log=log))
            lines.append(f"{name} ansible_connection=local ansible_python_interpreter={sys.executable} "
                         f"mesh_address={own} mesh_program={program}\n")
        inventory.write_text("".join(lines))
        monitor = lab.monitor(at=places["two"])
        command = [*companion("mesh"), "-i", inventory, "-o", kept, "--echo=-u -e5 -r50 -T100000",
                   "--stream=--client -e2 -d200"]
        done = lab.own(Program(command, merged=True, cwd=tmp_path, env={"HOME": str(tmp_path)})).finish(patience=300)
        assert done.status == 1 and "UNREACHABLE" in done.out and "Keep round 3 of 3" in done.out, done.out
        # All monitors have ended, but not the one that was there before.
        assert [place.inhabitants() for place in places.values()] == [[], [monitor.pid], []]

    ways = [f"{source} {to}" for source, to in itertools.permutations(ADDRESSES.values(), 2)]
    ways += ways + [f"{source} {DOWN}" for source in ADDRESSES.values()]  # no stream is asked of who is down
    assert sorted(log.read_text().splitlines()) == sorted(ways)

    found = matrix.matrix([kept], ALL)
    assert found.hosts == ["down", "one", "three", "two"] and matrix.silent_hosts(found) == ["down"]
    for way in itertools.permutations(ADDRESSES, 2):
        cell = found.cells[way]
        assert cell.rate > 1 and 0 < cell.rtt < 1000 and cell.loss < 100, (way, cell, done.out)
    assert all(found.cells[name, "down"].loss == 100 for name in ADDRESSES)
    assert set(found.troubles.values()) == {"down was not reached"}
