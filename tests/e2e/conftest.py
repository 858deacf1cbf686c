import pytest

import box as box_module


@pytest.fixture(scope="session", autouse=True)
def lab():
    """Two VPNs' surroundings, once for a test file."""
    for vpn in (7, 8):
        box_module.run(box_module.ROOT / "scripts/lab", "up", vpn)


@pytest.fixture
def box():
    """A configured box, its agent not yet started; nothing of it is left for the next test."""
    machine = box_module.Box()
    machine.configure(box_module.vpn_config(7), box_module.vpn_config(8))
    yield machine
    machine.clean_up()


@pytest.fixture
def running(box):
    """The same with its agent ready."""
    return box.start()
