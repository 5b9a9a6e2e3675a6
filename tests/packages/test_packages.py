"""The contents of the packages, and their effect on a machine that has nothing
else."""

import pathlib
import re
import shlex
import shutil
import signal
import subprocess

import pytest

from support.elf import ALL_PROTECTIONS, protections
from support.waiting import eventually

ROOT = pathlib.Path(__file__).resolve().parents[2]


def run(*command, **options):
    finished = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, encoding="utf-8",
        check=False, **options)
    assert finished.returncode == 0, finished.stdout
    return finished.stdout


def version():
    text = (ROOT / "debian/changelog").read_text(encoding="utf-8")
    return re.match(r"vornlaunch \((.*)\)", text)[1]


def field(path, name):
    return run("dpkg-deb", "--field", path, name).strip()


# -- The files.


def test_lintian_reports_nothing(built):
    [changes] = built.glob("*.changes")
    # Static-Built-Using is newer than this lintian. The compiler cuts texts into
    # pieces, in which lintian sees misspelled words; codespell reads the sources.
    said = run("lintian", "--allow-root", "--display-info", "--suppress-tags",
               "unknown-field,spelling-error-in-binary",
               "--fail-on", "error,warning,info", changes)
    assert said == ""


def test_the_launchers_package_depends_on_the_programs_that_it_runs(packages):
    depends = field(packages["vornlaunch"], "Depends").split(", ")
    assert {"procps", "grep", f"vornctl (= {version()})"} <= set(depends)


def test_the_launcher_depends_on_no_shared_library(packages):
    assert "lib" not in field(packages["vornlaunch"], "Depends")


@pytest.mark.parametrize(("package", "libraries"), [
    ("vornlaunch", ["glibc", "yaml-cpp"]), ("vornctl", ["ncurses", "yaml-cpp", "zlib"])])
def test_a_package_lists_the_libraries_that_it_contains(packages, package, libraries):
    built_using = field(packages[package], "Static-Built-Using")
    version = r" \(= [^ ]+\)"
    assert re.fullmatch(rf"gcc-[0-9]+(-cross)?{version}"
                        + "".join(f", {library}{version}" for library in libraries),
                        built_using)


@pytest.mark.parametrize(("package", "name"), [
    ("vornlaunch", "vornlaunch"), ("vornlaunch", "vornrun"), ("vornctl", "vornctl")])
def test_a_packaged_program_is_protected_by_its_elf_headers(contents, package, name):
    assert protections(contents[package] / "usr/bin" / name) == ALL_PROTECTIONS


def test_the_version_is_the_same_everywhere(packages, contents, built):
    assert {field(path, "Version") for path in packages.values()} == {version()}
    assert (built / f"vornctl-dbgsym_{version()}_{built.name}.deb").exists()
    for name in ("vornlib", "vornctl_client"):
        [described] = contents["libvornlib-dev"].rglob(f"{name}.pc")
        assert f"\nVersion: {version()}\n" in described.read_text(encoding="utf-8")
        [described] = contents["libvornlib-dev"].rglob(f"{name}-config-version.cmake")
        assert f'PACKAGE_VERSION "{version()}"' in described.read_text(encoding="utf-8")
    changes = (ROOT / "CHANGELOG.md").read_text(encoding="utf-8")
    assert re.search("^## ([0-9.]+)", changes, re.M)[1] == version()
    assert run(contents["vornctl"] / "usr/bin/vornctl", "--version") == (
        f"vornctl {version()}\n")


def documented_files():
    """(package, file) as in the table of the document."""
    text = (ROOT / "docs/install.md").read_text(encoding="utf-8")
    for package, holds in re.findall(r"^\| `([a-z-]+)` \|(.*)\|$", text, re.M):
        for file in re.findall("`/([^`]+)`", holds):
            yield package, file


@pytest.mark.parametrize("package, file", documented_files())
def test_a_package_contains_the_documented_files(package, file, contents):
    assert (contents[package] / file).exists()


def test_a_program_is_built_with_the_library(contents, tmp_path, settings):
    source = tmp_path / "user.cpp"
    source.write_text("""
#include <control_client.h>
#include <vornlib/path.h>
#include <iostream>

int main() {
  vorn::launch::ControlOptions options;
  options.socketPath = "/nonexistent/socket";
  std::cout << vorn::path::root() << ": "
            << vorn::launch::ControlClient(options).status("camera").message;
}
""", encoding="utf-8")
    [directory] = contents["libvornlib-dev"].rglob("pkgconfig")
    flags = run("pkg-config", "--cflags", "--libs", "vornctl_client", "vornlib",
                env={"PKG_CONFIG_LIBDIR": str(directory)}).split()
    run(settings["CMAKE_CXX_COMPILER"], "-std=c++17", source, *flags, "-o",
        tmp_path / "user")
    assert run(tmp_path / "user", env={"VORN_ROOT": "/opt/robot"}) == (
        "/opt/robot: no launcher is running: the socket /nonexistent/socket does not exist")


