"""What `cmake --install` lays down works at any prefix."""

import os
import pathlib
import re
import shlex
import shutil
import subprocess

import pytest

import box as box_module
from box import BUILD, expect, message, run
from example_host import CPE_VPNS

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
foreach(file MODULE SCHEMA IMPORTS EXPORTS HOSTCHECK HOSTCHECK_LIBRARY)
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


@pytest.fixture
def say(prefix):
    """What pkg-config says about the installed tree."""
    environment = {**os.environ, "PKG_CONFIG_PATH": str(prefix / "lib/pkgconfig")}

    def ask(*options):
        return subprocess.run(["pkg-config", *options, "vqAdvancedDns"], env=environment, text=True, check=True,
                              capture_output=True).stdout.strip()
    return ask


@pytest.fixture
def example(prefix, tmp_path):
    """A copy of the example host, far from the tree."""
    source = tmp_path / "a host"
    shutil.copytree(prefix / "share/doc/libvqadvanceddns-dev/examples/host", source)
    return source


def assert_is_a_host(program, prefix):
    """Checks a host as its author does: with what is installed."""
    command = [prefix / "bin/vq-hostcheck", "--vpn", 7, "--only", "string.", "--", program, "--module", "%m",
               "--store", "/run/example-store"]
    for vpn in CPE_VPNS:
        command += ["--vpn", vpn]
    done = run(*command, check=False)
    assert done.returncode == 0, done.stdout + done.stderr
    assert re.search(r"^# [1-9]\d* kept, 0 broken, 0 that should be kept are not, 0 not judged$", done.stdout, re.M)


def test_a_host_compiles_with_pkg_config(prefix, tmp_path, say):
    (tmp_path / "host.c").write_text(HOST)
    for name in ("module", "schema", "imports", "exports", "hostcheck", "hostcheck_library"):
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


def test_the_example_host_is_built_with_pkg_config(box, prefix, example):
    run("make", "CFLAGS=-Wall -Wextra -Werror", cwd=example,
        env={**os.environ, "PKG_CONFIG_PATH": str(prefix / "lib/pkgconfig")})
    assert_is_a_host(example / "example-host", prefix)


def test_the_example_host_is_built_with_cmake(box, prefix, example):
    run("cmake", "-S", example, "-B", example / "build", f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", example / "build")
    assert_is_a_host(example / "build/example-host", prefix)


def test_the_example_host_needs_json_c_although_it_does_not_call_it(prefix, example):
    run("make", "LDFLAGS=-Wl,--as-needed", cwd=example,
        env={**os.environ, "PKG_CONFIG_PATH": str(prefix / "lib/pkgconfig")})
    dropped = run(example / "example-host", "--module", prefix / "lib/kavel/libvqAdvancedDns.so", check=False)
    assert dropped.returncode == 1
    assert "undefined symbol: json_" in dropped.stderr


def test_documents_for_authors_of_hosts_are_installed(prefix):
    documents = prefix / "share/doc/libvqadvanceddns-dev"
    names = {str(path.relative_to(documents)) for path in documents.rglob("*") if path.is_file()}
    sources = {f"examples/host/{path.name}" for path in (box_module.ROOT / "examples/host").iterdir()}
    assert names == {"integration.md", "messages.md", *sources}
