"""Texts of the launcher's log for which several tests wait. The launcher's unit
tests state them literally."""

EVENT_WAIT_FAILED = "epoll_wait failed."
POLL_TIMEOUT = "poll timeout"
WAITID_FAILED = "waitid failed"


def command(cmd):
    return f"control cmd: {int(cmd)}"


def started(name):
    return f"Node start '{name}' ok"


def ready_to_restart(name):
    return f"Node '{name}' ready to restarting"


def stopped(name):
    return f"Node '{name}' stoped"


def disabled(name):
    return f"Node '{name}' disabled!"


def disabled_as_oneshot(name):
    return f"Node '{name}' disabled - oneshot!"


def not_autostart(name):
    return f"Node '{name}' is not autostart"


def executable_missing(path):
    return f"Can't find file: {path}"


def exited(name, status):
    return f"'{name}' exited with status: {status}."


def killed(name, number):
    return f"'{name}' receive signal: {int(number)}."
