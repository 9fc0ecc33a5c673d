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
from collections.abc import Callable, Mapping, Sequence

ECHO = "-u -e100 -r50"
STREAM = "--client -e100"
BOUND_SEC = 30
NAME = re.compile(r"[\w:][\w.:%-]*")  # of a host; nothing that a shell or an option could be made of
CONNECTIONS = {"ssh": False, "smart": False, "local": True}
# How Ansible prints what it has found: a line for each host that ends with "=> ", and JSON behind it.
PRINTING = {"ANSIBLE_STDOUT_CALLBACK": "minimal", "ANSIBLE_CALLBACK_RESULT_FORMAT": "json", "ANSIBLE_NOCOLOR": "1"}
ANSWER = re.compile(r"^.+ \| SUCCESS => (?={)", re.MULTILINE)
WELL = re.compile(r"^[^\n]+ \| SUCCESS => {$.*?^}\n", re.MULTILINE | re.DOTALL)


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


def playbook_answers(inventory: str, limit: str | None, arguments: Sequence[str]) -> list[dict[str, object]]:
    """What inventory.yml finds, by host. Ansible evaluates templates in the inventory, but not in these arguments."""
    program = shutil.which("ansible-playbook")
    if program is None:
        raise Refused("this needs Ansible: ansible-core")
    limits = [] if limit is None else ["--limit", limit]
    with importlib.resources.as_file(importlib.resources.files(__package__) / "inventory.yml") as playbook:
        command = [program, "-i", inventory, *arguments, *limits, str(playbook)]
        done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, text=True, errors="replace",
                              env={**os.environ, **PRINTING})
    answers = [json.JSONDecoder().raw_decode(done.stdout, found.end())[0] for found in ANSWER.finditer(done.stdout)]
    if done.returncode or not answers:
        raise Refused(f"Ansible cannot say who the hosts are:\n{WELL.sub('', done.stdout)}{done.stderr}".rstrip())
    return [answer["ansible_facts"]["mesh_host"] for answer in answers]


def checked_name(what: str, host: str, name: str) -> str:
    if not NAME.fullmatch(name):
        raise Refused(f"host {host!r}: blanks or characters of the shell in its {what}, {name!r}")
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
        name=checked_name("name", name, name),
        reached=checked_name("ansible_host", name, value("reached")),
        ssh=ssh_command(name, value),
        address=checked_name("mesh_address", name, value("address")),
        program=words("mesh_program", name, value("program")) or ("vorn",),
        echo=test_words("the echo test", name, echo if echo is not None else value("echo") or ECHO),
        stream=test_words("the stream", name, stream if stream is not None else value("stream") or STREAM),
        bound_sec=whole_number("mesh_bound", name, value("bound") or str(BOUND_SEC), 86400))


def read_hosts(inventory: str, limit: str | None, arguments: Sequence[str], echo: str | None,
               stream: str | None) -> list[MeshHost]:
    """The hosts, with the arguments of their tests, in the order of their names. Raises Refused."""
    hosts = [mesh_host(fields, echo, stream) for fields in playbook_answers(inventory, limit, arguments)]
    return sorted(hosts, key=lambda host: host.name)
