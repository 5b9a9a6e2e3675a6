"""Fixtures of the whole-program tests."""

import os
import pathlib
import re
import signal
import subprocess
import sys

import pytest

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from support.debian_root import DebianRoot  # noqa: E402
from support.doc_runner import Shell  # noqa: E402
from support.machine import (  # noqa: E402
    Machine,
    is_emulated,
    is_sanitized,
    machine_of,
    unshare_command,
)

ROOT = pathlib.Path(__file__).resolve().parents[1]


def pytest_addoption(parser):
    parser.addoption(
        "--build",
        default=os.environ.get("VORN_BUILD", str(ROOT / "build")),
        help="the build directory whose bin/vornlaunch is tested",
    )
    parser.addoption(
        "--long",
        action="store_true",
        help="the long form of the reliability tests, as ./reliability.sh runs it",
    )


def isolate_from_caller():
    """Resets inherited attributes that would affect the programs under test: a shell
    without job control starts a background job with SIGINT and SIGQUIT ignored,
    nohup(1) ignores SIGHUP, and a caller's umask may hide files from other users."""
    signal.signal(signal.SIGINT, signal.default_int_handler)
    signal.signal(signal.SIGQUIT, signal.SIG_DFL)
    signal.signal(signal.SIGHUP, signal.SIG_DFL)
    os.umask(0o022)


def pytest_configure(config):
    isolate_from_caller()
    config.addinivalue_line("markers", "long: a part of the long form alone")
    config.addinivalue_line("markers", "plain: only for a launcher without sanitizers")
    config.addinivalue_line(
        "markers",
        "native: looks at the calls, signals, memory or program of the process, "
        "which are the emulator's own where the launcher is emulated",
    )


def pytest_collection_modifyitems(config, items):
    """Deselects the tests that are not for this form or this build. They are not
    skipped, because a skipped test counts as failed."""
    markers = [] if config.getoption("--long") else ["long"]
    program = pathlib.Path(config.getoption("--build")) / "bin/vornlaunch"
    if program.exists() and is_sanitized(program):
        markers.append("plain")
    if program.exists() and is_emulated(program):
        markers.append("native")
    left_out = [
        item for item in items if any(map(item.get_closest_marker, markers))
    ]
    items[:] = [item for item in items if item not in left_out]
    config.hook.pytest_deselected(items=left_out)


@pytest.fixture(scope="session", name="is_long")
def fixture_is_long(request):
    """Whether this is the long form of the reliability tests."""
    return request.config.getoption("--long")


@pytest.fixture(scope="session", name="program")
def fixture_program(request):
    """The path of the launcher under test."""
    program = pathlib.Path(request.config.getoption("--build")) / "bin/vornlaunch"
    if not program.exists():
        pytest.fail(f"{program} is missing; build it first")
    return program.resolve()


@pytest.fixture(scope="session", name="build")
def fixture_build(program):
    """The build directory."""
    return program.parent.parent


@pytest.fixture(scope="session", name="settings")
def fixture_settings(build):
    """CMake's settings of the build, by name."""
    text = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    return dict(re.findall(r"^(\w+):\w+=(.*)$", text, re.MULTILINE))


@pytest.fixture(scope="session", name="namespaces")
def fixture_namespaces():
    """Fails if namespaces cannot be created."""
    probe = subprocess.run(
        [*unshare_command(), "true"], capture_output=True, text=True, check=False
    )
    if probe.returncode != 0:
        pytest.skip(
            "no right to make a mount and pid namespace: " + probe.stderr.strip()
        )


@pytest.fixture(name="machine")
def fixture_machine(tmp_path, program, namespaces):  # pylint: disable=unused-argument
    """A machine that has not been started yet."""
    machine = Machine(tmp_path, program)
    yield machine
    machine.shut_down()


@pytest.fixture(name="shell")
def fixture_shell(machine, program):
    """A reader's shell in a machine that has an installation and no launcher."""
    subprocess.run(
        ["cmake", "--install", program.parent.parent, "--prefix", machine.install],
        stdout=subprocess.DEVNULL, check=True,
    )
    (machine.tmp / "home").mkdir()
    machine.start_without_launcher()
    path = "/tmp/install/bin:/usr/sbin:/usr/bin:/sbin:/bin"
    shell = Shell(machine, "/tmp/home", {
        "PATH": path, "CMAKE_PREFIX_PATH": "/tmp/install",
        "PKG_CONFIG_PATH": "/tmp/install/lib/pkgconfig",
    })
    yield shell
    shell.close()


@pytest.fixture(scope="session", name="architecture")
def fixture_architecture(program):
    """Debian's name of the architecture of the programs."""
    return {b"\x3e\0": "amd64", b"\xb7\0": "arm64"}[machine_of(program)]


@pytest.fixture(scope="session", name="debian_root")
def fixture_debian_root(architecture):
    """The directory of a Debian root for the programs, which tests do not change."""
    directory = ROOT / "build-packages" / f"root-{architecture}"
    if os.geteuid() != 0:
        pytest.skip("only root can use a Debian root")
    if not directory.exists():
        pytest.fail(f"{directory} is missing; ./test.sh --packages makes it")
    return directory


@pytest.fixture(name="debian")
def fixture_debian(tmp_path, debian_root, namespaces):  # pylint: disable=unused-argument
    """A private view of the Debian root."""
    mount_point = tmp_path / "debian"
    mount_point.mkdir()
    debian = DebianRoot(debian_root, mount_point)
    yield debian
    debian.close()
