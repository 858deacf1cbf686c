"""The files for Prometheus fit the metrics of the agent and of the fleet: alert rules, their tests, and the console."""

import re
import subprocess

import pytest
from program_help import ROOT

MONITORING = ROOT / "packaging/prometheus"
FILES = [path.relative_to(MONITORING) for path in MONITORING.rglob("*") if path.is_file()]


def promtool(*words):
    """The output of promtool, which runs in the folder of the rules. Fails if it finds a problem."""
    done = subprocess.run(["promtool", *words], cwd=MONITORING, text=True, capture_output=True, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    return done.stdout + done.stderr


SOURCES = ("src/agent/socket/metrics_document.cpp", "src/fleet/fleet_metrics_command.cpp")
ALERTS = {"vqagent": 10, "vqfleet": 5}


def metric_names():
    """The names of the samples that the programs write."""
    source = "".join((ROOT / path).read_text() for path in SOURCES)
    declared = re.findall(r'(?:Begin\(|\{)"(\w+)",\s*"(counter|gauge|histogram)"', source)
    names = {f"kavel_{name}{suffix}" for name, kind in declared
             for suffix in (("_bucket", "_sum", "_count") if kind == "histogram" else ("",))}
    assert len(names) > 25
    return names


@pytest.mark.parametrize("program", ALERTS)
def test_the_rules_are_valid(program):
    assert "SUCCESS" in promtool("check", "rules", f"{program}.rules.yml")


@pytest.mark.parametrize("program", ALERTS)
def test_the_alerts_fire_when_they_have_to(program):
    assert "SUCCESS" in promtool("test", "rules", f"{program}.rules.test.yml")


@pytest.mark.parametrize("program", ALERTS)
def test_each_alert_is_tested(program):
    alerts = re.findall(r"- alert: (\w+)", (MONITORING / f"{program}.rules.yml").read_text())
    tests = (MONITORING / f"{program}.rules.test.yml").read_text()
    assert len(alerts) == ALERTS[program]
    for alert in alerts:
        fires = rf"alertname: {alert}\n +exp_alerts:\n"
        assert re.search(fires, tests), f"no test in which {alert} fires"
        assert f"alertname: {alert}}}" in tests, f"no test in which {alert} does not fire"


@pytest.mark.parametrize("file", FILES, ids=str)
def test_each_metric_that_is_named_exists(file):
    named = set(re.findall(r"\bkavel_\w+", (MONITORING / file).read_text()))
    assert named
    assert named <= metric_names()
