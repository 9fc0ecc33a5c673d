# SPDX-License-Identifier: MIT
"""Filters of the playbook: who measures whom when, and what each round has found."""

import datetime

WRAPPER_WORDS = 4  # of `timeout`, before the words of the program


def rounds(hosts):
    """Every pair of hosts once, as rounds of pairs of which no two share a host: n-1 rounds, or n when n is odd.

    The circle method: the first host keeps its place, the others move on by one place from round to round, and those
    who face each other are a pair. The partner None is a pause.
    """
    ring = list(hosts) + [None] * (len(hosts) % 2)
    half = len(ring) // 2
    found = []
    for _ in ring[1:]:
        facing = zip(ring[:half], reversed(ring[half:]))
        found.append([[first, second] for first, second in facing if first is not None and second is not None])
        ring = [ring[0], ring[-1], *ring[1:-1]]
    return [pairs for pairs in found if pairs]


def pair_of(pairs, host):
    """The pair of a round that a host belongs to; an empty one for a pause."""
    return next((pair for pair in pairs if host in pair), [])


def seconds_of(result):
    """How long a command ran, by the clock of its host."""
    return (datetime.datetime.fromisoformat(result["end"])
            - datetime.datetime.fromisoformat(result["start"])).total_seconds()


def run_of(host, partner, start, result):
    return {"from": host, "to": partner, "start": start, "seconds": seconds_of(result), "status": result["rc"],
            "command": result["cmd"][WRAPPER_WORDS:], "text": result["stdout"] + "\n" + result["stderr"]}


def results(pairs, hostvars, alive, now):
    """The runs of a round in the order of its pairs. Of a host that is not reached (any more) it says so."""
    found = []
    for host, partner in [way for pair in pairs for way in (pair, pair[::-1])]:
        if host not in alive:
            what = "has no monitor" if hostvars[host].get("mesh_monitor", {}).get("rc") else "was not reached"
            found.append({"from": host, "to": partner, "start": now, "trouble": f"{host} {what}"})
            continue
        start = float(hostvars[host]["mesh_time"])
        for name in ("mesh_echo_result", "mesh_stream_result"):
            result = hostvars[host][name]
            if "rc" in result and "start" in result:
                found.append(run_of(host, partner, start, result))
                start += found[-1]["seconds"]
            elif not result.get("skipped"):
                found.append({"from": host, "to": partner, "start": start,
                              "trouble": f"{host}: {result.get('msg', 'not measured')}"})
    return found


class FilterModule:
    def filters(self):
        return {"mesh_rounds": rounds, "mesh_pair_of": pair_of, "mesh_results": results}
