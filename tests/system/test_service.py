"""The installed units of the service manager."""

import os
import re
import shutil
import subprocess

import pytest

UNITS = ["vornlaunch.service", "vornlaunch@.service"]


def run(*command):
    finished = subprocess.run(command, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, encoding="utf-8", check=False)
    return finished.returncode, finished.stdout


@pytest.fixture(name="root", scope="module")
def fixture_root(tmp_path_factory, program):
    """The root of a machine with an installation in it, and with the units of
    this machine's service manager."""
    root = tmp_path_factory.mktemp("root")
    build = program.parent.parent
    subprocess.run(["cmake", "--install", str(build)], check=True,
                   env={**os.environ, "DESTDIR": str(root)}, stdout=subprocess.DEVNULL)
    shutil.copytree("/lib/systemd/system", root / "usr/lib/systemd/system",
                    symlinks=True, dirs_exist_ok=True)
    # The units execute it.
    (root / "bin").mkdir(exist_ok=True)
    shutil.copy("/bin/sh", root / "bin/sh")
    return root


def installed(root, name):
    [path] = root.rglob(name)
    return path


@pytest.mark.parametrize("unit", UNITS)
def test_a_unit_is_valid_for_the_service_manager(root, unit):
    instance = unit.replace("@", "@robot")
    if instance != unit:
        installed(root, unit).with_name(instance).symlink_to(unit)
    assert run("systemd-analyze", "verify", f"--root={root}", "--man=no",
               instance) == (0, "")


@pytest.mark.parametrize("unit", UNITS)
def test_a_unit_checks_its_file_and_stops_the_launcher_first(root, unit):
    text = installed(root, unit).read_text(encoding="utf-8")
    setting = dict(re.findall(r"^(\w+)=(.*)$", text, re.M))
    file = "/etc/vornlaunch/" + ("%i" if "@" in unit else "launch") + ".yaml"
    script = re.fullmatch("/bin/sh -c '(.*)'", setting["ExecStart"])[1]
    assert re.fullmatch("if /.*/bin/vornctl -q ping --timeout 20s 2>/dev/null; then echo"
                        ' "<3>.*" >&2; exit 78; fi; '
                        f'/.*/bin/vornctl check "{file}" \\|\\| exit 78; '
                        f'exec /.*/bin/vornlaunch "{file}"', script)
    assert setting["RestartPreventExitStatus"] == "78"
    assert setting["SyslogIdentifier"] == "vornlaunch"
    assert ("Conflicts" in setting) == ("@" in unit)
    assert setting["KillMode"] == "mixed"
    assert int(setting["TimeoutStopSec"]) >= 300
    assert (setting["Restart"], setting["StartLimitBurst"]) == ("always", "5")
    assert (setting["PrivateTmp"], setting["SyslogLevelPrefix"]) == ("no", "yes")


def reviewed(root, unit):
    """The settings of a unit that the service manager's review reports as set."""
    status, said = run("systemd-analyze", "security", "--offline=true", "--no-pager",
                       f"--root={root}", unit)
    assert status == 0, said
    return {line.split()[1].rstrip("=") for line in said.splitlines()
            if line.startswith("✓")}


@pytest.mark.parametrize("unit", UNITS)
def test_a_unit_does_not_restrict_the_nodes(root, unit):
    """The settings that the service manager's review reports do not affect nodes."""
    default = installed(root, "vornlaunch.service").with_name("default.service")
    default.write_text("[Service]\nExecStart=/bin/true\n", encoding="utf-8")
    found = reviewed(root, unit.replace("@", "@robot"))
    assert found - reviewed(root, default.name) == set()


def test_the_cleaning_of_tmp_keeps_the_control_socket(root):
    rules = root / "etc/tmpfiles.d"
    rules.mkdir(parents=True)
    (rules / "all.conf").write_text("d /tmp 1777 - - 0\n", encoding="utf-8")
    directory = root / "tmp/vornlaunch"
    directory.mkdir(parents=True)
    (directory / "vornlaunch.sock").touch()
    (root / "tmp/other").touch()
    # systemd-tmpfiles also searches this directory for rules of /usr/local.
    run("systemd-tmpfiles", f"--root={root}", "--clean")
    assert not (root / "tmp/other").exists()
    assert (directory / "vornlaunch.sock").exists()