# -- The installation.


def settings(debian, unit):
    """The settings of a unit, by name."""
    text = debian.path(f"/lib/systemd/system/{unit}").read_text(encoding="utf-8")
    return dict(re.findall(r"^(\w+)=(.*)$", text, re.M))


class Service:
    """The launcher as the service manager would run it. Executes the commands of the
    document, some of them in a shell."""

    def __init__(self, debian):
        self._debian = debian
        self._setting = settings(debian, "vornlaunch.service")
        self._runs = debian.path("/run/launcher-runs")  # for `systemctl`
        self.launcher = None

    def follow(self, commands):
        """Returns the output of the last one."""
        said = None
        for command in commands:
            if command.startswith("systemctl "):
                said = self._follow_systemctl(command.split()[1:])
            else:
                said = self._debian.run("sh", "-ec", f"cd /root; {command}",
                                        of=self.launcher)
        return said

    def _follow_systemctl(self, words):
        assert words[-1] == "vornlaunch.service"
        if words[0] in ("stop", "restart") or words[:2] == ["disable", "--now"]:
            self.launcher.signal(signal.SIGTERM)
            assert self.launcher.wait() == 0
            self.launcher = None
            self._runs.unlink()
        if words[0] == "restart" or words[:2] == ["enable", "--now"]:
            self.start()

    def start(self):
        self.launcher = self._debian.start(*shlex.split(self._setting["ExecStart"]),
                                           stderr=subprocess.DEVNULL,
                                           stdout=subprocess.DEVNULL)
        eventually(lambda: "camera" in self.states(), "the launcher answers")
        self._runs.touch()

    def states(self):
        """The state of each node; none while the launcher does not answer."""
        said = self._debian.execute(
            "vornctl", "status", "--no-header", of=self.launcher).stdout
        return dict(re.findall(r"^([a-z]+) +(\S+(?: \S+)*)", said, re.M))


@pytest.fixture(name="service")
def fixture_service(installed, steps):
    """The demo runs as a service, by the steps of the document."""
    service = Service(installed)
    [last] = [i for i, step in enumerate(steps["Install"]) if "enable --now" in step]
    service.follow(steps["Install"][2:last + 1])
    return service


def told_systemctl(debian):
    """The commands that systemctl has received since the last call, without queries."""
    log = debian.path("/var/log/systemctl")
    told = log.read_text(encoding="utf-8").splitlines() if log.exists() else []
    log.write_text("", encoding="utf-8")
    return [line for line in told
            if not re.search("daemon-reload|is-enabled|is-active|procps", line)]


def test_the_installation_starts_and_enables_nothing(installed):
    assert told_systemctl(installed) == []
    assert "vornlaunch" not in installed.run("find", "/etc/systemd", "-type", "l")
    assert list(installed.path("/etc/vornlaunch").iterdir()) == []


def test_the_dependencies_of_the_packages_get_security_updates(installed):
    assert "/debian-security " in installed.run("apt-cache", "policy")


def test_the_demo_runs_as_a_service_by_the_steps_of_the_document(service):
    eventually(lambda: service.states().get("detector") == "running",
               "the detector runs")
    assert service.states()["camera"] == "running"
    service.follow(["systemctl stop vornlaunch.service"])


def test_the_document_has_all_steps_from_the_installation_to_the_stop(steps):
    programs = [command.split()[0] for command in steps["Install"]]
    assert programs == ["apt-get", "apt-get", "cp", "sed", "vornctl", "vornctl",
                        "systemctl", "vornctl", "systemctl"]


def newer(path, directory):
    """A package that differs from this one only in its version."""
    unpacked = directory / path.stem
    run("dpkg-deb", "--raw-extract", path, unpacked)
    control = unpacked / "DEBIAN/control"
    text = control.read_text(encoding="utf-8")
    text = re.sub(rf"(^Version: |vornctl \(= ){re.escape(version())}", r"\g<1>99.0",
                  text, flags=re.M)
    control.write_text(text, encoding="utf-8")
    return run("dpkg-deb", "--root-owner-group", "--build", unpacked, directory)


