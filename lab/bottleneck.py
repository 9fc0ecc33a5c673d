"""A line with a bottleneck, for what measures lines: near - router - far, slowed on the router, each way by itself.

The queues stand on the router, not on the hosts that send: there a full queue would hold a sender back, which neither
loses nor delays anything. Nothing travels as one large packet that the queue has to count as one.
"""

import contextlib
import dataclasses
import subprocess
import time
from collections.abc import Iterator

from network import End, Link, Namespace, chain, standing

NEAR, FAR = "10.78.0.1", "10.78.1.1"
FRAME_BYTES, PAYLOAD_BYTES = 1514, 1472  # of a packet of full size, as the queue and as vorn counts it
MONITOR_PORT = 8004


@dataclasses.dataclass(frozen=True)
class Way:
    """One direction: Mbit/s of whole frames, and the depth of its queue in frames of full size."""
    mbps: float
    frames: int

    @property
    def payload_mbps(self) -> float:
        return self.mbps * PAYLOAD_BYTES / FRAME_BYTES

    @property
    def queue_bytes(self) -> int:
        return self.frames * FRAME_BYTES + 400  # room for the pings that wait among the frames

    @property
    def delay_usec(self) -> float:
        """What the full queue adds to a round trip."""
        return self.queue_bytes * 8 / self.mbps

    @property
    def end(self) -> dict[str, str]:
        # A bucket of five milliseconds: on a busy machine timers come late, and that must not cost rate.
        bucket = max(2 * FRAME_BYTES, round(self.mbps * 5000 / 8))
        return {"rate": f"{round(self.mbps * 1e6)}bit", "queue": f"burst {bucket} limit {self.queue_bytes}"}


@contextlib.contextmanager
def bottleneck(down: Way, up: Way, vorn: str = "", loss_percent: float = 0) -> Iterator[dict[str, Namespace]]:
    """The hosts by name, a monitor of `vorn` on far if it is given. The loss, by chance, is of what goes down."""
    links = [Link(End("near", [f"{NEAR}/24"]), End("router", ["10.78.0.2/24"], **down.end)),
             Link(End("router", ["10.78.1.2/24"], **up.end), End("far", [f"{FAR}/24"]))]
    with standing(chain(links), links) as hosts:
        for host, device in (("near", "to-router"), ("router", "to-near"), ("router", "to-far"), ("far", "to-router")):
            hosts[host].ip(f"link set {device} gso_max_segs 1")
        if loss_percent:
            hook = "{ type filter hook forward priority 0; }"
            drop = f'oifname "to-near" numgen random mod 10000 < {round(loss_percent * 100)} drop'
            hosts["router"].run(["nft", f"add table ip line; add chain ip line down {hook}; add rule ip line "
                                 f"down {drop}"], check=True)
        if vorn:
            hosts["far"].start([vorn, "--server"], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
            while not hosts["far"].has_port(MONITOR_PORT):
                time.sleep(0.01)
        yield hosts
