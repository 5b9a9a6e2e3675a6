"""Journal files of systemd with given entries."""

import pathlib
import subprocess

WRITER = "/lib/systemd/systemd-journal-remote"


def boot_id():
    """The identifier of this boot, as the journal writes it."""
    text = pathlib.Path("/proc/sys/kernel/random/boot_id").read_text(encoding="ascii")
    return text.strip().replace("-", "")


def entry(seconds, pid, message, *, unit="vornlaunch.service", comm="vornlaunch",
          identifier="vornlaunch", **fields):
    """The fields of an entry that was received at this time in seconds since the
    epoch."""
    return {
        "__REALTIME_TIMESTAMP": str(round(seconds * 1_000_000)),
        "__MONOTONIC_TIMESTAMP": str(round(seconds * 1_000_000)),
        "_BOOT_ID": boot_id(),
        "_PID": str(pid),
        "_COMM": comm,
        "_TRANSPORT": "stdout",
        "_SYSTEMD_UNIT": unit,
        "SYSLOG_IDENTIFIER": identifier,
        "MESSAGE": message,
        **fields,
    }


def exported(entries):
    """The entries in the journal's export format, in which a value of any bytes
    follows its length."""
    text = b""
    for fields in entries:
        for name, value in fields.items():
            value = value.encode() if isinstance(value, str) else value
            if name.startswith("__"):
                text += name.encode() + b"=" + value + b"\n"
            else:
                length = len(value).to_bytes(8, "little")
                text += name.encode() + b"\n" + length + value + b"\n"
        text += b"\n"
    return text


def write_journal(path, entries):
    """Writes the entries, oldest first, to the journal file `path`, which must end
    with ".journal"."""
    path.parent.mkdir(parents=True, exist_ok=True)
    subprocess.run([WRITER, "-o", path, "-"], input=exported(entries), check=True,
                   stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
    path.chmod(0o640)