def test_an_upgrade_does_not_touch_the_launcher_its_nodes_or_its_file(
        service, installed, packages, steps, tmp_path):
    launch_file = installed.path("/etc/vornlaunch/launch.yaml")
    before = launch_file.read_bytes()
    told_systemctl(installed)
    installed.run("sh", "-ec", "rm /root/*.deb")
    for name in ("vornlaunch", "vornctl"):
        newer(packages[name], tmp_path)
    for path in tmp_path.glob("*_99.0_*.deb"):
        installed.path(f"/root/{path.name}").write_bytes(path.read_bytes())
    install, restart = steps["Upgrade"]
    service.follow([install])
    assert installed.run("dpkg-query", "-W", "-f", "${Version}", "vornlaunch") == "99.0"
    assert told_systemctl(installed) == []
    assert not service.launcher.has_ended
    assert service.states()["camera"] == "running"
    assert launch_file.read_bytes() == before
    service.follow([restart])
    assert service.states()["camera"] == "running"


def test_the_removal_stops_every_launcher_and_keeps_the_launch_files(
        service, installed, steps):
    told_systemctl(installed)
    service.follow(steps["Remove"])
    assert told_systemctl(installed) == [
        "stop vornlaunch-metrics.timer vornlaunch.service vornlaunch@*.service"]
    assert installed.path("/etc/vornlaunch/launch.yaml").exists()
    assert not installed.path("/usr/bin/vornlaunch").exists()


# The files of the package tools.
KEPT = re.compile("/(proc|root|run|tmp|var/cache|var/lib/(apt|dpkg)|var/log)(/|$)")


def files(debian):
    return {path for path in debian.run("find", "/", "-xdev").splitlines()
            if not KEPT.match(path)}


def test_a_purge_removes_every_file(debian, installed):
    installed.run("apt-get", "purge", "--autoremove", "vornlaunch", "vornctl",
                  "libvornlib-dev")
    assert files(installed) - files(debian) == {
        "/etc/apt/apt.conf.d/unattended", "/usr/bin/systemctl"}


# -- The long form, after ./package.sh --check has built the packages.


@pytest.mark.long
def test_the_packages_need_only_their_build_dependencies_to_be_built_and_tested(debian):
    tracked = run("git", "-C", ROOT, "ls-files", "-z").split("\0")[:-1]
    for file in tracked:
        target = debian.path(f"/root/source/{file}")
        target.parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(ROOT / file, target)
    debian.run("apt-get", "update", network=True)
    debian.run("apt-get", "install", "-y", "--no-install-recommends",
               "build-essential", network=True)
    debian.run("sh", "-ec", "cd /root/source; exec apt-get build-dep -y ./",
               network=True)
    said = debian.run("sh", "-ec", "cd /root/source; exec dpkg-buildpackage -b -us -uc",
                      timeout=3600.0)
    assert re.search(r"100% tests passed, 0 tests failed out of \d{3,}", said)
    assert len(list(debian.path("/root").glob("*.deb"))) == 5


@pytest.fixture(name="rpm")
def fixture_rpm():
    [path] = (ROOT / "build-packages/rpm").glob("*.rpm")
    return path


# Files that Debian has in another place or form, or that only Debian has.
ELSEWHERE = [("^/lib/systemd/", "/usr/lib/systemd/"), (r"^(.*/man/.*)\.gz$", r"\1"),
             ("^/usr/lib/[a-z0-9_]+-linux-gnu/", "/usr/lib64/")]
DEBIANS_OWN = re.compile("/usr/share/(lintian/|doc/.*/(changelog.gz|copyright)$)")


@pytest.mark.long
def test_the_rpm_contains_the_files_of_the_debian_packages(rpm, contents, tmp_path):
    expected = {"/usr/share/doc/vornlaunch/LICENSE"}
    for directory in contents.values():
        for path in directory.rglob("*"):
            name = "/" + str(path.relative_to(directory))
            if path.is_dir() or DEBIANS_OWN.match(name):
                continue
            for pattern, there in ELSEWHERE:
                name = re.sub(pattern, there, name)
            expected.add(name)
    run("sh", "-c", f"rpm2cpio {rpm} | cpio --extract --make-directories --quiet",
        cwd=tmp_path)
    unpacked = {"/" + str(path.relative_to(tmp_path))
                for path in tmp_path.rglob("*") if not path.is_dir()}
    assert unpacked == expected
    assert run(tmp_path / "usr/bin/vornctl", "--version") == f"vornctl {version()}\n"


@pytest.mark.long
def test_the_rpm_has_the_same_version_and_the_dependencies_of_the_launcher(rpm):
    requires = run("rpm", "-qp", "--requires", rpm).splitlines()
    assert {"procps-ng", "grep"} <= set(requires)
    assert "/usr/bin/pkg-config" not in requires
    assert run("rpm", "-qp", "--queryformat", "%{version}", rpm) == version()
