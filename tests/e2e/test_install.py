"""What `cmake --install` lays down works at any prefix."""

import os
import pathlib
import shlex
import subprocess

import pytest

import box as box_module
from box import BUILD, expect, message, run

HOST = r"""
#include <stdio.h>

#include "vqCtrlAdvancedDns.h"
#include "vqPlatform.h"

int main(void)
{
    return printf("%d\n", (int)sizeof(VQ_CTRL_DNSMASQ_CONF)) < 0;
}
"""

PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(host C)
find_package(vqAdvancedDns 0.1 REQUIRED)
foreach(file MODULE SCHEMA IMPORTS EXPORTS)
  if(NOT EXISTS ${vqAdvancedDns_${file}})
    message(FATAL_ERROR "${file}: ${vqAdvancedDns_${file}} does not exist")
  endif()
endforeach()
add_executable(host host.c)
target_link_libraries(host PRIVATE vqAdvancedDns::hostapi)
"""


@pytest.fixture(scope="module")
def prefix(tmp_path_factory):
    directory = tmp_path_factory.mktemp("installed") / "some place"
    run("cmake", "--install", BUILD, "--prefix", directory)
    return directory


def test_an_installed_agent_finds_its_module(box, prefix, monkeypatch):
    monkeypatch.setattr(box_module, "BUILD", prefix / "sbin")

    box.start()

    run(prefix / "bin/vqctl", "apply", "-", input=box_module.json.dumps(message()))
    expect("192.168.7.10", "nas.vpn7.example")
    mapped = pathlib.Path(f"/proc/{box.agent.pid}/maps").read_text()
    assert f"{prefix}/lib/kavel/libvqAdvancedDns.so" in mapped


def test_a_host_compiles_with_pkg_config(prefix, tmp_path):
    (tmp_path / "host.c").write_text(HOST)
    environment = {**os.environ, "PKG_CONFIG_PATH": str(prefix / "lib/pkgconfig")}

    def say(*options):
        return subprocess.run(["pkg-config", *options, "vqAdvancedDns"], env=environment, text=True, check=True,
                              capture_output=True).stdout.strip()

    for name in ("module", "schema", "imports", "exports"):
        # The prefix has a blank, as paths of people's own directories may have: it is printed as a word of the shell.
        (path,) = shlex.split(say(f"--variable={name}"))
        assert pathlib.Path(path).exists(), name
    run("sh", "-c", f"cc -std=c11 -Wall -Wextra -Werror {say('--cflags')} -o host host.c", cwd=tmp_path)
    assert int(run(tmp_path / "host").stdout) > 16_000_000


def test_a_host_compiles_with_cmake(prefix, tmp_path):
    (tmp_path / "host.c").write_text(HOST)
    (tmp_path / "CMakeLists.txt").write_text(PROJECT)
    run("cmake", "-S", tmp_path, "-B", tmp_path / "build", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", tmp_path / "build")
    assert int(run(tmp_path / "build/host").stdout) > 16_000_000
