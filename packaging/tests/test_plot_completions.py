"""The completions of the companions in real shells: what is typed with TAB reaches the command as what?"""
import re
import shutil

import pytest
from test_completions import COMPLETIONS, SHELLS, Terminal

COMMANDS = ("vorn-check", "vorn-mesh", "vorn-plot", "vorn-record")


@pytest.fixture(params=sorted(SHELLS))
def terminal(request, tmp_path):
    if not shutil.which(request.param):
        pytest.skip(f"{request.param} is not installed")
    shell = Terminal(request.param, tmp_path)
    if request.param == "bash":
        shell.setup += "".join(f". {COMPLETIONS}/{command}.bash\n" for command in COMMANDS)
    shell.setup += "".join(f"{command}() {{ vorn \"$@\"; }}\n" for command in COMMANDS)
    with shell:
        yield shell


def test_words_reach_the_command(terminal):
    for typed, arguments in {
        "vorn-plot -k lat\tnight\t": ["-k", "latency", "night run.csv"],
        "vorn-plot --te\t--by lab\trep\tmon\t": ["--text", "--by", "label", "reports/monday.txt"],
        "vorn-record --ev\t5 -o rep\tmon\t -- --cl\tsol\t": ["--every", "5", "-o", "reports/monday.txt", "--", "--client",
                                                           "solo.example"],
        "vorn-record -- -d\t5": ["--", "-d5"],
        "vorn-plot -k mat\trep\tmon\t": ["-k", "matrix", "reports/monday.txt"],
        "vorn-check --rt\t1:5 --js\t -- --cl\tsol\t": ["--rtt-p95", "1:5", "--json", "--", "--client", "solo.example"],
        "vorn-mesh -i rep\tmon\t --str\t-c": ["-i", "reports/monday.txt", "--stream", "-c"],
    }.items():
        shown = terminal.say(f"{typed}\n", r"\S* given\r?\n")
        found = re.findall(r"^.*?((?:<[^>]*>)+) given", shown, re.MULTILINE)
        assert found and re.findall("<([^>]*)>", found[-1]) == arguments, repr(shown)
