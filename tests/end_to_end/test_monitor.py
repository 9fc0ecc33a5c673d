# A monitor: what it streams, and what broken or hostile senders may do to it, after which it still serves.
import os, re, socket, struct, time

import pytest
from lab import (
    COMMAND, DATA, ECHO_REPLY, ECHO_REQUEST, LOCAL_PORT, LOOPBACK, OPERATION, REMOTE_PORT, command, header, message,
    shape, udp)

SERVER = (LOOPBACK, REMOTE_PORT)


# Makes sure that the monitor answers an echo request, and gives what else it had sent to us before.
def serves(client, server=SERVER):
    others = []
    client.sendto(message(ECHO_REQUEST, 7, 0xFFFFFFF0, b"ping", b"x" * 30), server)
    while header(packet := client.recv(65536))[:2] != (ECHO_REPLY, b"ping"):
        others.append(header(packet))
    assert packet == message(ECHO_REPLY, 0, 0xFFFFFFF0, b"ping", bytes(30))
    return others


def test_monitor_streams_and_survives_hostile_messages(lab):
    here = lab.namespace()
    # What is freed, and a frame of the stack that is left, is gone at once: or the memory would grow by them.
    freeing = {"ASAN_OPTIONS": "detect_stack_use_after_return=0:quarantine_size_mb=0:thread_local_quarantine_size_kb=0"}
    monitor, client = lab.monitor(at=here, env=freeing), lab.socket(here, LOCAL_PORT)
    whole = message(OPERATION, 0, 0, b"evil", command(2)) + bytes(36)
    for length in range(201):
        for kind in (0, DATA, ECHO_REPLY, 5, 0xFFFFFFFF):
            client.sendto(message(kind, length, length * 7)[:length].ljust(length, b"\xff"), SERVER)
        client.sendto(whole[:length], SERVER)
        assert [packet.sequence for packet in serves(client)] == ([0, 1] if length >= 164 else []), length
    client.sendto(bytes(65507), SERVER)
    assert serves(client) == []
    stranger = lab.socket(here)
    for batch, echoes, length, delay in ((7, 50, 1500, 1), (0xFFFFFFFF, 2, 65535, 1), (1, 4, 0, 50000)):
        begin, body = time.monotonic(), command(echoes, ip_length=length, delay_usec=delay)
        stranger.sendto(message(OPERATION, batch, 0, b"cmd1", body), SERVER)  # the stream goes to the command's port
        for sequence in range(echoes):
            data = message(DATA, batch, sequence, struct.pack("=I", monitor.pid), bytes(max(length, 48) - 48))
            assert client.recvfrom(65536) == (data, SERVER)
        assert time.monotonic() - begin >= (echoes - 1) * delay / 1e6 - 0.011
    fields = {name.rstrip("!") for name in COMMAND} - {"echo_count", "delay_usec"}  # any delay is obeyed
    odd = [{field: value} for field in fields for value in (0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)]
    for count, changes in [(2, change) for change in odd] + [(3, dict.fromkeys(fields, 0xFFFFFFFF)), (0xFFFFFFFF, {})]:
        client.sendto(message(OPERATION, 1, 0, b"evil", command(count, **changes)), SERVER)
        streamed = [(packet.type, packet.sequence) for packet in serves(client)]
        assert "ports" in changes or streamed == [(DATA, i) for i in range(min(count, 65536))], changes
    descriptors, memory = resources(monitor)
    for _ in range(5000):
        client.sendto(message(OPERATION, 1, 0, b"evil", command(1)), SERVER)
    monitor.wait_until("S")  # those that its buffer could not take are lost
    assert 1000 <= len(serves(client)) <= 5000
    assert resources(monitor)[0] == descriptors and resources(monitor)[1] < memory + 256


def resources(monitor):
    memory = re.search(r"Rss:\s+(\d+) kB", monitor.proc("smaps_rollup"))
    return len(os.listdir(f"/proc/{monitor.pid}/fd")), int(memory[1])


def test_no_loop_with_another_service_or_monitor(lab):
    left, router, right = lab.chain(1)
    monitors, (near, far) = [lab.monitor(at=left), lab.monitor(at=right)], ("10.9.0.1", "10.9.1.2")

    before, server = [monitor.datagrams_sent() for monitor in monitors], (far, REMOTE_PORT)
    for service in [lab.socket(router, port) for port in (7, 19, 53)]:
        service.sendto(message(ECHO_REQUEST), server)
        service.sendto(service.recv(100), server)  # as an echo service would
        service.sendto(bytes(range(33, 107)), server)
    ports = REMOTE_PORT << 16 | REMOTE_PORT
    for text in (message(ECHO_REQUEST), message(OPERATION, body=command(1, ports=ports))):  # as if the other monitor's
        lab.raw_socket(router).sendto(udp((near, REMOTE_PORT), server, text), (far, 0))
    client = lab.socket(router)
    assert serves(client, server) == serves(client, (near, REMOTE_PORT)) == serves(client, server) == []
    assert [monitor.datagrams_sent() - then for monitor, then in zip(monitors, before)] == [1, 3 + 2 + 2]


def test_tcp_framing(lab):
    here = lab.namespace()
    lab.monitor("-p", at=here)

    def connect(data):
        connection = lab.socket(here, to=LOOPBACK)
        connection.sendall(data)
        connection.settimeout(5)  # half of what a monitor gives the rest of a message
        return connection

    for length in (0, 1, 19, 65537, 0x80000000, 0xFFFFFFFF):
        assert connect(message(ECHO_REQUEST, length=length)).recv(1) == b"", length
    for part in (b"", b"x", message(ECHO_REQUEST)[:19], message(ECHO_REQUEST, length=100) + bytes(79)):
        connect(part).close()
    parts = [bytes([byte]) for byte in message(ECHO_REQUEST, 3, 5, body=b"y" * 10)]  # then two messages in one piece
    connection = connect(b"")
    for part in (*parts, message(ECHO_REQUEST, 3, 6) + message(ECHO_REQUEST, 3, 7, body=bytes(65516))):
        connection.sendall(part)
        time.sleep(0.002)
    for sequence, size in ((5, 10), (6, 0), (7, 65516)):
        answer = message(ECHO_REPLY, 0, sequence, body=bytes(size))
        assert connection.recv(len(answer), socket.MSG_WAITALL) == answer


def test_a_forged_sender_makes_no_monitor_broadcast(lab):
    left, right = lab.chain(0)
    for device in ("all", "to-host1"):
        left.write(f"ipv4/conf/{device}/rp_filter", 0)  # or the kernel would not let such a sender in
    monitor, everybody, server = lab.monitor(at=left), lab.socket(right, LOCAL_PORT), ("10.9.0.1", REMOTE_PORT)
    raw = lab.raw_socket(right)
    for text in (message(ECHO_REQUEST), message(OPERATION, body=command(100))):
        for source in ("10.9.0.255", "255.255.255.255", "224.0.0.1"):
            raw.sendto(udp((source, LOCAL_PORT), server, text), ("10.9.0.1", 0))
    assert serves(everybody, server) == []
    assert monitor.err == "Destination IP = 0.0.0.0\n" and "Err-" not in monitor.out


@pytest.mark.parametrize("options", [["-i"], ["-p", "-i"], ["--blast"]])
def test_monitor_that_ends_by_itself_sums_up(lab, options):
    run = lab.run("--server", *options, "-S1", LOOPBACK)
    assert run.status == 0 and re.search(r"\nIn #s, \d+ tx pkts, 0 rx pkts, ", shape(run.body)), run.body
