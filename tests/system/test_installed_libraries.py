"""The installed libraries as other projects find them."""

import os
import pathlib
import re
import subprocess

import pytest

# One process runs these tests, so that it makes each installation once.
pytestmark = [
    pytest.mark.xdist_group("installed libraries"),
    pytest.mark.plain,  # it tests the files for the compiler
]

# For each library, a program that uses it, and the program's output.
PROGRAMS = {
    "vornctl_client": ("""
#include <control_client.h>
#include <iostream>

int main() {
  vorn::launch::ControlOptions options;
  options.socketPath = "/nonexistent/socket";
  const auto reply = vorn::launch::ControlClient(options).status("camera");
  std::cout << reply.message;
}
""", "no launcher is running: the socket /nonexistent/socket does not exist"),
    "vornlib": ("""
#include <vornlib/path.h>
#include <vornlib/trace.h>

int main() {
  vorn::setNodeName("user");
  VTRACE(vorn::kInfo, vorn::kPlain, "the root is %s", vorn::path::root().c_str());
}
""", r".* INFO  user\[\d+\] user.cpp:7 main: the root is /opt/robot\n"),
}

CMAKE_PROJECT = """
cmake_minimum_required(VERSION 3.25)
project(user CXX)
find_package({library} 0.1 REQUIRED)
add_executable(user user.cpp)
target_link_libraries(user PRIVATE vorn::{library})
"""


def run(*command, **environment):
    finished = subprocess.run(
        command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
        env={**os.environ, **environment}, encoding="utf-8", check=False,
    )
    assert finished.returncode == 0, finished.stdout
    return finished.stdout


@pytest.fixture(scope="module", name="configure")
def fixture_configure(settings):
    """CMake with the options to build for the same architecture."""
    toolchain = settings.get("CMAKE_TOOLCHAIN_FILE")
    return ["cmake", *([f"-DCMAKE_TOOLCHAIN_FILE={toolchain}"] if toolchain else [])]


@pytest.fixture(name="library", params=PROGRAMS)
def fixture_library(request):
    return request.param


@pytest.fixture(name="project")
def fixture_project(tmp_path, library):
    """The directory of a project that uses the library."""
    (tmp_path / "user.cpp").write_text(PROGRAMS[library][0], encoding="utf-8")
    (tmp_path / "CMakeLists.txt").write_text(
        CMAKE_PROJECT.format(library=library), encoding="utf-8")
    return tmp_path


def does_its_work(user, library):
    """Checks the output of the program that uses the library."""
    said = run(str(user), VORN_ROOT="/opt/robot")
    return re.fullmatch(PROGRAMS[library][1], said)


@pytest.fixture(scope="module", name="prefix", params=[
    "lib", "lib of this machine"])
def fixture_prefix(request, tmp_path_factory, build, configure, settings):
    """An installation that has been moved."""
    tmp_path = tmp_path_factory.mktemp("prefix")
    if request.param == "lib":
        made = tmp_path / "made"
        run("cmake", "--install", str(build), "--prefix", str(made))
        return made.rename(tmp_path / "moved")
    # Another name of the library directory needs another configuration.
    source = pathlib.Path(__file__).resolve().parents[2]
    machine = run(settings["CMAKE_CXX_COMPILER"], "-print-multiarch").strip()
    other = tmp_path / "build"
    run(*configure, "-S", str(source), "-B", str(other), "-DBUILD_TESTING=OFF",
        "-DVORN_VORNCTL=OFF", f"-DCMAKE_INSTALL_LIBDIR=lib/{machine}")
    run("cmake", "--build", str(other), "--target", *PROGRAMS)
    made = tmp_path / "made"
    for directory in ("include", "libvornclient", "libvornlib"):
        run("cmake", "--install", str(other / directory), "--prefix", str(made))
    return made.rename(tmp_path / "moved")


def test_a_cmake_project_finds_the_library(
        project, prefix, library, configure):
    user = str(project / "user-build")
    run(*configure, "-S", str(project), "-B", user, f"-DCMAKE_PREFIX_PATH={prefix}")
    run("cmake", "--build", user)
    assert does_its_work(f"{user}/user", library)


def test_pkg_config_finds_the_library(
        project, prefix, library, settings):
    directory = next(prefix.rglob(f"{library}.pc")).parent
    flags = run("pkg-config", "--cflags", "--libs", library,
                PKG_CONFIG_PATH=str(directory)).split()
    user = str(project / "user")
    run(settings["CMAKE_CXX_COMPILER"], "-std=c++17", str(project / "user.cpp"), *flags,
        "-o", user)
    assert does_its_work(user, library)
