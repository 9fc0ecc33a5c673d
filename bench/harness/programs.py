"""The programs that are compared: built or installed here, and described for the report."""

import os
import pathlib
import re
import shutil
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[2]
SOURCES = ROOT / "bench"
BUILT = ROOT / "build" / "bench"

PEER_PACKAGES = ["fping", "iputils-ping", "iperf3", "hping3"]
TOOL_PACKAGES = ["nftables", "ethtool"]
BUILD_PACKAGES = ["g++", "cmake", "ninja-build", "make", "binutils", "iproute2", "util-linux"]
PROGRAMS_NEEDED = ["fping", "ping", "iperf3", "hping3", "g++", "cmake", "strip", "readelf", "ip", "taskset", "nft",
                   "ethtool"]

# libstdc++ as a shared library would cost each start half a millisecond.
COMPILE = ["g++", "-std=c++20", "-O2", "-Wall", "-Wextra", "-static-libstdc++", "-static-libgcc"]


def install_peers():
    if all(shutil.which(program) for program in PROGRAMS_NEEDED):
        return
    environment = dict(os.environ, DEBIAN_FRONTEND="noninteractive")
    install = ["apt-get", "install", "-y", *PEER_PACKAGES, *TOOL_PACKAGES, *BUILD_PACKAGES]
    if subprocess.run(install, env=environment, check=False).returncode != 0:
        subprocess.run(["apt-get", "update"], check=True)
        subprocess.run(install, env=environment, check=True)


def build_bare_loops():
    BUILT.mkdir(parents=True, exist_ok=True)
    for source in SOURCES.glob("*.cpp"):
        static = ["-static"] if source.stem == "measure" else []
        subprocess.run([*COMPILE, *static, "-o", str(BUILT / source.stem), str(source)], check=True)


def bare(name):
    return str(BUILT / name)


def vorn():
    """The release build, made now unless VORN names a program."""
    if "VORN" in os.environ:
        return os.environ["VORN"]
    subprocess.run(["cmake", "--preset", "release"], cwd=ROOT, check=True)
    subprocess.run(["cmake", "--build", "build/release", "-j"], cwd=ROOT, check=True)
    return str(ROOT / "build" / "release" / "vorn")


def baseline():
    """An earlier Vorn to compare with, when BASELINE names one."""
    return os.environ.get("BASELINE", "")


def stripped_size(path):
    copy = BUILT / "stripped"
    subprocess.run(["strip", "-o", str(copy), path], check=True)
    return copy.stat().st_size


def libraries_needed(path):
    shown = subprocess.run(["readelf", "-d", path], check=True, capture_output=True, text=True).stdout
    return re.findall(r"\(NEEDED\).*\[(.*)\]", shown)


def first_words(command, pattern):
    shown = subprocess.run(command, check=False, capture_output=True, text=True)
    found = re.search(pattern, shown.stdout + shown.stderr)
    return found.group(1) if found else "unknown"


def versions():
    return {
        "fping": first_words(["fping", "--version"], r"Version (\S+)"),
        "ping (iputils)": first_words(["ping", "-V"], r"iputils (\S+)"),
        "iperf3": first_words(["iperf3", "--version"], r"iperf (\S+)"),
        "hping3": first_words(["hping3", "--version"], r"version (\S+)"),
        "g++": first_words(["g++", "-dumpfullversion"], r"(\S+)"),
    }


def machine():
    with open("/proc/cpuinfo", encoding="utf-8") as table:
        model = re.search(r"model name\s*: (.*)", table.read()).group(1)
    return {
        "processor": model,
        "cores": str(os.cpu_count()),
        "kernel": "Linux " + re.match(r"[\d.]+\d", os.uname().release).group(0),
        "load before the start": f"{os.getloadavg()[0]:.2f}",
    }
