# The restrictions that a systemd unit puts on the system calls of its program, for a child of our own. Where the unit
# refuses with an error, these kill (SIGSYS): a program that merely survived a refusal would pass otherwise.
import re, resource, socket, subprocess
from mmap import PROT_EXEC, PROT_WRITE

from seccomp import ALLOW, EQ, KILL_PROCESS, MASKED_EQ, Arch, Arg, SyscallFilter, resolve_syscall


# What a child calls before it executes a program to be confined as the unit's lines SystemCallFilter=,
# RestrictAddressFamilies=, MemoryDenyWriteExecute= and LimitNOFILE= say.
def restrictions_of(unit):
    def words(name):
        return " ".join(re.findall(rf"^{name}=(.*)", unit.read_text(), re.MULTILINE)).split()

    calls = expand("@default").union(*map(expand, words("SystemCallFilter")))
    allowed = SyscallFilter(KILL_PROCESS)
    if families := words("RestrictAddressFamilies"):
        calls -= {"socket"}
        for family in families:
            allowed.add_rule(ALLOW, "socket", Arg(0, EQ, getattr(socket, family)))
    if words("MemoryDenyWriteExecute") == ["yes"]:
        calls -= {"mmap", "mprotect", "pkey_mprotect"}
        for protection in (0, PROT_WRITE, PROT_EXEC):
            allowed.add_rule(ALLOW, "mmap", Arg(2, MASKED_EQ, PROT_WRITE | PROT_EXEC, protection))
        allowed.add_rule(ALLOW, "mprotect", Arg(2, MASKED_EQ, PROT_EXEC, 0))
    for call in calls:
        if resolve_syscall(Arch(), call) >= 0:  # else it is another processor's
            allowed.add_rule(ALLOW, call)
    open_files = [int(limit) for limit in words("LimitNOFILE")]

    def restrict():
        for limit in open_files:
            resource.setrlimit(resource.RLIMIT_NOFILE, (limit, limit))
        allowed.load()

    return restrict


# The system calls that systemd means by a name, which may be an @group.
def expand(name):
    if not name.startswith("@"):
        return {name}
    listing = subprocess.run(["systemd-analyze", "syscall-filter", name], stdout=subprocess.PIPE, text=True, check=True)
    members = re.findall(r"^ +([@a-z]\S*)", listing.stdout, re.MULTILINE)
    return set().union(*map(expand, members))
