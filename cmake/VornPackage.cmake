# The rpm, by cpack. Debian's packages are made by debian/rules.

set(CPACK_GENERATOR RPM)
set(CPACK_PACKAGE_NAME vornlaunch)
set(CPACK_PACKAGE_CONTACT "The vornlaunch authors")
set(CPACK_PACKAGE_VENDOR "The vornlaunch authors")
set(CPACK_PACKAGE_DESCRIPTION
  "vornlaunch reads one launch file, starts the programs in it, starts them again
when they exit, and takes commands over a local socket. vornctl gives these
commands and finds the mistakes in a launch file. With libraries for C++.")
set(CPACK_STRIP_FILES ON)
set(CPACK_RPM_FILE_NAME RPM-DEFAULT)
set(CPACK_RPM_PACKAGE_LICENSE Apache-2.0)
# The units name the programs by their whole paths.
set(CPACK_RPM_PACKAGE_RELOCATABLE OFF)
# Each stop of a node runs `ps` and `grep`.
set(CPACK_RPM_PACKAGE_REQUIRES "procps-ng, grep")
# What the libraries' descriptions are for is not needed to run anything.
set(CPACK_RPM_SPEC_MORE_DEFINE
  "%define __requires_exclude ^/usr/bin/pkg-config$
%define _build_id_links none")
set(CPACK_RPM_PRE_UNINSTALL_SCRIPT_FILE
  ${PROJECT_SOURCE_DIR}/packaging/rpm/preun.sh)
# Directories of others.
set(CPACK_RPM_EXCLUDE_FROM_AUTO_FILELIST_ADDITION
  /usr/lib/systemd /usr/lib/systemd/system /usr/lib/tmpfiles.d /usr/lib64/cmake
  /usr/lib64/pkgconfig /usr/share/bash-completion
  /usr/share/bash-completion/completions /usr/share/fish
  /usr/share/fish/vendor_completions.d /usr/share/man /usr/share/man/man1
  /usr/share/man/man5 /usr/share/man/man7 /usr/share/man/man8 /usr/share/zsh
  /usr/share/zsh/vendor-completions)
include(CPack)
