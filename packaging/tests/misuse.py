# Run by systemd in the place of the service: tries what that has no use for and fails unless the unit refuses it all.
import errno, mmap, os, socket, sys

FILTERED = errno.ENOANO  # what the filter of system calls answers here; no kernel says so of itself

ATTEMPTS = {  # and the error that must come of each
    "to change the root": (lambda: os.chroot("/"), FILTERED),  # which is filtered together with mount
    "a process of its own": (lambda: os.fork() or os._exit(0), FILTERED),
    "packets of any kind": (lambda: socket.socket(socket.AF_PACKET), errno.EAFNOSUPPORT),
    "netlink": (lambda: socket.socket(socket.AF_NETLINK), errno.EAFNOSUPPORT),
    "executable memory": (lambda: mmap.mmap(-1, 4096, prot=mmap.PROT_WRITE | mmap.PROT_EXEC), errno.EPERM),
    "another program": (lambda: os.execv("/usr/bin/false", ["false"]), errno.EACCES),
}

wrong = []
for what, (attempt, due) in ATTEMPTS.items():
    error = 0
    try:
        attempt()
    except OSError as refusal:
        error = refusal.errno
    if error != due:
        wrong.append(f"{what}: error {error}")
sys.exit("\n".join(wrong) or None)
