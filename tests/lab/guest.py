"""A virtual machine that runs Debian with systemd."""

import contextlib
import json
import pathlib
import shlex
import signal
import socket
import subprocess

from support.waiting import eventually

ROOT = pathlib.Path(__file__).resolve().parents[2]
LAUNCH_FILE = {"vornnode": {
    "camera": {"path": "/opt/robot/camera"},
    "planner": {"path": "/opt/robot/planner", "required": ["camera"]},
}}

# An emulated processor on a loaded machine is slow; the limits only end a hang.
BOOT_LIMIT = 600
COMMAND_LIMIT = 300


def free_port():
    with socket.socket() as probe:
        probe.bind(("127.0.0.1", 0))
        return probe.getsockname()[1]


# The emulator and the console of each architecture.
MACHINES = {
    "amd64": (["qemu-system-x86_64", "-accel", "tcg", "-cpu", "max"], "ttyS0"),
    "arm64": (["qemu-system-aarch64", "-machine", "virt", "-cpu", "cortex-a57"],
              "ttyAMA0"),
}


def packages(arch="amd64"):
    """The files of the packages without debug symbols, except for the library."""
    return [path for path in sorted((ROOT / "build-packages" / arch).glob("vorn*.deb"))
            if "-dbgsym_" not in path.name]


