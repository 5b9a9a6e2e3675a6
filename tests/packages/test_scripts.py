"""The errors of package.sh and test.sh, and the packages that package.sh builds."""

import os
import pathlib
import shutil
import subprocess
import sys

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]

# Packs the names of the files in the tree to build.
BUILDER = """#!/bin/sh
find . -type f | sort >../one_1.deb
"""

FAILING_BUILDER = """#!/bin/sh
echo new >../one_1.deb
echo new >../two_1.deb
echo no space
exit 1
"""


# -- On a minimal machine.


@pytest.fixture(name="bare")
def fixture_bare(debian):
    """A Debian with the scripts and nothing else."""
    for file in ("package.sh", "test.sh", "scripts/common.sh"):
        target = debian.path(f"/srv/{file}")
        target.parent.mkdir(exist_ok=True)
        shutil.copy(ROOT / file, target)
    return debian


@pytest.mark.parametrize("script, options, said", [
    ("package.sh", ["--rpm", "--check"],
     "--check makes the rpm as well; it does not go with --rpm"),
    ("package.sh", ["--arch", "m68k"], "no packages for 'm68k'; see "),
    ("test.sh", ["--packages", "--preset", "asan"],
     "--packages are for the presets release and arm64 alone"),
    ("test.sh", ["--packages", "--unit", "--preset", "coverage"],
     "--packages are for the presets release and arm64 alone"),
    ("test.sh", ["--all", "--allow-skips"],
     "--all leaves nothing to choose; see ./test.sh --help"),
])
def test_impossible_requests_are_refused_at_once(script, options, said, bare):
    done = bare.execute(f"/srv/{script}", *options)
    assert done.stdout.startswith(f"{script}: {said}")
    assert done.returncode == 2


def test_without_root_the_check_does_not_start(bare):
    done = bare.execute("setpriv", "--reuid=65534", "--regid=65534", "--clear-groups",
                        "/srv/package.sh", "--check")
    assert done.stdout == "package.sh: --check needs root\n"
    assert done.returncode == 2


def test_without_dpkg_the_help_works_and_an_error_has_the_reason(bare):
    bare.path("/usr/bin/dpkg").unlink()
    assert bare.run("/srv/package.sh", "--help").startswith("Usage: ./package.sh")
    done = bare.execute("/srv/package.sh")
    assert done.stdout.startswith("package.sh: dpkg is missing: ")
    assert done.returncode == 2


# -- With a fake builder.


class Checkout:
    """A checkout of the script, with another builder."""

    def __init__(self, directory):
        self.directory = directory / "checkout"
        self._builder = directory / "bin/dpkg-buildpackage"
        self._builder.parent.mkdir()
        for file in ("package.sh", "scripts/common.sh", "README.md"):
            (self.directory / file).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(ROOT / file, self.directory / file)
        self.git("init", "--quiet")
        self.git("add", ".")

    def git(self, *command):
        subprocess.run(["git", "-C", self.directory, *command],
                       stdout=subprocess.DEVNULL, check=True)

    def build(self, builder):
        """Returns the exit status and the output."""
        self._builder.write_text(builder, encoding="ascii")
        self._builder.chmod(0o755)
        path = f"{self._builder.parent}:{os.environ['PATH']}"
        done = subprocess.run(
            [self.directory / "package.sh"], stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT, encoding="utf-8", check=False,
            env={**os.environ, "PATH": path, "GIT_CONFIG_GLOBAL": "/dev/null"})
        return done.returncode, done.stdout

    def built(self):
        """The text of each package that was built, by its name."""
        return {path.name: path.read_text(encoding="utf-8")
                for path in self.directory.glob("build-packages/*/*.deb")
                if path.parent.suffix != ".new"}


@pytest.fixture(name="checkout")
def fixture_checkout(tmp_path):
    return Checkout(tmp_path)


def test_the_packages_are_built_from_tracked_files_as_they_are_now(checkout):
    (checkout.directory / "new").touch()
    (checkout.directory / "untracked").touch()
    checkout.git("add", "new")
    status, said = checkout.build(BUILDER)
    assert status == 0, said
    assert checkout.built() == {
        "one_1.deb": "./README.md\n./new\n./package.sh\n./scripts/common.sh\n"}
    (checkout.directory / "new").unlink()
    status, said = checkout.build(BUILDER)
    assert status == 0, said
    assert "./new\n" not in checkout.built()["one_1.deb"]


def test_a_build_that_fails_leaves_the_packages_of_the_last_one(checkout):
    checkout.build(BUILDER)
    before = checkout.built()
    assert list(before) == ["one_1.deb"]
    status, said = checkout.build(FAILING_BUILDER)
    assert status == 2
    assert "no space\npackage.sh: the packages could not be built; " in said
    log = pathlib.Path(said.split()[-1])
    assert log.read_text(encoding="utf-8") == "no space\n"
    assert checkout.built() == before


def test_an_error_of_git_is_printed(checkout):
    if os.geteuid() != 0:
        pytest.skip("only root can give a directory to another user")
    os.chown(checkout.directory, 65533, 65533)
    os.chown(checkout.directory / ".git", 65533, 65533)
    status, said = checkout.build(BUILDER)
    assert status == 2
    assert "dubious ownership" in said
    assert not (checkout.directory / "build-packages").exists()


# -- The counts at the end of test.sh.


@pytest.mark.parametrize("outcome, options, status", [
    ("", [], 0),
    ("<skipped message='no tmux'/>", [], 1),
    ("<skipped message='no tmux'/>", ["--allow-skips"], 0),
    ("<failure/>", ["--allow-skips"], 1),
])
def test_a_run_fails_when_a_test_fails_or_is_skipped_unless_allowed(
    outcome, options, status, tmp_path
):
    (tmp_path / "1.xml").write_text(
        f"<testsuite><testcase/><testcase>{outcome}</testcase></testsuite>",
        encoding="ascii")
    done = subprocess.run(
        [sys.executable, ROOT / "scripts/count_tests.py", *options, tmp_path],
        capture_output=True, encoding="utf-8", check=False)
    assert done.returncode == status
    assert ("no tmux" in done.stderr) == ("no tmux" in outcome)
