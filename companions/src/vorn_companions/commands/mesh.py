# SPDX-License-Identifier: MIT
"""vorn-mesh: the playbook that measures every pair of an inventory, and the store that its results go to."""

import argparse
import json
import os
import shutil
import sqlite3
import subprocess
import sys

from vorn_companions.read import lines
from vorn_companions.store import database as store
from vorn_companions.read.records import Message
from vorn_companions.words import Unreadable, printable

DEFAULT_FILE = "mesh.db"
FORKS = 50  # hosts that are served at the same time


# --- results of a round to the store ---

def keep_run(target, result, label):
    """One run, or that there was none. Lines carry no time of their own: all get that of the run's start."""
    start_usec = round(result["start"] * 1e6)
    number = store.begin_run(target, result.get("command", []), start_usec, result["from"], label)
    target.db.execute("UPDATE run SET asked = ? WHERE id = ?", (result["to"], number))
    troubles = {result["trouble"]: 1} if "trouble" in result else {}  # a text that a run repeats is kept once
    for text in result.get("text", "").splitlines():
        record = lines.record_of(text.rstrip()) or Message(f"not understood: {printable(text.strip())}", True)
        if isinstance(record, Message):
            if record.trouble:
                troubles[record.text] = troubles.get(record.text, 0) + 1
        else:
            store.append(target, number, start_usec, record)
    for text, count in troubles.items():
        times = f" ({count} times)" if count > 1 else ""
        store.append(target, number, start_usec, Message(text + times, True))
    store.end_run(target, number, start_usec + round(result.get("seconds", 0) * 1e6), result.get("status"))


def keep(path, label):
    """Appends the results on standard input to the store at `path`; the exit status."""
    results = json.load(sys.stdin)
    try:
        opened = store.open_to_write(path)
        store.write(opened, lambda target: [keep_run(target, result, label) for result in results])
        opened.db.close()
    except (Unreadable, sqlite3.Error) as error:
        sys.exit(f"vorn-mesh: {error}")
    return 0


# --- the command ---

def playbook():
    """Where the playbook is: in the package. None: it is missing."""
    place = os.path.join(os.path.dirname(os.path.dirname(os.path.realpath(__file__))), "mesh", "mesh.yml")
    return place if os.path.exists(place) else None


def parse_arguments(arguments):
    own, rest = arguments, []
    if "--" in arguments:
        own, rest = arguments[:arguments.index("--")], arguments[arguments.index("--") + 1:]
    parser = argparse.ArgumentParser(
        prog="vorn-mesh", allow_abbrev=False, usage="%(prog)s -i INVENTORY [options] [-- ANSIBLE-ARGUMENTS]",
        description="Measure every pair of hosts of an Ansible inventory, both ways.",
        epilog="Example: vorn-mesh -i hosts -o mesh.db && vorn-plot -k matrix -o mesh.png mesh.db")
    parser.add_argument("-i", dest="inventory", metavar="INVENTORY", required=True, help="hosts, as Ansible knows them")
    parser.add_argument("-o", dest="output", metavar="FILE", default=DEFAULT_FILE,
                        help="the file of records that is appended to (%(default)s)")
    parser.add_argument("--hosts", metavar="PATTERN", help="only these hosts of the inventory")
    parser.add_argument("--label", metavar="NAME", help="a name for these runs, to choose them by (mesh)")
    parser.add_argument("--echo", metavar="ARGUMENTS", help="of the echo test ('-u -e100 -r50')")
    parser.add_argument("--stream", metavar="ARGUMENTS", help="of the stream ('--client -e100')")
    return parser.parse_args(own), rest


def main(arguments=None):
    options, rest = parse_arguments(sys.argv[1:] if arguments is None else arguments)
    program, book = shutil.which("ansible-playbook"), playbook()
    if program is None or book is None:
        sys.exit("vorn-mesh: " + ("the playbook is missing" if program else "this needs Ansible: ansible-core"))
    given = {"mesh_store": os.path.abspath(options.output), "mesh_hosts": options.hosts, "mesh_label": options.label,
             "mesh_echo": options.echo, "mesh_stream": options.stream}
    given = {name: value for name, value in given.items() if value is not None}
    # Quiet but for the rounds and for what goes wrong; what the user has set himself stays.
    quiet = {"ANSIBLE_DISPLAY_OK_HOSTS": "no", "ANSIBLE_DISPLAY_SKIPPED_HOSTS": "no", "ANSIBLE_NOCOWS": "1",
             "PYTHONDONTWRITEBYTECODE": "1"}
    status = subprocess.run([program, "-i", options.inventory, "-e", json.dumps(given), "--forks", str(FORKS), book,
                             *rest], env={**quiet, **os.environ}).returncode
    return 1 if status else 0


if __name__ == "__main__":
    sys.exit(main())
