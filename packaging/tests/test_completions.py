# The completions in real shells on a pseudo-terminal: what is typed, completed with TAB, reaches the command as what? In
# each shell the commands are functions that note their arguments, so a test compares what a program would be given.
import os, re, shlex, subprocess
from pathlib import Path

import pexpect
import pytest

TOP = Path(__file__).parents[2]
COMPLETIONS = TOP / "completions"
QUOTED = shlex.quote(str(COMPLETIONS))
HOSTS = ("gauge-one.example", "gauge-two.example", "solo.example")
FUNCTIONS = r"""
    note() { printf '%s\n' "$@" >.arguments; echo noted; }
    for command in vorn vorn-check vorn-line vorn-mesh vorn-plot vorn-record; do eval "$command() "'{ note "$@"; }'; done
"""

SHELLS = {
    "bash --norc --noprofile -i": f"""
        unset HISTFILE; bind 'set enable-bracketed-paste off'; bind 'set bell-style none'
        bind 'set page-completions off'; bind 'set show-all-if-ambiguous on'; bind 'set completion-query-items 0'
        . /usr/share/bash-completion/bash_completion
        for file in {QUOTED}/*.bash; do . "$file"; done
    """,
    "zsh -f -i": f"""
        unset HISTFILE zle_bracketed_paste; unsetopt beep prompt_cr prompt_sp; LISTMAX=1000
        fpath=({QUOTED} $fpath); autoload -Uz compinit; compinit -u -d .dump
        zstyle ':completion:*:hosts' hosts {' '.join(HOSTS)}
    """,
}


# Files and known hosts to complete.
def make_home(home):
    for directory in (".ssh", "reports"):
        (home / directory).mkdir()
    for file in ("night run.csv", "reports/monday.txt"):
        (home / file).touch()
    (home / ".ssh/known_hosts").write_text("".join(f"{host} ssh-ed25519 AAAA\n" for host in HOSTS))


# A shell in a directory of its own.
class Terminal(pexpect.spawn):
    def __init__(self, command, home):
        self.home = home
        make_home(home)
        (home / ".setup").write_text(SHELLS[command] + FUNCTIONS)
        environment = {"HOME": str(home), "PATH": os.environ["PATH"], "TERM": "dumb", "PS1": "> ", "LC_ALL": "C"}
        super().__init__(command, cwd=home, env=environment, dimensions=(200, 200), timeout=30, encoding="utf-8")
        self.delaybeforesend = None
        self.type(". ./.setup; echo re''ady\n", "ready")

    # Types the keys and returns what the terminal shows up to the expression.
    def type(self, keys, until):
        self.send(keys)
        self.expect(until)
        return self.before + self.after

    # What the command is given when this is typed.
    def arguments(self, typed):
        self.type(f"{typed}\n", "noted\r?\n")
        return (self.home / ".arguments").read_text().splitlines()

    # What is listed for this word, once `last` is among it; the line is thrown away.
    def choices(self, typed, last):
        shown = self.type(f"{typed}\t\t", rf"(?<=\s){re.escape(last)}(?=[\s\x1b])")
        shown += self.type("\x15echo cle''ar\n", "clear")  # others may stand behind it, in the same row
        return set(shown.split())


@pytest.fixture(params=SHELLS)
def terminal(request, tmp_path):
    with Terminal(request.param, tmp_path) as shell:
        yield shell