class Guest:
    """A machine whose disk has `base` as its read-only lower layer. `image` is the
    directory that scripts/lab_image.sh creates for `arch`; `directory` receives the
    disk and the output of the console."""

    def __init__(self, image, base, directory, arch="amd64"):
        self._emulator, self._tty = MACHINES[arch]
        self.image = pathlib.Path(image)
        self.directory = pathlib.Path(directory)
        self.directory.mkdir(parents=True, exist_ok=True)
        self.disk = self.directory / "disk.qcow2"
        self.console = self.directory / "console.log"
        self._port = free_port()
        self._process = None
        subprocess.run(["qemu-img", "create", "-q", "-f", "qcow2", "-F", "qcow2", "-b",
                        str(base), str(self.disk)], check=True)

    def boot(self):
        """Starts the machine and waits for its ssh server."""
        self.start()
        self.wait_for_ssh()
        return self

    def start(self):
        with self.console.open("ab") as console:
            self._process = subprocess.Popen(  # pylint: disable=consider-using-with
                [*self._emulator, "-smp", "2",
                 "-m", "1024", "-nodefaults", "-display", "none", "-serial", "stdio",
                 "-kernel", str(self.image / "vmlinuz"),
                 "-initrd", str(self.image / "initrd.img"),
                 "-append", f"console={self._tty} quiet",
                 "-drive", f"file={self.disk},if=virtio,format=qcow2",
                 "-netdev", f"user,id=n,hostfwd=tcp:127.0.0.1:{self._port}-:22",
                 "-device", "virtio-net-pci,netdev=n",
                 "-device", "virtio-rng-pci"],
                stdin=subprocess.DEVNULL, stdout=console, stderr=subprocess.STDOUT)

    def wait_for_ssh(self):
        eventually(self._answers, f"the machine answers by ssh; see {self.console}",
                   BOOT_LIMIT)

    def ansible_variables(self):
        """How Ansible connects to the machine."""
        return {"ansible_host": "127.0.0.1", "ansible_port": self._port,
                "ansible_user": "root",
                "ansible_ssh_private_key_file": str(self.image / "key"),
                "ansible_ssh_common_args": "-o UserKnownHostsFile=/dev/null"}

    def _ssh(self, program="ssh"):
        return [program, "-q", "-i", str(self.image / "key"),
                "-P" if program == "scp" else "-p", str(self._port),
                "-o", "StrictHostKeyChecking=no", "-o", "UserKnownHostsFile=/dev/null",
                "-o", "BatchMode=yes", "-o", "ConnectTimeout=20",
                "-o", "ControlMaster=auto", "-o", "ControlPersist=60",
                "-o", f"ControlPath={self.directory / 'ssh'}"]

    def _answers(self):
        assert self._process.poll() is None, f"qemu has exited; see {self.console}"
        try:
            return self.run("true", check=False, timeout=30).returncode == 0
        except subprocess.TimeoutExpired:
            return False

    def run(self, command, check=True, timeout=COMMAND_LIMIT):
        """Runs a shell command as root. With `check`, a failure fails the test."""
        done = subprocess.run(
            [*self._ssh(), "root@127.0.0.1", command], stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, encoding="utf-8",
            errors="replace", timeout=timeout, check=False)
        assert not check or done.returncode == 0, (
            f"{command}: exit status {done.returncode}\n{done.stdout}{done.stderr}")
        return done

    def output(self, command):
        return self.run(command).stdout

    def write(self, path, text, mode="644"):
        """Writes a file of the machine."""
        self.run(f"printf %s {shlex.quote(text)} >{path} && chmod {mode} {path}")

    def copy(self, files, directory):
        """Copies files of this machine into a directory of the guest."""
        subprocess.run([*self._ssh("scp"), *map(str, files),
                        f"root@127.0.0.1:{directory}"], check=True,
                       timeout=COMMAND_LIMIT)

    def boot_id(self):
        return self.output("cat /proc/sys/kernel/random/boot_id")

    def reboot(self):
        """Reboots as an operator does."""
        before = self.boot_id()
        self.run("systemctl reboot", check=False)

        def is_up_again():
            self._close_connection()
            return self._answers() and self.boot_id() != before

        eventually(is_up_again, "the machine has rebooted", BOOT_LIMIT)

    def cut_power(self):
        """Ends the machine without any notice."""
        self._process.send_signal(signal.SIGKILL)
        self._process.wait()
        self._close_connection()

    def shut_down(self):
        """Writes everything to the disk and ends the machine."""
        self.run("systemctl poweroff", check=False)
        self._process.wait(timeout=BOOT_LIMIT)
        self._close_connection()

    def close(self):
        if self._process is not None and self._process.poll() is None:
            self.cut_power()

    def _close_connection(self):
        subprocess.run([*self._ssh(), "-O", "exit", "root@127.0.0.1"], check=False,
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)

    # -- The launcher.

    def wait_for(self, command, what):
        """Waits until a shell command of the guest succeeds."""
        eventually(lambda: self.run(command, check=False).returncode == 0, what,
                   BOOT_LIMIT)

    def wait_until_running(self, *nodes):
        for node in nodes:
            self.wait_for(f"vornctl --timeout 60s wait --state running {node}",
                          f"{node} runs")

    def launcher_pid(self):
        return int(self.output("systemctl show -P MainPID vornlaunch.service"))


def write_programs(guest):
    """Writes the programs of the nodes camera and planner."""
    guest.run("mkdir -p /opt/robot")
    for name in ("camera", "planner"):
        guest.write(f"/opt/robot/{name}",
                    f"#!/bin/sh\necho {name} starts\nexec sleep 100000\n", "755")


def install(guest, arch="amd64"):
    """Installs the packages and a launch file; nothing is enabled."""
    guest.run("mkdir /root/packages")
    guest.copy(packages(arch), "/root/packages")
    guest.run("cd /root/packages && apt-get install -y ./vornlaunch_*.deb "
              "./vornctl_*.deb")
    write_programs(guest)
    guest.write("/root/launch.yaml", json.dumps(LAUNCH_FILE))
    guest.run("cp /root/launch.yaml /etc/vornlaunch")


@contextlib.contextmanager
def guest_with_service(image, installed, directory):
    """A machine with the disk `installed` whose service is enabled and runs."""
    guest = Guest(image, installed, directory)
    try:
        guest.boot()
        guest.run("systemctl enable --now vornlaunch.service && sync")
        guest.wait_until_running("camera", "planner")
        yield guest
    finally:
        guest.close()
