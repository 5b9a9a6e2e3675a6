# One launcher a machine, rolled out and watched by Nomad: an example to adapt.
# docs/containers.md tells the why at length.
job "robot" {
  type        = "system" # on each machine one, which is what the socket allows
  datacenters = ["dc1"]

  update {
    max_parallel = 1     # a bad version stops one machine at a time
    stagger      = "90s" # and the next one's turn is late enough to stop it
  }

  group "launcher" {
    # The launcher ends with status 0 after nearly every failure; a system job is
    # started again whatever the status. For ever, at this distance:
    restart {
      mode     = "delay"
      attempts = 5
      interval = "1m"
      delay    = "1s"
    }

    service {
      name     = "robot-launcher"
      provider = "consul" # Nomad's own services know no script checks

      # Whether the launcher answers, as it does not while it stops a node or
      # waits before a start. Every status of vornctl but 0 and 1 is critical.
      check {
        type     = "script"
        task     = "launcher"
        command  = "/usr/bin/vornctl"
        args     = ["-q", "ping", "--connect-timeout", "20s", "--timeout", "5s"]
        interval = "30s"
        timeout  = "30s" # vornctl gives up by itself before

        check_restart {
          limit = 4     # four intervals are more than the longest command lasts
          grace = "60s" # for the entrypoint and all `sleep`s of the launch file
        }
      }

      # The nodes that must run, by name; a oneshot is not among them.
      check {
        type     = "script"
        task     = "launcher"
        command  = "/usr/bin/vornctl"
        args     = ["-q", "status", "camera", "detector", "--timeout", "20s"]
        interval = "10s"
        timeout  = "30s"
      }
    }

    task "launcher" {
      driver = "docker" # "podman" takes the same settings
      user   = "root"   # as the image and the nodes need

      # SIGTERM alone stops the nodes.
      kill_signal = "SIGTERM"

      # At least what `vornctl check --print stop-timeout` prints for the launch
      # file below, 45 s, and some seconds for the engine. The clients'
      # max_kill_timeout, 30 s by default, must be no less.
      kill_timeout = "60s"

      config {
        # The launcher's image with the nodes in /opt/robot/bin. No command and
        # args but the launch file: the rest is the image's.
        image = "registry.example/robot:1.0"
        args  = ["/local/launch.yaml"]

        # The control socket for clients on the machine. The clients' plugin
        # must permit such volumes. podman does not make the directory: let systemd
        # do it, by a line `d /run/robot-launcher 0755 root root` for tmpfiles.d.
        volumes = ["/run/robot-launcher:/tmp/vornlaunch"]

        # The launcher must be process 1, without an init of the engine. `true` suits
        # nodes that leave more orphans than the launcher can collect.
        init = false
      }

      # For all nodes together; at this limit the kernel ends one of them, which
      # the launcher starts again.
      resources {
        cpu    = 500
        memory = 1024
      }

      # The launcher reads its file at its start alone.
      template {
        destination = "local/launch.yaml"
        change_mode = "restart"
        data        = <<EOT
configure:
  environment:
    VORN_BIN_PATH: /opt/robot/bin
vornnode:
  prepare:
    path: prepare
    oneshot: true
  camera:
    path: camera
    argv: --rate 30
    sleep: 500
    required: [detector]
  detector:
    path: detector
EOT
      }
    }
  }
}
