"""The completions in real shells on a pseudo-terminal: what is typed, completed with TAB, reaches the program as what?

In each shell `vorn` is a function that shows its arguments, so a test compares what the program would have been given.
"""
import os
import pty
import re
import select
import shutil
import subprocess
import time
from pathlib import Path

import pytest

COMPLETIONS = Path(__file__).parents[2] / "completions"
PATIENCE = 30  # seconds that only a hanging shell exceeds

SHELLS = {
    "bash": (["bash", "--norc", "--noprofile", "-i"], """
        unset HISTFILE; bind 'set enable-bracketed-paste off'; bind 'set bell-style none'
        bind 'set page-completions off'; bind 'set show-all-if-ambiguous on'
        bind 'set completion-query-items 0'
        [ ! -e /usr/share/bash-completion/bash_completion ] || . /usr/share/bash-completion/bash_completion
        . {completions}/vorn.bash
        vorn() {{ printf '<%s>' "$@"; printf ' given\\n'; }}
    """),
    "zsh": (["zsh", "-f", "-i"], """
        unset HISTFILE zle_bracketed_paste; unsetopt beep prompt_cr prompt_sp; setopt interactive_comments
        LISTMAX=1000
        fpath=({completions} $fpath); autoload -Uz compinit; compinit -u -d {home}/dump
        zstyle ':completion:*:hosts' hosts gauge-one.example gauge-two.example solo.example
        vorn() {{ printf '<%s>' "$@"; printf ' given\\n'; }}
    """),
}


class Terminal:
    """A shell in a directory of its own, with files and known hosts to complete."""

    def __init__(self, name, home):
        command, setup = SHELLS[name]
        (home / ".ssh").mkdir()
        (home / ".ssh/known_hosts").write_text("".join(
            f"{host} ssh-ed25519 AAAA\n" for host in ("gauge-one.example", "gauge-two.example", "solo.example")))
        (home / "night run.csv").touch()
        (home / "reports").mkdir()
        (home / "reports/monday.txt").touch()
        self.setup = setup.format(completions=COMPLETIONS, home=home)
        self.process, self.master = None, None
        self.command, self.home = command, home

    def __enter__(self):
        self.master, slave = pty.openpty()
        environment = {"HOME": str(self.home), "PATH": os.environ["PATH"], "TERM": "dumb", "PS1": "> ", "LC_ALL": "C",
                       "COLUMNS": "200", "LINES": "200"}
        self.process = subprocess.Popen(self.command, stdin=slave, stdout=slave, stderr=slave, cwd=self.home,
                                        env=environment, start_new_session=True, close_fds=True)
        os.close(slave)
        setup = self.home / "setup"
        setup.write_text(self.setup)
        self.say(f". {setup}; echo re''ady\n", "ready")
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        os.close(self.master)

    def say(self, keys, until):
        """Type the keys and return what the terminal shows up to the expression."""
        os.write(self.master, keys.encode())
        seen, deadline = "", time.monotonic() + PATIENCE
        while not re.search(until, seen):
            left = deadline - time.monotonic()
            assert left > 0 and select.select([self.master], [], [], left)[0], f"waited in vain; the terminal: {seen!r}"
            seen += os.read(self.master, 65536).decode(errors="replace")
        return seen

    def arguments(self, typed):
        """What the program is given when this is typed."""
        shown = self.say(f"vorn {typed}\n", r"\S* given\r?\n")
        found = re.findall(r"^.*?((?:<[^>]*>)+) given", shown, re.MULTILINE)
        assert found, repr(shown)
        return re.findall("<([^>]*)>", found[-1])

    def choices(self, typed, last):
        """What is listed for this word, once `last` is among it; the line is thrown away."""
        shown = self.say(f"vorn {typed}\t\t", rf"(?<=\s){re.escape(last)}(?=[\s\x1b])")
        self.say("\x15echo cle''ar\n", "clear")
        return set(shown.replace(f"vorn {typed}", "").split())


@pytest.fixture(params=sorted(SHELLS))
def terminal(request, tmp_path):
    if not shutil.which(request.param):
        pytest.skip(f"{request.param} is not installed")
    with Terminal(request.param, tmp_path) as shell:
        yield shell


def test_words_reach_the_program_as_it_reads_them(terminal):
    given = {
        "--cl\t": ["--client"],
        "--disc\t": ["--discover"],
        "-fnight\t": ["-fnight run.csv"],  # glued, quoted by the shell, and one argument
        "-frep\tmon\t": ["-freports/monday.txt"],
        "--client sol\t": ["--client", "solo.example"],
        "-Rsol\t": ["-Rsolo.example"],
        "-n127\t": ["-n127.0.0.1"],
        "-s\t-m\t": ["-s", "-m"],  # a flag is a word of its own
        "-d\t5 -e\t7 -u\t9 -p\t80": ["-d5", "-e7", "-u9", "-p80"],  # a value sticks to its letter
        "-S10 sol\t gauge-o\t": ["-S10", "solo.example", "gauge-one.example"],
        "1.2.3.4 5.6.7.8 sol\t": ["1.2.3.4", "5.6.7.8", "sol"],  # two hosts are all that a test takes
    }
    for typed, arguments in given.items():
        assert terminal.arguments(typed) == arguments, typed


def test_lists_offer_every_option_of_the_usage_text(terminal):
    usage = (Path(__file__).parents[2] / "src/app/usage.cpp").read_text()
    letters = set(re.findall(r'^ *" +(-[A-Za-z])[ #<]', usage, re.MULTILINE))
    presets = set(re.findall(r'^ *" +(--[a-z]+) ', usage, re.MULTILINE))
    assert len(letters) == 28 and len(presets) == 7
    listed = terminal.choices("-", "-v") | terminal.choices("--", "--voice")
    assert letters | presets <= listed, (letters | presets) - listed


def test_hosts_are_those_already_known(terminal):
    assert {"gauge-one.example", "gauge-two.example"} <= terminal.choices("gauge", "gauge-two.example")
