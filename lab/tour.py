"""The network of the documents' examples, for scripts/lab and scripts/examples: user - r1 - r2 - r3 - target.

r1 also stands for three more hosts on the user's link, so that a sweep of it finds 10.77.0.1 to 10.77.0.5.
"""

import contextlib
import os
import shutil
import subprocess
import sys
import time

from network import End, Link, chain, standing

# The line that target is reached by: slower up than down, with room for 20 and 50 milliseconds; buckets of 5, so that a
# timer that comes late costs no rate.
DOWN_QUEUE, UP_QUEUE = "burst 30kb limit 122kb", "burst 6kb limit 61kb"
LINKS = [
    Link(End("user", ["10.77.0.1/24"]),
         End("r1", [f"10.77.0.{host}/24" for host in (2, 3, 4, 5)], rate="100mbit")),  # rates as a network has them
    Link(End("r1", ["10.77.1.1/24"]), End("r2", ["10.77.1.2/24"])),
    Link(End("r2", ["10.77.2.1/24"]), End("r3", ["10.77.2.2/24"], rate="50mbit", queue=DOWN_QUEUE)),
    Link(End("r3", ["10.77.4.1/24"], rate="10mbit", queue=UP_QUEUE), End("target", ["10.77.4.2/24"])),
]
MONITORS = [("r1", "udp"), ("r1", "tcp"), ("target", "udp")]
MONITOR_PORT = 8004


@contextlib.contextmanager
def tour(vorn):
    """The network with its monitors, which are run by this program; gives the host `user`."""
    with standing(chain(LINKS), LINKS) as hosts:
        for name, carrier in MONITORS:
            monitor = hosts[name].start([vorn, *(["-p"] if carrier == "tcp" else []), "--server"],
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while not hosts[name].has_port(MONITOR_PORT, carrier):
                if monitor.poll() is not None:
                    raise RuntimeError(f"the monitor on {name} did not start")
                time.sleep(0.01)
        yield hosts["user"]


def become_root(script):
    """Goes on as root, by sudo where it takes that: namespaces need it."""
    if os.geteuid() == 0:
        return
    if not shutil.which("sudo"):
        sys.exit("Network namespaces need root: run it as root, or install sudo")
    os.execvp("sudo", ["sudo", script, *sys.argv[1:]])
