"""The client library as other projects find it once it is installed."""

import os
import pathlib
import subprocess

import pytest

PROGRAM = """
#include <control_client.h>
#include <iostream>

int main() {
  vorn::launch::ControlOptions options;
  options.socketPath = "/nonexistent/socket";
  const auto reply = vorn::launch::ControlClient(options).status("camera");
  std::cout << reply.message;
}
"""
OUTPUT = "no launcher is running: there is no socket /nonexistent/socket"

CMAKE_PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(user CXX)
find_package(vornctl_client 0.1 REQUIRED)
add_executable(user user.cpp)
target_link_libraries(user PRIVATE vorn::vornctl_client)
"""


def run(*command, **environment):
    finished = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        env={**os.environ, **environment}, encoding="utf-8", check=False,
    )
    assert finished.returncode == 0, finished.stdout
    return finished.stdout


@pytest.fixture(name="project")
def fixture_project(tmp_path):
    """The folder of a project that uses the library."""
    (tmp_path / "user.cpp").write_text(PROGRAM, encoding="utf-8")
    (tmp_path / "CMakeLists.txt").write_text(CMAKE_PROJECT, encoding="utf-8")
    return tmp_path


@pytest.fixture(name="prefix", params=["lib", "lib/x86_64-linux-gnu"])
def fixture_prefix(request, tmp_path, program):
    """An installation that has been moved since."""
    build = program.parent.parent
    if request.param == "lib":
        made = tmp_path / "made"
        run("cmake", "--install", str(build), "--prefix", str(made))
        return made.rename(tmp_path / "moved")
    # A folder of libraries of another name needs another configuration.
    source = pathlib.Path(__file__).resolve().parents[2]
    other = tmp_path / "build"
    run("cmake", "-S", str(source), "-B", str(other), "-DBUILD_TESTING=OFF",
        "-DVORN_VORNCTL=OFF", f"-DCMAKE_INSTALL_LIBDIR={request.param}")
    run("cmake", "--build", str(other), "--target", "vornctl_client")
    made = tmp_path / "made"
    run("cmake", "--install", str(other / "tools/vornctl"), "--prefix", str(made))
    return made.rename(tmp_path / "moved")


def sanitizers(program):
    """What a program needs to link a sanitized library."""
    if b"__asan_init" in program.read_bytes():
        return "-fsanitize=address,undefined"
    return ""


def test_a_cmake_project_finds_the_library(project, prefix, program):
    build = str(project / "user-build")
    run("cmake", "-S", str(project), "-B", build, f"-DCMAKE_PREFIX_PATH={prefix}",
        f"-DCMAKE_EXE_LINKER_FLAGS={sanitizers(program)}")
    run("cmake", "--build", build)
    assert run(f"{build}/user") == OUTPUT


def test_pkg_config_finds_the_library(project, prefix, program):
    folder = next(prefix.rglob("vornctl_client.pc")).parent
    flags = run("pkg-config", "--cflags", "--libs", "vornctl_client",
                PKG_CONFIG_PATH=str(folder)).split()
    user = str(project / "user")
    run("c++", "-std=c++17", str(project / "user.cpp"), *flags,
        *sanitizers(program).split(), "-o", user)
    assert run(user) == OUTPUT
