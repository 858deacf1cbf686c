import pytest

import box as box_module


@pytest.fixture(scope="session", autouse=True)
def lab():
    """The namespaces and upstream servers of VPN 7 and 8, once per test file."""
    for vpn in (7, 8):
        box_module.run(box_module.ROOT / "scripts/lab", "up", vpn)


@pytest.fixture
def box():
    """A configured box whose agent is not started. Everything is removed after the test."""
    machine = box_module.Box()
    machine.configure(box_module.vpn_config(7), box_module.vpn_config(8))
    yield machine
    machine.clean_up()


@pytest.fixture
def unattended(box):
    """A configured box whose agent is ready and repairs nothing by itself."""
    box.configure(box_module.vpn_config(7), box_module.vpn_config(8), watch={"repair": False})
    return box.start()


@pytest.fixture
def running(box):
    """A configured box whose agent is ready."""
    return box.start()


@pytest.fixture
def told(capsys):
    """Prints one line about a fault: a row of the table in docs/reliability.md."""
    def tell(fault, *figures):
        with capsys.disabled():
            print("\n| " + " | ".join([fault, *figures]) + " |", end="")
    return tell
