"""Fixtures of the tests of the packages."""

import pathlib
import re
import subprocess

import pytest

from support.debian_root import DebianRoot

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Answers that no unit is enabled or active, except the launcher's while a certain file
# exists, and records its arguments.
SYSTEMCTL = """#!/bin/sh
echo "$*" >>/var/log/systemctl
case $* in
  *is-enabled*vornlaunch.service) test -e /run/launcher-runs && echo enabled ;;
  *is-active*vornlaunch.service) test -e /run/launcher-runs ;;
  *is-enabled* | *is-active*) exit 1 ;;
esac
"""


@pytest.fixture(scope="session", name="built")
def fixture_built(architecture):
    """The directory of the packages."""
    directory = ROOT / "build-packages" / architecture
    if not list(directory.glob("*.deb")):
        pytest.fail(f"no packages in {directory}; ./package.sh builds them")
    return directory


@pytest.fixture(scope="session", name="packages")
def fixture_packages(built):
    """The files of the packages without debug symbols, by the package's name."""
    found = {path.name.split("_")[0]: path for path in sorted(built.glob("*.deb"))
             if "-dbgsym_" not in path.name}
    assert list(found) == ["libvornlib-dev", "vornctl", "vornlaunch"]
    return found


@pytest.fixture(scope="session", name="contents")
def fixture_contents(packages, tmp_path_factory):
    """A directory with the contents of each package, by the package's name."""
    directory = tmp_path_factory.mktemp("contents")
    for name, path in packages.items():
        subprocess.run(["dpkg-deb", "-x", path, directory / name], check=True)
    return {name: directory / name for name in packages}


@pytest.fixture(scope="session", name="steps")
def fixture_steps():
    """The commands of docs/install.md, a list for each heading."""
    text = (ROOT / "docs/install.md").read_text(encoding="utf-8")
    steps = {}
    for section in re.split("^## ", text, flags=re.M)[1:]:
        blocks = re.findall(r"^```sh\n(.*?)^```", section, re.M | re.S)
        steps[section.split("\n")[0]] = "".join(blocks).splitlines()
    return steps


@pytest.fixture(scope="session", name="installed_root")
def fixture_installed_root(packages, steps, tmp_path_factory, debian_root,
                           namespaces):  # pylint: disable=unused-argument
    """A Debian in which the packages are installed as the document says, and which
    seems to have been started by systemd."""
    debian = DebianRoot(debian_root, tmp_path_factory.mktemp("installed"))
    debian.path("/run/systemd/system").mkdir(parents=True)
    systemctl = debian.path("/usr/bin/systemctl")
    systemctl.write_text(SYSTEMCTL, encoding="ascii")
    systemctl.chmod(0o755)
    debian.path("/etc/apt/apt.conf.d/unattended").write_text(
        'APT::Get::Assume-Yes "yes";\n', encoding="ascii")
    for path in packages.values():
        debian.path(f"/root/{path.name}").write_bytes(path.read_bytes())
    update, install = steps["Install"][:2]
    assert install.startswith("apt-get install -y ./vornlaunch_")
    debian.run("sh", "-ec", f"cd /root; {update}; {install} ./libvornlib-dev_*.deb",
               network=True)
    yield debian
    debian.close()


@pytest.fixture(name="installed")
def fixture_installed(installed_root):
    """A private view of a Debian in which the packages are installed."""
    debian = installed_root.view()
    yield debian
    debian.close()
