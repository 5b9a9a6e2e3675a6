# One launcher per machine, deployed and monitored by Nomad: an example to adapt.
# docs/containers.md has the reasons.
job "robot" {
  type        = "system" # one per machine, as the control socket requires
  datacenters = ["dc1"]

  update {
    max_parallel = 1     # a bad version stops one machine at a time
    stagger      = "90s" # and leaves enough time to stop the job
  }

  group "launcher" {
    # The launcher exits with status 0 after nearly every failure; a system job is
    # restarted after any status, forever, at this interval:
    restart {
      mode     = "delay"
      attempts = 5
      interval = "1m"
      delay    = "1s"
    }

    service {
      name     = "robot-launcher"
      provider = "consul" # Nomad's own services have no script checks

      # Whether the launcher answers. It does not while it stops a node or waits
      # before a start. Every status of vornctl except 0 and 1 is critical.
      check {
        type     = "script"
        task     = "launcher"
        command  = "/usr/bin/vornctl"
        args     = ["-q", "ping", "--connect-timeout", "20s", "--timeout", "5s"]
        interval = "30s"
        timeout  = "30s" # longer than vornctl's own limit

        check_restart {
          limit = 4     # four intervals exceed the longest command
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
      driver = "docker" # "podman" has the same settings
      user   = "root"   # as the image and the nodes need

      # Only SIGTERM stops the nodes.
      kill_signal = "SIGTERM"

      # At least the output of `vornctl check --print stop-timeout` for the launch
      # file below, 45 s, and some seconds for the engine. The clients'
      # max_kill_timeout, 30 s by default, must be no less.
      kill_timeout = "60s"

      config {
        # The launcher's image with the nodes in /opt/robot/bin. The only argument is
        # the launch file; the image defines the command.
        image = "registry.example/robot:1.0"
        args  = ["/local/launch.yaml"]

        # The control socket for clients on the machine. The clients' plugin
        # must permit such volumes. podman does not create the directory: let systemd
        # create it, with a line `d /run/robot-launcher 0755 root root` for tmpfiles.d.
        volumes = ["/run/robot-launcher:/tmp/vornlaunch"]

        # The launcher must be process 1, without an init of the engine. Use `true`
        # for nodes that leave more orphans than the launcher can collect.
        init = false
      }

      # For all nodes together; at this limit the kernel kills one of them, which
      # the launcher restarts.
      resources {
        cpu    = 500
        memory = 1024
      }

      # The launcher reads its file only at its start.
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