def test_words_reach_the_command_as_it_reads_them(terminal):
    given = {
        "vorn --cl\t": ["--client"],
        "vorn --disc\t": ["--discover"],
        "vorn -fnight\t": ["-fnight run.csv"],  # glued, quoted by the shell, and one argument
        "vorn -frep\tmon\t": ["-freports/monday.txt"],
        "vorn --client sol\t": ["--client", "solo.example"],
        "vorn -Rsol\t": ["-Rsolo.example"],
        "vorn -n127\t": ["-n127.0.0.1"],
        "vorn -s\t-m\t": ["-s", "-m"],  # a flag is a word of its own
        "vorn -d\t5 -e\t7 -u\t9 -p\t80": ["-d5", "-e7", "-u9", "-p80"],  # a value sticks to its letter
        "vorn -S10 sol\t gauge-o\t": ["-S10", "solo.example", "gauge-one.example"],
        "vorn 1.2.3.4 5.6.7.8 sol\t": ["1.2.3.4", "5.6.7.8", "sol"],  # two hosts are all that a test takes
        "vorn-plot -k lat\tnight\t": ["-k", "latency", "night run.csv"],
        "vorn-plot -k mat\trep\tmon\t": ["-k", "matrix", "reports/monday.txt"],
        "vorn-plot --te\t--by lab\trep\tmon\t": ["--text", "--by", "label", "reports/monday.txt"],
        "vorn-plot --unt\t7d -k pac\tnight\t": ["--until", "7d", "-k", "packets", "night run.csv"],
        "vorn-record --pac\t--ev\t2 --form\tinf\t-- x": ["--packets", "--every", "2", "--format", "influx", "--", "x"],
        "vorn-record --ev\t5 -- -d\t5": ["--every", "5", "--", "-d5"],
        "vorn-record -o rep\tmon\t -- --cl\tsol\t": ["-o", "reports/monday.txt", "--", "--client", "solo.example"],
        "vorn-check --ra\t1:5 --js\t -- --cl\tsol\t": ["--rate-p99", "1:5", "--json", "--", "--client", "solo.example"],
        "vorn-line --qu\t--into rep\tmon\t sol\t": ["--quick", "--into", "reports/monday.txt", "solo.example"],
        "vorn-mesh -i rep\tmon\t --str\t-c": ["-i", "reports/monday.txt", "--stream", "-c"],
    }
    for typed, arguments in given.items():
        assert terminal.arguments(typed) == arguments, typed


# What the usage text has, as a user would type it.
def options_of_the_usage_text():
    usage = (TOP / "src/app/usage.cpp").read_text()
    letters = set(re.findall(r'^ *" +(-[A-Za-z])[ #<]', usage, re.MULTILINE))
    presets = set(re.findall(r'^ *" +(--[a-z]+) ', usage, re.MULTILINE))
    assert len(letters) == 28 and len(presets) == 7
    return letters | presets


def test_lists_offer_every_option_of_the_usage_text(terminal):
    listed = terminal.choices("vorn -", "-v") | terminal.choices("vorn --", "--voice")
    assert options_of_the_usage_text() <= listed, options_of_the_usage_text() - listed


def test_hosts_are_those_already_known(terminal):
    assert {"gauge-one.example", "gauge-two.example"} <= terminal.choices("vorn gauge", "gauge-two.example")


def test_fish_offers_whole_words(tmp_path):
    make_home(tmp_path)
    sourced = "".join(f"source {QUOTED}/{name}.fish; " for name in ("vorn", "vorn-check", "vorn-plot", "vorn-record"))

    def offered(typed):
        shown = subprocess.run(["fish", "-c", f"{sourced} complete -C {shlex.quote(typed)}"], cwd=tmp_path,
                               env={"HOME": str(tmp_path), "PATH": os.environ["PATH"]},
                               stdout=subprocess.PIPE, text=True, check=True).stdout
        return {line.partition("\t")[0] for line in shown.splitlines()}

    assert offered("vorn -") == options_of_the_usage_text()
    assert offered("vorn --cl") == {"--client"}
    assert offered("vorn -d") == set()  # the value follows, without a blank
    assert offered("vorn -fni") == {"-fnight run.csv"}
    assert offered("vorn -Rsol") == {"-Rsolo.example"}
    assert offered("vorn -S10 solo.example gauge") == {"gauge-one.example", "gauge-two.example"}
    assert offered("vorn 1.2.3.4 5.6.7.8 sol") == set()
    assert offered("vorn-check --rtt") == {"--rtt-p95", "--rtt-p99", "--rtt-max"}
    assert offered("vorn-plot -k la") == {"latency"}
    assert "night run.csv" in offered("vorn-plot ni")
    assert offered("vorn-record --ev") == {"--every"}
    assert offered("vorn-record -- --cl") == {"--client"}


def test_the_files_are_what_the_table_makes():
    for program in ("make", "make-companions"):
        subprocess.run([COMPLETIONS / program, "--check"], check=True)
