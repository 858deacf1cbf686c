"""Many VPNs on one box."""

import json
import os
import sqlite3

from box import DNSMASQ, STORE, instances, run

COUNT = 1000


def record(vpn):
    hosts = [{"Ip": f"10.0.0.{number}", "Domain": f"host{number}.example"} for number in range(1, 21)]
    return json.dumps({"Enable": False, "VpnId": vpn, "Op": 1, "DnsHostNum": len(hosts), "DnsHost": hosts,
                       "LocalIp": "0.0.0.0"})


def peak_memory_mib(pid):
    with open(f"/proc/{pid}/status", encoding="ascii") as status:
        (line,) = (line for line in status if line.startswith("VmHWM:"))
    return int(line.split()[1]) / 1024


def test_thousand_stored_vpns_recover_within_300_mib(box):
    """Each record has 17 MB of address space. All are disabled, so that the agent is measured and not dnsmasq."""
    vpns = range(1001, 1001 + COUNT)
    os.makedirs(os.path.dirname(STORE), exist_ok=True)
    for vpn in vpns:
        run("ip", "netns", "add", f"vpn_{vpn}")
    box.configure({"id": 1001}, persistence=True, store=str(STORE))
    box.start()
    box.stop()
    with sqlite3.connect(STORE) as store:
        store.executemany("INSERT INTO cpe_dnsmasq (vpn_id, conf) VALUES (?, ?)", [(vpn, record(vpn)) for vpn in vpns])
    box.configure(*({"id": vpn} for vpn in vpns), persistence=True, store=str(STORE), log="warning")

    box.start()

    assert peak_memory_mib(box.agent.pid) < 300
    assert instances() == []
    for vpn in (1001, 1500, 2000):
        assert (DNSMASQ / f"vpn_{vpn}/hosts").read_text().endswith("10.0.0.20 host20.example\n")
    assert len(json.loads(box.vqctl("status", "--json").stdout)["vpns"]) == COUNT
