"""vqlink between a broker and the agent: what is published is applied and reported, and nothing else changes the box."""

import pytest

from box import expect, message, vpn_config
from fleet_world import Fleet, for_link


@pytest.fixture
def fleet():
    world = Fleet()
    yield world.start()
    world.clean_up()


@pytest.fixture
def box(box):
    box.configure(vpn_config(7), vpn_config(8), **for_link())
    return box


def answers(address, vpn=7):
    return message(vpn, dnshosts=[{"domain": f"nas.vpn{vpn}.example", "ip": address}])


def test_a_published_message_is_applied_and_reported(fleet, box):
    box.start()
    link = fleet.link().start()
    fleet.controller.publish(answers("192.168.7.11"), 1)
    report = fleet.controller.wait_report(revision=1)
    assert report == {"schema": 1, "revision": 1, "result": "applied", "inForce": 1, "enabled": True, "running": True,
                      "time": report["time"]}
    expect("192.168.7.11", "nas.vpn7.example")
    fleet.controller.wait_online()
    assert link.stop() == 0
    fleet.controller.wait_online(online=False)
