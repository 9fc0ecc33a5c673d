# SPDX-License-Identifier: MIT
"""The hosts of a mesh, as Ansible knows them from an inventory, and what is not taken from one."""

import dataclasses
import importlib.resources
import json
import os
import re
import shlex
import shutil
import subprocess
import tempfile
from collections.abc import Callable, Mapping, Sequence

ECHO = "-u -e100 -r50"
STREAM = "--client -e100"
BOUND_SEC = 30
NAME = re.compile(r"[\w:][\w.:%-]*")  # of a host; nothing that a shell or an option could be made of
CONNECTIONS = {"ssh": False, "smart": False, "local": True}


class Refused(Exception):
    """What the user has to change before anything is started."""


@dataclasses.dataclass(frozen=True)
class MeshHost:
    name: str
    reached: str  # the host that ssh connects to
    ssh: tuple[str, ...]  # the command that connects to it, without the host; empty: it is this one
    address: str  # where the others reach it
    program: tuple[str, ...]
    echo: tuple[str, ...]
    stream: tuple[str, ...]
    bound_sec: int  # of either test


def playbook_answer(inventory: str, limit: str | None, arguments: Sequence[str]) -> object:
    """What inventory.yml finds. Ansible evaluates templates in the inventory, but not in these arguments."""
    program = shutil.which("ansible-playbook")
    if program is None:
        raise Refused("this needs Ansible: ansible-core")
    limits = [] if limit is None else ["--limit", limit]
    with (importlib.resources.as_file(importlib.resources.files(__package__) / "inventory.yml") as playbook,
          tempfile.TemporaryDirectory(prefix="vorn-mesh-") as folder):
        answer = os.path.join(folder, "hosts.json")
        command = [program, "-i", inventory, *arguments, *limits, "-e", json.dumps({"mesh_answer": answer}), str(playbook)]
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                              text=True, errors="replace", env={"ANSIBLE_NOCOWS": "1", **os.environ})
        if done.returncode or not os.path.exists(answer):
            raise Refused(f"Ansible does not understand the inventory:\n{done.stdout.strip()}")
        with open(answer, encoding="utf-8") as file:
            return json.load(file)


def checked_name(what: str, host: str, name: str) -> str:
    if not NAME.fullmatch(name):
        raise Refused(f"{what} of host {host!r}: no blanks and no characters of the shell in {name!r}, please")
    return name


def whole_number(what: str, host: str, text: str, most: int) -> int:
    if not (text.isascii() and text.isdigit() and 0 < int(text[:10]) <= most):
        raise Refused(f"{what} of host {host!r} is {text!r}, not a number from 1 to {most}")
    return int(text)


def words(what: str, host: str, text: str) -> tuple[str, ...]:
    try:
        found = tuple(shlex.split(text))
    except ValueError as error:
        raise Refused(f"{what} of host {host!r}: {error}: {text}") from None
    return found


def test_words(what: str, host: str, text: str) -> tuple[str, ...]:
    found = words(what, host, text)
    if any(word.startswith("-M") for word in found):
        raise Refused(f"{what} of host {host!r}: with -M nobody could end it")
    return found


def ssh_command(name: str, value: Callable[[str], str]) -> tuple[str, ...]:
    """How the host is connected to; empty for a local one."""
    connection = value("connection").removeprefix("ansible.builtin.")
    if connection not in CONNECTIONS:
        raise Refused(f"host {name!r}: its connection is {connection!r}; vorn-mesh knows ssh and local")
    if CONNECTIONS[connection]:
        return ()
    port = ("-p", str(whole_number("ansible_port", name, value("port"), 65535))) if value("port") else ()
    user = ("-l", value("user")) if value("user") else ()
    key = ("-i", os.path.expanduser(value("key"))) if value("key") else ()
    return (value("ssh"), *words("the arguments of ssh", name, value("ssh_arguments")), *user, *port, *key)


def mesh_host(fields: Mapping[str, object], echo: str | None, stream: str | None) -> MeshHost:
    def value(field: str) -> str:
        return str(fields[field])

    name = value("name")
    return MeshHost(
        name=checked_name("the name", name, name),
        reached=checked_name("ansible_host", name, value("reached")),
        ssh=ssh_command(name, value),
        address=checked_name("mesh_address", name, value("address")),
        program=words("mesh_program", name, value("program")) or ("vorn",),
        echo=test_words("the echo test", name, echo if echo is not None else value("echo") or ECHO),
        stream=test_words("the stream", name, stream if stream is not None else value("stream") or STREAM),
        bound_sec=whole_number("mesh_bound", name, value("bound") or str(BOUND_SEC), 86400))


def read_hosts(inventory: str, limit: str | None, arguments: Sequence[str], echo: str | None,
               stream: str | None) -> list[MeshHost]:
    """The hosts, with the arguments of their tests, in the inventory's order. Raises Refused."""
    found = playbook_answer(inventory, limit, arguments)
    assert isinstance(found, list)
    return [mesh_host(fields, echo, stream) for fields in found]
