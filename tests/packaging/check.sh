#!/usr/bin/env bash
# Checks of what gets installed on the router. Exit 77 means "skipped".
#   check.sh needed READELF DAEMON
#   check.sh install CMAKE BUILD_DIR WORK_DIR PREFIX SBIN UNIT_DIR INITD_DIR DATA_DIR SUPERVISORS
#   check.sh units CMAKE BUILD_DIR WORK_DIR UNIT_DIR
set -euo pipefail
fail() { echo "FAIL: $*" >&2; exit 1; }

destdir_install() {  # cmake, build dir, work dir: installs into WORK_DIR/root
  rm -rf "$3"
  mkdir -p "$3"
  DESTDIR=$3/root "$1" --install "$2" >"$3/install.log" || { cat "$3/install.log"; fail "install failed"; }
}

# A program path of a supervisor file must exist in the installed tree.
check_program() {  # root, path, expected name
  local file=$1$2
  [[ $(basename "$2") == "$3" ]] || fail "$2 is not named $3"
  [[ -x $file && -f $file ]] || fail "$2 is not an installed executable"
}

case $1 in
needed)
  readelf=$2 daemon=$3
  mapfile -t needed < <("$readelf" -d "$daemon" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
  echo "NEEDED: ${needed[*]}"
  # libstdc++ alone would cost the router 2.3 MB of flash; libgcc_s and libm
  # are just as unwanted.
  for lib in "${needed[@]}"; do
    [[ $lib =~ ^(libc\.so\.6|libcrypt\.so\.1|libmbed(tls|x509|crypto)\.so\.[0-9]+)$ ]] ||
      fail "$daemon needs $lib"
  done
  [[ " ${needed[*]} " == *" libc.so.6 "* ]] || fail "no libc among the NEEDED entries"
  ;;

install)
  cmake=$2 build=$3 work=$4 prefix=$5 sbin=$6 units=$7 initd=$8 data=$9 supervisors=${10}
  destdir_install "$cmake" "$build" "$work"
  root=$work/root
  [[ -f $root$sbin/kelputild && -x $root$sbin/kelputild ]] || fail "no $sbin/kelputild"
  [[ -L $root$sbin/kelputild-tls ]] || fail "$sbin/kelputild-tls is not a symbolic link"
  # Relative, so the link survives relocation of the whole tree.
  [[ $(readlink "$root$sbin/kelputild-tls") == kelputild ]] || fail "kelputild-tls does not point at kelputild"
  case $sbin in "$prefix"/*) ;; *) fail "$sbin is outside the prefix $prefix" ;; esac

  if [[ ";$supervisors;" == *";busybox;"* ]]; then
    tab=$root$data/inittab
    [[ -f $tab ]] || fail "no $data/inittab"
    mapfile -t lines < <(grep -v '^#' "$tab" | grep -v '^$')
    ((${#lines[@]} == 2)) || fail "inittab fragment has ${#lines[@]} entries, not 2"
    [[ ${lines[0]} == ::respawn:* && ${lines[1]} == ::respawn:* ]] || fail "inittab entries must respawn"
    check_program "$root" "${lines[0]#::respawn:}" kelputild
    check_program "$root" "${lines[1]#::respawn:}" kelputild-tls
  fi

  if [[ ";$supervisors;" == *";procd;"* ]]; then
    init=$root$initd/kelputild
    [[ -f $init && -x $init ]] || fail "no executable $initd/kelputild"
    [[ $(head -n1 "$init") == "#!/bin/sh /etc/rc.common" ]] || fail "init script is not an rc.common script"
    grep -qx 'USE_PROCD=1' "$init" || fail "init script does not use procd"
    # What procd would be told, with procd's helpers stubbed.
    seen=$(sh -euc '
      procd_open_instance() { printf "instance %s\n" "$1"; }
      procd_set_param() { case $1 in command|respawn) echo "$@" ;; esac; }
      procd_close_instance() { echo end; }
      . "$1"
      start_service' sh "$init") || fail "start_service failed"
    echo "$seen"
    mapfile -t commands < <(echo "$seen" | sed -n 's/^command //p')
    ((${#commands[@]} == 2)) || fail "procd is given ${#commands[@]} commands, not 2"
    check_program "$root" "${commands[0]}" kelputild
    check_program "$root" "${commands[1]}" kelputild-tls
    (($(echo "$seen" | grep -c '^respawn') == 2)) || fail "each instance must respawn"
  fi

  if [[ ";$supervisors;" == *";systemd;"* ]]; then
    for unit in kelputild kelputild-tls; do
      file=$root$units/$unit.service
      [[ -f $file ]] || fail "no $units/$unit.service"
      grep -qx 'Restart=always' "$file" || fail "$unit.service does not restart always"
      # The default start limit would stop a daemon that served five clients in ten seconds.
      grep -qx 'StartLimitIntervalSec=0' "$file" || fail "$unit.service has a start limit"
      check_program "$root" "$(sed -n 's/^ExecStart=//p' "$file")" "$unit"
    done
  fi
  find "$root" ! -type d | sed "s|^$root||" | sort
  ;;

units)
  cmake=$2 build=$3 work=$4 units=$5
  command -v systemd-analyze >/dev/null || { echo "SKIP: systemd-analyze is not installed"; exit 77; }
  mkdir -p "$work"
  # This container may lack what verify needs: a known-good unit tells.
  printf '[Service]\nExecStart=/bin/true\n' >"$work/probe.service"
  if ! out=$(systemd-analyze verify "$work/probe.service" 2>&1) || [[ -n $out ]]; then
    echo "SKIP: systemd-analyze verify cannot run here: $out"
    exit 77
  fi
  destdir_install "$cmake" "$build" "$work"
  root=$work/root
  # verify checks that ExecStart is executable: point it into the installed tree.
  mkdir -p "$work/units"
  for unit in kelputild kelputild-tls; do
    sed "s|^ExecStart=|ExecStart=$root|" "$root$units/$unit.service" >"$work/units/$unit.service"
  done
  # verify warns about unknown keys and bad values but still exits 0.
  out=$(systemd-analyze verify "$work/units/kelputild.service" "$work/units/kelputild-tls.service" 2>&1) ||
    fail "systemd-analyze verify: $out"
  [[ -z $out ]] || fail "systemd-analyze verify: $out"
  echo "systemd-analyze verify: both units accepted"
  ;;

*) fail "unknown check $1" ;;
esac
