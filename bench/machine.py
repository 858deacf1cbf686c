"""Writes what the figures are measured on: processor, memory, kernel, programs and libraries. machine.py FILE"""

import json
import os
import pathlib
import platform
import re
import subprocess
import sys

PACKAGES = {"json-c": "libjson-c5", "SQLite": "libsqlite3-0", "libnftables": "libnftables1", "libc": "libc6",
            "mosquitto": "mosquitto", "libmosquitto": "libmosquitto1", "OpenSSL": "libssl3"}
PROGRAMS = {"gcc": ("g++", "-dumpfullversion"), "dnsmasq": ("dnsmasq", "--version"), "iproute2": ("ip", "-V")}


def version(*command):
    told = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return re.search(r"\d+(\.\d+)+", told)[0]


def memory_gib():
    (line,) = re.findall(r"MemTotal: +(\d+) kB", pathlib.Path("/proc/meminfo").read_text())
    return f"{int(line) / (1 << 20):.0f} GiB"


def processor():
    names = re.findall(r"model name\s*: (.+)", pathlib.Path("/proc/cpuinfo").read_text())
    return names[0] if names else platform.machine()


def facts():
    return {"processor": processor(), "cores": os.cpu_count(), "memory": memory_gib(),
            "Linux": re.match(r"\d+(\.\d+)+", platform.release())[0],
            **{name: version(*command) for name, command in PROGRAMS.items()},
            **{name: version("dpkg-query", "--show", "--showformat=${Version}", package)
               for name, package in PACKAGES.items()}}


if __name__ == "__main__":
    pathlib.Path(sys.argv[1]).write_text(json.dumps(facts(), indent=1) + "\n")
