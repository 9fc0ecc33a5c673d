#!/usr/bin/env python3
"""Run a program, or after -c a line of Python, under the restrictions that a systemd unit puts on system calls.

    confine.py UNIT PROGRAM [ARGUMENT...]
    confine.py UNIT -c LINE

It reads the unit's SystemCallFilter=, RestrictAddressFamilies=, MemoryDenyWriteExecute= and LimitNOFILE= lines, and
installs the same rules with libseccomp, as an unprivileged user without capabilities. Where the unit refuses with an
error, this kills (SIGSYS): a program that merely survived a refusal would pass otherwise.
"""
import ctypes
import mmap
import os
import resource
import socket
import subprocess
import sys

NOBODY = 65534
KILL_PROCESS, ALLOW = 0x80000000, 0x7FFF0000  # seccomp.h
EQUAL, MASKED_EQUAL = 4, 7
PROT_WRITE, PROT_EXEC = 2, 4
PR_SET_NO_NEW_PRIVS, PR_CAPBSET_DROP = 38, 24


class Comparison(ctypes.Structure):
    _fields_ = [("argument", ctypes.c_uint), ("operation", ctypes.c_int),
                ("a", ctypes.c_uint64), ("b", ctypes.c_uint64)]


def values_of(unit, name):
    """The words of all lines that set the name."""
    with open(unit, encoding="utf-8") as lines:
        settings = [line.strip().partition("=") for line in lines]
    return [word for key, _, value in settings if key == name for word in value.split()]


def expand(names):
    """System calls for names and @groups, as systemd knows them."""
    calls = set()
    for name in names:
        if not name.startswith("@"):
            calls.add(name)
            continue
        listing = subprocess.run(["systemd-analyze", "syscall-filter", name], stdout=subprocess.PIPE, text=True,
                                 check=True).stdout
        words = [line.split("#")[0].strip() for line in listing.splitlines()]
        calls |= expand(word for word in words if word and word != name)
    return calls


def rules_of(unit):
    """The allowed system calls and socket families, and whether memory may be executed that was written."""
    calls = expand(values_of(unit, "SystemCallFilter")) | expand(["@default"])
    return (calls, values_of(unit, "RestrictAddressFamilies"),
            values_of(unit, "MemoryDenyWriteExecute") != ["yes"])


def install_filter(calls, families, may_execute_written_memory):
    seccomp = ctypes.CDLL("libseccomp.so.2", use_errno=True)
    seccomp.seccomp_init.restype = ctypes.c_void_p
    context = ctypes.c_void_p(seccomp.seccomp_init(ctypes.c_uint32(KILL_PROCESS)))

    def allow(call, *comparisons):
        number = seccomp.seccomp_syscall_resolve_name(call.encode())
        if number < 0:
            return  # another processor's
        array = (Comparison * len(comparisons))(*comparisons)
        if seccomp.seccomp_rule_add_array(context, ctypes.c_uint32(ALLOW), number, len(comparisons), array) != 0:
            raise OSError(f"no rule for {call}")

    if families:
        calls -= {"socket"}
        for family in families:
            allow("socket", Comparison(0, EQUAL, getattr(socket, family), 0))
    if not may_execute_written_memory:
        calls -= {"mmap", "mprotect", "pkey_mprotect"}
        for protection in (0, PROT_WRITE, PROT_EXEC):
            allow("mmap", Comparison(2, MASKED_EQUAL, PROT_WRITE | PROT_EXEC, protection))
        allow("mprotect", Comparison(2, MASKED_EQUAL, PROT_EXEC, 0))
    for call in sorted(calls):
        allow(call)
    if seccomp.seccomp_load(context) != 0:
        raise OSError("the kernel did not take the filter")


def give_up_privileges():
    libc = ctypes.CDLL(None)
    for capability in range(64):
        libc.prctl(PR_CAPBSET_DROP, capability, 0, 0, 0)
    os.setgroups([])
    os.setresgid(NOBODY, NOBODY, NOBODY)
    os.setresuid(NOBODY, NOBODY, NOBODY)
    libc.prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0)


def main(unit, *command):
    for limit in values_of(unit, "LimitNOFILE"):
        resource.setrlimit(resource.RLIMIT_NOFILE, (int(limit), int(limit)))
    rules = rules_of(unit)  # while it can be read: it may lie in a home directory that is closed to others
    line = compile(command[1], "line", "exec") if command[0] == "-c" else None
    give_up_privileges()
    install_filter(*rules)
    if line is None:
        os.execv(command[0], command)
    exec(line, {"ctypes": ctypes, "mmap": mmap, "os": os, "socket": socket})
    os._exit(0)


if __name__ == "__main__":
    main(*sys.argv[1:])
