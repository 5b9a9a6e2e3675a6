"""The files for containers and their engines: the Containerfile, the DaemonSet and the
Nomad job."""

import os
import re
import subprocess

import pytest
import yaml

from support.containerfile import CONTAINERFILE, ROOT, read_stages

DIRECTORY = CONTAINERFILE.parent


@pytest.fixture(name="vornctl")
def fixture_vornctl(program):
    """Checks a launch file with this text and these options; returns the exit status
    and the output."""

    def check(text, *options):
        done = subprocess.run(
            [program.with_name("vornctl"), "check", "--no-host", *options, "-"],
            input=text, stdout=subprocess.PIPE, encoding="utf-8", check=False)
        return done.returncode, done.stdout

    return check


def in_seconds(text):
    number, unit = re.fullmatch(r"(\d+)(s|m)", text).groups()
    return int(number) * (60 if unit == "m" else 1)


# -- The Containerfile.


def test_the_image_contains_only_the_programs_of_its_build():
    build, final = read_stages()
    assert build.base == "debian:12 AS build"
    assert final.base == "debian:12-slim"
    assert not set(build.packages) & set(final.packages)
    assert [copied for copied in final.copies if copied[0] is not None] == [
        ("build", [f"/build/bin/{name}" for name in ("vornlaunch", "vornctl", "vornrun")],
         "/usr/bin/")]


def test_the_build_stage_installs_the_same_files_as_a_local_build():
    build, _ = read_stages()
    scripts = (ROOT / "scripts/common.sh").read_text(encoding="utf-8")
    packages = re.search(r"BUILD_PACKAGES=\((.*?)\)", scripts, re.S)[1].split()
    # The launcher of a container does not write to the journal.
    assert set(build.packages) == set(packages) - {"procps"}


def test_the_files_that_the_image_copies_exist_and_are_executable():
    _, final = read_stages()
    sources = [source for stage, files, _ in final.copies if stage is None
               for source in files]
    assert sources
    for source in sources:
        assert os.access(ROOT / source, os.X_OK), source


def test_the_launcher_is_process_1_and_is_stopped_by_sigterm():
    _, final = read_stages()
    # JSON lists are the exec form, without a shell that would receive the signals.
    assert final.command == [
        "/usr/libexec/vornlaunch/entrypoint", "/etc/vornlaunch/launch.yaml"]
    assert final.one("STOPSIGNAL") == "SIGTERM"
    assert final.one("VOLUME") == "/tmp/vornlaunch"


def test_the_launcher_runs_as_root_unless_the_image_is_built_for_another_user():
    _, final = read_stages()
    assert final.one("ARG") == "USER_ID=0"
    assert final.one("USER") == "${USER_ID}"


def test_the_health_command_times_out_before_the_engine_does():
    _, final = read_stages()
    engine = re.search(r"--timeout=(\w+)", final.one("HEALTHCHECK"))[1]
    own = re.findall(r"--(?:connect-)?timeout (\w+)", final.health_command)
    assert len(own) == 2
    assert sum(map(in_seconds, own)) < in_seconds(engine)


def test_the_health_command_is_the_documented_one():
    document = (ROOT / "docs/containers.md").read_text(encoding="utf-8")
    assert f"\n{read_stages()[-1].health_command}\n" in document


# -- The directory of the control socket.


def test_the_documented_line_creates_the_mounted_directory(tmp_path):
    if os.geteuid() != 0:
        pytest.skip("only root can make a directory of root")
    document = (ROOT / "docs/containers.md").read_text(encoding="utf-8")
    [line] = re.findall("^echo '(.*)' >/etc/tmpfiles.d/", document, re.M)
    [mounted] = re.findall(r"^ +-v (\S+):/tmp/vornlaunch ", document, re.M)
    config = tmp_path / "robot-launcher.conf"
    config.write_text(line + "\n", encoding="utf-8")
    subprocess.run(["systemd-tmpfiles", "--create", f"--root={tmp_path}", config],
                   check=True)
    assert (tmp_path / mounted[1:]).is_dir()


def test_every_file_that_mounts_a_host_directory_says_how_to_create_it(pod, job):
    [directory] = [volume["hostPath"]["path"] for volume in pod["volumes"]
                if "hostPath" in volume]
    daemon_set = (DIRECTORY / "kubernetes.yaml").read_text(encoding="utf-8")
    assert f"`d {directory} 0755 1000 1000`" in daemon_set
    assert f'volumes = ["{directory}:/tmp/vornlaunch"]' in job
    assert f"`d {directory} 0755 root root`" in job


# -- The DaemonSet.


@pytest.fixture(name="documents")
def fixture_documents():
    text = (DIRECTORY / "kubernetes.yaml").read_text(encoding="utf-8")
    return {document["kind"]: document for document in yaml.safe_load_all(text)}


