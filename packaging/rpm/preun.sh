# shellcheck shell=sh
# At the removal, not at an upgrade: every launcher, instances included, and
# their nodes with them.
if [ "$1" = 0 ] && [ -d /run/systemd/system ]; then
  systemctl --no-reload stop vornlaunch.service 'vornlaunch@*.service' || :
fi
