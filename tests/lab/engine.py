"""A podman whose images and containers are in one directory."""

import os
import pathlib
import re
import shlex
import shutil
import subprocess
import zlib

ROOT = pathlib.Path(__file__).resolve().parents[2]

# crun does not support a mixture of both versions of cgroups. By default
# podman raises limits, which needs CAP_SYS_RESOURCE.
SETTINGS = """[containers]
default_ulimits = ["nofile=1024:4096", "nproc=1024:4096"]
netns = "none"
[engine]
cgroup_manager = "cgroupfs"
events_logger = "file"
runtime = "runc"
"""


class Engine:
    """Runs commands of the documents, in which `podman` is this one. Containers have no
    network; builds have that of this machine for its package servers."""

    def __init__(self, storage):
        # A short path, because sockets are in it; the storage refuses another one.
        directory = pathlib.Path(f"/run/lab-{zlib.crc32(bytes(storage)):08x}")
        bin_directory = directory / "bin"
        bin_directory.mkdir(parents=True, exist_ok=True)
        settings = directory / "containers.conf"
        settings.write_text(SETTINGS, "utf-8")
        wrapper = bin_directory / "podman"
        wrapper.write_text(
            '#!/bin/sh\ncommand=$1\nshift\n'
            'if [ "$command" = build ]; then set -- --network host "$@"; fi\n'
            f'exec {shutil.which("podman")} --root {shlex.quote(str(storage))} '
            f'--runroot {directory}/run "$command" "$@"\n', "utf-8")
        wrapper.chmod(0o755)
        self.environment = {
            **os.environ, "CONTAINERS_CONF": str(settings),
            "DISABLE_HC_SYSTEMD": "true",  # this machine may run without systemd
            "PATH": f"{bin_directory}:{os.environ['PATH']}"}

    def shell(self, command, cwd=ROOT, check=True, timeout=3600):
        """Runs a shell command; returns what subprocess.run() does."""
        done = subprocess.run(
            ["sh", "-ec", command], cwd=cwd, env=self.environment, timeout=timeout,
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
            encoding="utf-8", errors="replace", check=False)
        assert not check or done.returncode == 0, (
            f"{command}: exit status {done.returncode}\n"
            f"{done.stdout[-3000:]}{done.stderr[-3000:]}")
        return done

    def podman(self, *arguments, **options):
        return self.shell(shlex.join(["podman", *map(str, arguments)]), **options)

    def output(self, *arguments):
        return self.podman(*arguments).stdout.strip()

    def inspect(self, container, template):
        return self.output("inspect", "--format", template, container)

    def close(self):
        self.podman("rm", "--all", "--force", "--time", "1", check=False)


def documented(language, text):
    """The only block of this language in docs/containers.md with this text."""
    document = (ROOT / "docs/containers.md").read_text(encoding="utf-8")
    [block] = [block for block in re.findall(rf"^```{language}\n(.*?)^```", document,
                                             re.M | re.S) if text in block]
    return block
