# The rpm, built by cpack. debian/rules builds Debian's packages.

set(CPACK_GENERATOR RPM)
set(CPACK_PACKAGE_NAME vornlaunch)
set(CPACK_PACKAGE_CONTACT "The vornlaunch authors")
set(CPACK_PACKAGE_VENDOR "The vornlaunch authors")
set(CPACK_PACKAGE_DESCRIPTION
  "vornlaunch starts the programs in a launch file, restarts them when they exit,
and executes commands that it receives on a local socket. vornctl sends these
commands and checks launch files. With libraries for C++ and Python.")
set(CPACK_STRIP_FILES ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE Apache-2.0)
# The units contain absolute paths of the programs.
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
# Each stop of a node runs `ps` and `grep`.
set(CPACK_RPM_PACKAGE_REQUIRES "procps-ng, grep")
# The files for pkg-config need no package at run time.
set(CPACK_RPM_SPEC_MORE_DEFINE
  "%define __requires_exclude ^/usr/bin/pkg-config$
%define _build_id_links none")
set(CPACK_RPM_PRE_UNINSTALL_SCRIPT_FILE
  ${PROJECT_SOURCE_DIR}/packaging/rpm/preun.sh)
# Directories of other packages.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /usr/lib/systemd /usr/lib/systemd/system /usr/lib/tmpfiles.d /usr/lib64/cmake
  /usr/lib64/pkgconfig /usr/share/bash-completion
  /usr/share/bash-completion/completions /usr/share/fish
  /usr/share/fish/vendor_completions.d /usr/share/man /usr/share/man/man1
  /usr/share/man/man5 /usr/share/man/man7 /usr/share/man/man8 /usr/share/zsh
  /usr/share/zsh/vendor-completions)
include(CPack)
