"""vornctl import: its result is a launch file; tools/vornctl/tests tests the formats."""

import pathlib
import subprocess

import pytest

UNITS = pathlib.Path("/lib/systemd/system")
SAMPLES = pathlib.Path(__file__).parents[1] / "import"


@pytest.fixture(name="vornctl")
def fixture_vornctl(program):
    def run(*arguments, text=None):
        return subprocess.run(
            [program.with_name("vornctl"), *arguments], input=text, timeout=60,
            capture_output=True, check=False, encoding="utf-8")

    return run


def check_import(vornctl, kind, *files):
    """Checks the launch file for these files without a message; returns it."""
    imported = vornctl("import", kind, *files)
    assert (imported.stderr, imported.returncode) == ("", 0)
    checked = vornctl("check", "-", text=imported.stdout)
    assert (checked.stdout, checked.stderr, checked.returncode) == ("", "", 0)
    return imported.stdout


def test_vornctl_check_accepts_the_imported_units_of_real_servers(vornctl):
    units = [UNITS / f"{name}.service" for name in ("nginx", "redis-server", "mosquitto")]
    if not all(unit.exists() for unit in units):
        pytest.skip("install redis-server, nginx and mosquitto")
    check_import(vornctl, "systemd", *units)


@pytest.mark.parametrize(("kind", "file", "node"), [
    ("systemd", "ssh.service", "ssh"),
    ("supervisord", "supervisord.conf", "theprogramname"),
])
def test_vornctl_check_accepts_the_imported_samples(vornctl, kind, file, node):
    assert f"\n  {node}:\n" in check_import(vornctl, kind, SAMPLES / file)


def test_a_file_of_another_format_is_an_error_that_names_its_line(vornctl):
    failed = vornctl("import", "supervisord", "-", text="[program:x]\nnothing\n")
    assert failed.stdout == ""
    assert failed.stderr == (
        "vornctl: <stdin>:2: expected KEY=VALUE or [SECTION], found 'nothing'\n")
    assert failed.returncode == 2
