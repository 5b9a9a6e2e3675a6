"""The programs that the build produces."""

import os
import pathlib
import re
import shutil
import subprocess

import pytest
from support.elf import ALL_PROTECTIONS, protections

ROOT = pathlib.Path(__file__).parents[2]
PROGRAMS = ["vornlaunch", "vornctl", "vornrun"]
COMPILER_WITHOUT_STATIC_LIBRARY = """#!/bin/sh
for option; do
  if [ "$option" = -static-pie ]; then
    echo 'ld: cannot find -lstdc++: No such file or directory' >&2
    exit 1
  fi
done
exec c++ "$@"
"""


@pytest.mark.plain  # a sanitized program is not hardened
@pytest.mark.parametrize("name", PROGRAMS)
def test_a_program_is_protected_by_its_elf_headers(program, name):
    assert protections(program.with_name(name)) == ALL_PROTECTIONS


@pytest.mark.plain  # as above
@pytest.mark.parametrize("name", PROGRAMS)
def test_a_program_guards_its_stack_and_checks_the_sizes_of_buffers(
        program, name, settings):
    symbols = subprocess.run(
        ["nm", program.with_name(name)], check=True, stdout=subprocess.PIPE,
        encoding="utf-8").stdout
    assert "__stack_chk_fail" in symbols
    if settings["CMAKE_BUILD_TYPE"] != "Debug":
        assert re.search(r"__(v?f?printf|v?snprintf|read|memcpy)_chk", symbols)


@pytest.mark.plain  # Clang's sanitizer puts data before the first instruction
@pytest.mark.parametrize("name", PROGRAMS)
def test_functions_of_a_program_begin_with_a_target_for_indirect_branches(
        program, name, settings):
    code = subprocess.run(
        [settings["CMAKE_OBJDUMP"], "--disassemble=main", program.with_name(name)],
        check=True, stdout=subprocess.PIPE, encoding="utf-8").stdout
    assert re.search(r"<main>:\n[^\n]*\b(endbr64|paciasp|bti)\b", code)


def configure(tmp_path, *options):
    """Configures the launcher; returns the output of CMake."""
    return subprocess.run(
        ["cmake", "-S", ROOT, "-B", tmp_path / "build", "-DVORN_VORNCTL=OFF",
         "-DBUILD_TESTING=OFF", *options], check=True, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, encoding="utf-8",
        env={**os.environ, "CXX": ""}).stdout


def link_command(tmp_path):
    path = tmp_path / "build/tools/vornlaunch/CMakeFiles/vornlaunch.dir/link.txt"
    return path.read_text(encoding="utf-8")


@pytest.mark.native
@pytest.mark.plain  # does not depend on the build under test
def test_without_a_static_library_the_launcher_is_linked_dynamically(tmp_path):
    compiler = tmp_path / "c++"
    compiler.write_text(COMPILER_WITHOUT_STATIC_LIBRARY, encoding="utf-8")
    compiler.chmod(0o755)
    output = configure(tmp_path, f"-DCMAKE_CXX_COMPILER={compiler}")
    assert ("-- a static program cannot be linked (ld: cannot find -lstdc++: No such"
            " file or directory): the launcher is linked dynamically\n") in output
    assert "-static-pie" not in link_command(tmp_path)


@pytest.fixture(name="prefix")
def fixture_prefix(tmp_path):
    """A prefix of its own in which yaml-cpp is installed."""
    prefix = tmp_path / "prefix"
    [config] = pathlib.Path("/usr/lib").glob("*/cmake/yaml-cpp/yaml-cpp-config.cmake")
    libraries = config.parents[2]
    target = prefix / libraries.relative_to("/usr")
    shutil.copytree(config.parent, target / "cmake/yaml-cpp")
    for library in libraries.glob("libyaml-cpp.*"):
        shutil.copy2(library, target, follow_symlinks=False)
    shutil.copytree("/usr/include/yaml-cpp", prefix / "include/yaml-cpp")
    return prefix


@pytest.mark.native
@pytest.mark.plain  # does not depend on the build under test
def test_the_static_launcher_uses_yaml_cpp_from_a_separate_prefix(
        tmp_path, prefix):
    configure(tmp_path, f"-DCMAKE_PREFIX_PATH={prefix}")
    [archive] = prefix.glob("lib/*/libyaml-cpp.a")
    assert "-static-pie" in link_command(tmp_path)
    assert str(archive) in link_command(tmp_path)
    # A static PIE with a run path crashes at its start on arm64.
    assert "-rpath," not in link_command(tmp_path)


@pytest.mark.native
@pytest.mark.plain  # does not depend on the build under test
def test_without_the_static_yaml_cpp_the_launcher_is_linked_dynamically(
        tmp_path, prefix):
    [archive] = prefix.glob("lib/*/libyaml-cpp.a")
    archive.unlink()
    output = configure(tmp_path, f"-DCMAKE_PREFIX_PATH={prefix}")
    assert (f"-- {archive} is missing: the launcher is linked dynamically\n") in output
    assert "-static-pie" not in link_command(tmp_path)