@pytest.fixture(name="pod")
def fixture_pod(documents):
    return documents["DaemonSet"]["spec"]["template"]["spec"]


def test_the_launch_file_of_the_daemon_set_is_valid(documents, pod, vornctl):
    config = documents["ConfigMap"]
    assert vornctl(config["data"]["launch.yaml"], "--fail-on", "warning") == (0, "")
    volumes = {volume["name"]: volume for volume in pod["volumes"]}
    [container] = pod["containers"]
    mounts = {mount["mountPath"]: volumes[mount["name"]]
              for mount in container["volumeMounts"]}
    assert mounts["/etc/vornlaunch"]["configMap"]["name"] == config["metadata"]["name"]
    assert "/tmp/vornlaunch" in mounts


def test_the_daemon_set_allows_the_longest_possible_stop(documents, pod, vornctl):
    launch = documents["ConfigMap"]["data"]["launch.yaml"]
    status, needed = vornctl(launch, "--print", "stop-timeout")
    assert status == 0
    assert pod["terminationGracePeriodSeconds"] >= int(needed)


def test_the_daemon_set_runs_one_launcher_per_machine(documents, pod):
    spec = documents["DaemonSet"]["spec"]
    assert spec["updateStrategy"] == {
        "type": "RollingUpdate",
        "rollingUpdate": {"maxUnavailable": 1, "maxSurge": 0}}
    labels = spec["template"]["metadata"]["labels"]
    assert spec["selector"]["matchLabels"].items() <= labels.items()
    assert pod["shareProcessNamespace"] is False
    assert "lifecycle" not in pod["containers"][0]


def test_no_probe_terminates_a_busy_launcher(documents, pod, vornctl):
    [container] = pod["containers"]
    _, longest = vornctl(documents["ConfigMap"]["data"]["launch.yaml"],
                         "--print", "stop-timeout")
    alive = container["livenessProbe"]
    assert alive["failureThreshold"] * alive["periodSeconds"] > int(longest)
    for probe in ("startupProbe", "livenessProbe", "readinessProbe"):
        command = container[probe]["exec"]["command"]
        assert command[0] == "vornctl"
        limits = [command[command.index(option) + 1]
                  for option in ("--connect-timeout", "--timeout")]
        given = container[probe]["timeoutSeconds"]
        assert sum(map(in_seconds, limits)) < given, probe


def test_the_ready_nodes_are_nodes_of_the_launch_file(documents, pod):
    command = pod["containers"][0]["readinessProbe"]["exec"]["command"]
    nodes = yaml.safe_load(documents["ConfigMap"]["data"]["launch.yaml"])["vornnode"]
    named = command[command.index("status") + 1:command.index("--connect-timeout")]
    assert set(named) == {name for name, keys in nodes.items()
                          if not keys.get("oneshot")}


# -- The Nomad job. Debian has no parser for its language; these tests need none.


@pytest.fixture(name="job")
def fixture_job():
    return (DIRECTORY / "vornlaunch.nomad.hcl").read_text(encoding="utf-8")


def launch_file_of(job):
    return re.search(r"<<EOT\n(.*?)^EOT$", job, re.M | re.S)[1]


def test_every_block_of_the_job_ends_where_its_indentation_ends(job):
    job = job.replace(launch_file_of(job), "")
    opened = []
    for line in job.splitlines():
        code = re.sub(r'"[^"]*"', '""', line).partition("#")[0].rstrip()
        if code.endswith("{"):
            opened.append(code[:len(code) - len(code.lstrip())])
        elif code.strip() == "}":
            assert code == opened.pop() + "}", line
        else:
            assert "{" not in code and "}" not in code, line
    assert opened == []


def test_the_job_and_the_daemon_set_have_the_same_launch_file(job, documents):
    assert yaml.safe_load(launch_file_of(job)) == yaml.safe_load(
        documents["ConfigMap"]["data"]["launch.yaml"])


def test_the_job_runs_one_launcher_per_machine(job):
    assert re.search(r'^  type += "system" ', job, re.M)
    assert re.search(r"^    max_parallel += 1 ", job, re.M)
    assert ':/tmp/vornlaunch"]' in job


def test_the_job_allows_the_longest_possible_stop(job, vornctl):
    setting = dict(re.findall(r'^ *(\w+) += "?([^"\s]+)"?', job, re.M))
    _, needed = vornctl(launch_file_of(job), "--print", "stop-timeout")
    assert in_seconds(setting["kill_timeout"]) >= int(needed)
    assert setting["kill_signal"] == "SIGTERM"
    assert in_seconds(setting["stagger"]) > in_seconds(setting["kill_timeout"])
