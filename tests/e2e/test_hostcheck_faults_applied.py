"""The example host keeps every promise, and faults that show when it works with the module are named."""

import pytest

from example_host import POP_VPNS
from host_faults import SECOND_PHASE, apply_command, check, clean_up, expect_named


@pytest.fixture(autouse=True)
def cleaned():
    yield
    clean_up()


@pytest.mark.parametrize("program", ["example-host", "example-host-faults"])
def test_host_without_a_fault_keeps_every_promise(program):
    status, verdicts, output = check(program, "--vpn", 7, "--apply", apply_command(program))

    assert [name for name, kept in verdicts.items() if not kept] == [], output
    assert status == 0, output
    assert len(verdicts) > 100


def test_host_of_a_pop_keeps_every_promise():
    status, verdicts, output = check("example-host", "--vpn", 0, platform="pop", vpns=POP_VPNS)

    assert [name for name, kept in verdicts.items() if not kept] == [], output
    assert status == 0, output


@pytest.mark.parametrize("fault", SECOND_PHASE)
def test_fault_with_the_module_is_named(fault):
    expect_named(fault, "--apply", apply_command("example-host-faults"))
