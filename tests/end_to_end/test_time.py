# Time goes on though the date is set, and no figure depends on when the program gets the processor.
import re, time

import pytest
from lab import HOST, LOOPBACK, SET_DATE, TunPeer, reply

STEPS = (-0.2, -5, 0.2, 3600)  # seconds


def setting_the_date(seconds, after):
    return {"LD_PRELOAD": SET_DATE, "SET_DATE_AFTER": f"{int(after * 1e6)}", "SET_DATE_BY": f"{int(seconds * 1e6)}"}


# Without the library, or with one that does nothing, all tests here would pass.
@pytest.fixture(autouse=True)
def the_date_can_be_set(lab):
    told = lab.run("-c", "import time; print(time.time())", program="python3", env=setting_the_date(3600, after=0))
    assert float(told.out) > time.time() + 3000, f"{SET_DATE} does not set the date: {told.err}"


# The output of a run for each step of the date that comes 0.4 s after its start, of all of them side by side.
def outputs(lab, arguments, at):
    began = time.monotonic()
    runs = [lab.start(*arguments, at=host, env=setting_the_date(step, after=0.4)) for step, host in zip(STEPS, at)]
    texts = [run.finish().body for run in runs]
    return texts, time.monotonic() - began


# A stall of the machine costs a rate some per cent, a step that is taken for time a third at least.
def test_a_batch_is_measured_though_the_date_is_set(lab):
    hosts = [lab.namespace() for _ in STEPS]
    for host in hosts:
        lab.monitor(at=host)
    texts, _ = outputs(lab, ["--client", "-E50", "-d10000", "-e2", LOOPBACK], hosts)
    for text, step in zip(texts, STEPS):
        batches = re.findall(r" Pkts:  50/50 +([\d.]+) mbps .* +([\d.]+) msec ", text)
        assert len(batches) == 2, (step, text)
        assert all(1.0 <= float(rate) <= 1.4 and float(buffer) < 150 for rate, buffer in batches), (step, text)


# Request n is answered when request n + 30 comes, 150 ms later; those that none follows behind the last, number 149.
def late_answers(request):
    if request.sequence < 149:
        return [reply(shift=-30)(request)] if request.sequence >= 30 else []
    return [reply(delay=0.005, shift=shift)(request) for shift in range(-30, 1)]


@pytest.mark.parametrize("options, trips, least", [("-e150 -d5000 -a50 -T9000000", 150, 0.74), ("-i -e150 -d5000", 0, 0.74),
                                                   ("-i -e -d5000 -S2", 0, 2)])
def test_an_echo_run_takes_no_notice_of_the_date(lab, options, trips, least):
    peers = [lab.own(TunPeer(lab.namespace(), late_answers)) for _ in STEPS]
    texts, took = outputs(lab, [HOST, *options.split()], [peer.namespace for peer in peers])
    for text, step in zip(texts, STEPS):
        seconds = sorted(float(trip) for trip in re.findall(r"Received +Echo Reply  in +([\d.]+)s", text))
        assert len(seconds) == trips and "TIMEOUT" not in text, (step, text)
        if trips:  # requests that a stall sends together come back together: none at once, most as they should
            assert 0 < seconds[0] and 0.1 < seconds[trips // 2] < 0.3, (step, text)
        length = float(re.search(r"^In +([\d.]+)s", text, re.MULTILINE)[1])
        assert least <= length <= took, (step, text)
