#!/usr/bin/env bash
# Checks of what gets installed on the router and of the workstation package.
# Exit 77 means "skipped".
#   check.sh needed READELF DAEMON
#   check.sh install CMAKE BUILD_DIR WORK_DIR PREFIX SBIN UNIT_DIR INITD_DIR DATA_DIR SUPERVISORS TO_LOG
#   check.sh units CMAKE BUILD_DIR WORK_DIR UNIT_DIR
#   check.sh switch CMAKE SOURCE_DIR WORK_DIR SBIN SUPERVISORS TO_LOG [CMAKE_ARGS...]
#   check.sh tls_pair CMAKE SOURCE_DIR WORK_DIR OPENSSL [CMAKE_ARGS...]
#   check.sh deb CPACK BUILD_DIR WORK_DIR VERSION
#   check.sh completion SCRIPT WORK_DIR
set -euo pipefail
fail() { echo "FAIL: $*" >&2; exit 1; }
fresh() { rm -rf "$1" && mkdir -p "$1"; }

# The router's install component alone, as a firmware build takes it.
destdir_install() {  # cmake, build dir, work dir: installs into WORK_DIR/root
  fresh "$3"
  DESTDIR=$3/root "$1" --install "$2" --component router >"$3/install.log" || { cat "$3/install.log"; fail "install failed"; }
}

# A program path of a supervisor file must exist in the installed tree.
check_program() {  # root, path, expected name
  local file=$1$2
  [[ $(basename "$2") == "$3" ]] || fail "$2 is not named $3"
  [[ -x $file && -f $file ]] || fail "$2 is not an installed executable"
}

# The daemon prints every password it receives on standard output: each
# supervisor must discard it, or log it when TO_LOG is ON. The daemons are
# replaced by a stub that prints a password and an error and records its path.
make_stubs() {  # dir
  fresh "$1"
  printf '%s\n' '#!/bin/sh' 'echo "$0" >>"$STUB_LOG/started"' 'echo "Password received: secret"' \
    'echo "bind: Address already in use" >&2' >"$1/kelputild"
  cp "$1/kelputild" "$1/kelputild-tls"
  printf '%s\n' '#!/bin/sh' '{ echo "logger $*"; cat; } >>"$STUB_LOG/logged"' >"$1/logger"
  chmod +x "$1"/*
}

# Busybox init runs an entry through "sh -c 'exec ENTRY'" when it holds one of
# these, otherwise it splits the entry into words.
shell_chars='~`!$^&*()=|\{}[];"'\''<>?'
busybox_argv() {  # entry: sets argv
  local i
  for ((i = 0; i < ${#shell_chars}; i++)); do
    if [[ $1 == *"${shell_chars:i:1}"* ]]; then
      argv=(sh -c "exec $1")
      return
    fi
  done
  read -ra argv <<<"$1"
}

# What an init script tells procd, with procd's helpers stubbed.
procd_told() {  # init script
  sh -euc '
    procd_open_instance() { printf "instance %s\n" "$1"; }
    procd_set_param() { case $1 in command|respawn|stdout|stderr) echo "$@" ;; esac; }
    procd_close_instance() { echo end; }
    . "$1"
    start_service' sh "$1" || fail "start_service failed"
}

check_stdout_rules() {  # work, to_log, sbin, inittab or "", init script or "", units dir or ""
  local work=$1 to_log=$2 sbin=$3 tab=$4 init=$5 units=$6 stubs=$1/stubs
  if [[ -n $tab ]]; then
    local started=() entry
    mapfile -t entries < <(grep -v '^#' "$tab" | grep -v '^$' | sed 's/^::respawn://')
    for entry in "${entries[@]}"; do
      make_stubs "$stubs"
      busybox_argv "${entry//"$sbin/"/"$stubs/"}"
      STUB_LOG=$stubs PATH=$stubs:$PATH timeout 10 "${argv[@]}" >"$work/out" 2>"$work/err" </dev/null ||
        fail "inittab entry failed: $entry"
      [[ -f $stubs/started ]] || fail "$entry starts no program of $sbin"
      started+=("$(sed "s|^$stubs/||" "$stubs/started")")
      [[ ! -s $work/out ]] || fail "$entry leaves standard output on the console: $(cat "$work/out")"
      grep -q 'Address already in use' "$work/err" || fail "$entry loses standard error"
      if [[ $to_log == ON ]]; then
        grep -qx "logger -t ${started[-1]}" "$stubs/logged" && grep -q 'Password received' "$stubs/logged" ||
          fail "$entry does not log standard output"
      else
        [[ ! -e $stubs/logged ]] || fail "$entry logs standard output"
      fi
    done
    # By these names: the name selects the mode.
    [[ ${started[*]} == "kelputild kelputild-tls" ]] || fail "inittab entries start ${started[*]}"
  fi
  if [[ -n $init ]]; then
    local want=0 seen
    [[ $to_log == ON ]] && want=1
    seen=$(procd_told "$init")
    [[ $(echo "$seen" | grep -c "^stdout $want\$") == 2 && $(echo "$seen" | grep -c '^stdout') == 2 ]] ||
      fail "each procd instance must set stdout $want: $seen"
  fi
  if [[ -n $units ]]; then
    local want=null unit
    [[ $to_log == ON ]] && want=journal
    for unit in kelputild kelputild-tls; do
      [[ $(grep '^StandardOutput=' "$units/$unit.service") == "StandardOutput=$want" ]] ||
        fail "$unit.service needs StandardOutput=$want"
      # Otherwise standard error follows standard output.
      grep -qx 'StandardError=journal' "$units/$unit.service" ||
        fail "$unit.service does not send standard error to the journal"
    done
  fi
  echo "standard output rules hold with KELP_DAEMON_STDOUT_TO_LOG=$to_log"
}

has() {  # supervisor, path: the path when the supervisor's files are wanted
  if [[ ";$supervisors;" == *";$1;"* ]]; then echo "$2"; fi
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
  cmake=$2 build=$3 work=$4 prefix=$5 sbin=$6 units=$7 initd=$8 data=$9 supervisors=${10} to_log=${11}
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
    check_program "$root" "$sbin/kelputild" kelputild
    check_program "$root" "$sbin/kelputild-tls" kelputild-tls
  fi

  if [[ ";$supervisors;" == *";procd;"* ]]; then
    init=$root$initd/kelputild
    [[ -f $init && -x $init ]] || fail "no executable $initd/kelputild"
    [[ $(head -n1 "$init") == "#!/bin/sh /etc/rc.common" ]] || fail "init script is not an rc.common script"
    grep -qx 'USE_PROCD=1' "$init" || fail "init script does not use procd"
    seen=$(procd_told "$init")
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
  check_stdout_rules "$work" "$to_log" "$sbin" "$(has busybox "$root$data/inittab")" \
    "$(has procd "$root$initd/kelputild")" "$(has systemd "$root$units")"
  # Nothing else: the client is the workstation package's.
  expected=("$sbin/kelputild" "$sbin/kelputild-tls" "$(has busybox "$data/inittab")" "$(has procd "$initd/kelputild")"
    "$(has systemd "$units/kelputild.service")" "$(has systemd "$units/kelputild-tls.service")")
  installed=$(find "$root" ! -type d | sed "s|^$root||" | sort)
  echo "$installed"
  [[ $installed == "$(printf '%s\n' "${expected[@]}" | grep . | sort)" ]] ||
    fail "the router's component is not exactly: ${expected[*]}"
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

switch)
  # A scratch configure with the switch the other way: its supervisor files.
  cmake=$2 source=$3 work=$4 sbin=$5 supervisors=$6 to_log=$7
  shift 7
  fresh "$work"
  "$cmake" -S "$source" -B "$work/build" -DKELP_TESTS=OFF -DKELP_CLIENT=OFF "-DKELP_SUPERVISORS=$supervisors" \
    "-DKELP_DAEMON_STDOUT_TO_LOG=$to_log" "$@" >"$work/configure.log" 2>&1 ||
    { cat "$work/configure.log"; fail "configure failed"; }
  out=$work/build/packaging
  check_stdout_rules "$work" "$to_log" "$sbin" "$(has busybox "$out/inittab")" \
    "$(has procd "$out/kelputild.init")" "$(has systemd "$out")"
  ;;

tls_pair)
  # Replaced pairs in a scratch build of the pair alone: only a pair the daemon
  # can load builds.
  cmake=$2 source=$3 work=$4 openssl=$5
  shift 5
  fresh "$work"
  def=$source/src/daemon/core/default_cert
  s=$work/pairs
  mkdir -p "$s"
  quiet() { "$@" >"$s/openssl.log" 2>&1 || { cat "$s/openssl.log"; fail "openssl $*"; }; }
  quiet "$openssl" req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -subj /CN=router -days 2 \
    -keyout "$s/own-key.pem" -out "$s/own-cert.pem"
  quiet "$openssl" genpkey -algorithm EC -pkeyopt ec_paramgen_curve:P-256 -out "$s/other-key.pem"
  quiet "$openssl" x509 -in "$def/cert.pem" -outform DER -out "$s/cert.der"
  quiet "$openssl" pkey -in "$def/key.pem" -outform DER -out "$s/key.der"
  quiet "$openssl" pkey -in "$def/key.pem" -aes256 -passout pass:secret -out "$s/encrypted-key.pem"
  echo "not a certificate" >"$s/text.pem"
  # certificate | key | what the check says ("" for success); each row runs
  # the script the build runs, the last one through a scratch build.
  rows=(
    "$def/cert.pem|$def/key.pem|"
    "$s/own-cert.pem|$s/own-key.pem|"
    "$def/cert.pem|$s/other-key.pem|$s/other-key.pem is not the private key of the certificate $def/cert.pem"
    "$s/cert.der|$def/key.pem|$s/cert.der is not a PEM certificate"
    "$s/text.pem|$def/key.pem|$s/text.pem is not a PEM certificate"
    "$def/cert.pem|$def/cert.pem|$def/cert.pem is not an unencrypted PEM private key"
    "$def/cert.pem|$s/key.der|$s/key.der is not an unencrypted PEM private key"
    "$def/cert.pem|$s/encrypted-key.pem|$s/encrypted-key.pem is not an unencrypted PEM private key"
    "$def/cert.pem|$s/missing.pem|$s/missing.pem"
  )
  generated=$work/tls_pair.cpp
  for row in "${rows[@]}"; do
    IFS='|' read -r cert key says <<<"$row"
    rm -f "$generated"
    if out=$("$cmake" "-DCERT=$cert" "-DKEY=$key" "-DOUT=$generated" "-DOPENSSL=$openssl" \
      -P "$source/src/daemon/core/tls_pair.cmake" 2>&1); then
      [[ -z $says ]] || fail "$cert with $key passes; expected: $says"
      grep -q tls_key_pem "$generated" || fail "$cert with $key makes no pair"
      echo "passes: $cert with $key"
    else
      [[ -n $says ]] || fail "$cert with $key is refused: $out"
      # CMake wraps its messages.
      [[ $(tr -s '[:space:]' ' ' <<<"$out") == *"$says"* ]] ||
        fail "$cert with $key: the check does not say '$says': $out"
      [[ ! -e $generated ]] || fail "$cert with $key leaves a pair behind"
      echo "refused: $says"
    fi
  done
  # The build runs that check: a pair that does not match stops it.
  "$cmake" -S "$source" -B "$work/build" -DKELP_TESTS=OFF -DKELP_CLIENT=OFF "-DKELP_TLS_CERT=$s/own-cert.pem" \
    "-DKELP_TLS_KEY=$def/key.pem" "$@" >"$work/configure.log" 2>&1 || { cat "$work/configure.log"; fail "configure failed"; }
  if out=$("$cmake" --build "$work/build" --target kelp_tls_pair 2>&1); then
    fail "a build with a key that does not match its certificate succeeds"
  fi
  [[ $(tr -s '[:space:]' ' ' <<<"$out") == *"$def/key.pem is not the private key of the certificate $s/own-cert.pem"* ]] ||
    fail "the failing build does not say why: $out"
  ;;

deb)
  # The workstation package, built from the build folder into a scratch one.
  cpack=$2 build=$3 work=$4 version=$5
  fresh "$work"
  "$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
    { cat "$work/cpack.log"; fail "cpack failed"; }
  debs=("$work"/out/*.deb)
  ((${#debs[@]} == 1)) && [[ -f ${debs[0]} ]] || fail "cpack made ${#debs[@]} packages: ${debs[*]}"
  deb=${debs[0]}
  for field in "Package=kelputil" "Version=$version"; do
    [[ $(dpkg-deb -f "$deb" "${field%%=*}") == "${field#*=}" ]] || fail "the package's ${field%%=*} is not ${field#*=}"
  done
  depends=$(dpkg-deb -f "$deb" Depends)
  [[ $depends == *libc6* ]] || fail "Depends does not name libc6: $depends"

  # Exactly the client's files: nothing of the router's.
  collection=./usr/share/ansible/collections/ansible_collections/kelp/router
  mapfile -t files < <(dpkg-deb --contents "$deb" | grep -v '^d' | awk '{print $6}' | grep -v "^$collection/" | sort)
  expected=(./usr/bin/kelputil ./usr/lib/systemd/system/kelputil-serve.service ./usr/libexec/kelputil/kelputil-serve
    ./usr/libexec/kelputil/kelputil-store ./usr/share/bash-completion/completions/kelputil
    ./usr/share/doc/kelputil/examples/kelputil-serve-alerts.yml ./usr/share/doc/kelputil/examples/serve.conf
    ./usr/share/man/man1/kelputil.1.gz)
  [[ ${files[*]} == "${expected[*]}" ]] || fail "the package holds ${files[*]}, not ${expected[*]}"

  root=$work/root
  dpkg-deb -x "$deb" "$root"
  tool=$root/usr/bin/kelputil
  # The Ansible collection where Debian's Ansible looks, as ansible-galaxy installs one.
  for f in MANIFEST.json FILES.json plugins/action/script.py plugins/inventory/serve.py; do
    [[ -f $root/$collection/$f ]] || fail "the package has no $collection/$f"
  done
  if command -v ansible-doc >/dev/null; then
    listed=$(ANSIBLE_COLLECTIONS_PATH=$root/usr/share/ansible/collections timeout 60 ansible-doc -l kelp.router) ||
      fail "ansible-doc -l kelp.router fails on the package's collection"
    [[ $(awk '{print $1}' <<<"$listed" | xargs) == "kelp.router.backup kelp.router.facts kelp.router.firmware "`
      `"kelp.router.restore kelp.router.script kelp.router.session" ]] || fail "ansible-doc lists: $listed"
  fi
  help=$(timeout 10 "$tool" --help) || fail "kelputil --help fails"
  [[ ${help,,} == *usage* ]] || fail "kelputil --help shows no usage: $help"
  # Required once the tool offers it.
  if [[ $help == *--version* ]]; then
    said=$(timeout 10 "$tool" --version) || fail "kelputil --version fails"
    [[ $said == *"$version"* ]] || fail "kelputil --version says '$said', not $version"
  fi
  # The man page as man shows it: its sections, every command, and every
  # option that any command's --help lists.
  man=$(gzip -dc "$root/usr/share/man/man1/kelputil.1.gz") || fail "the man page is not gzip"
  [[ $man == *'.TH "kelputil" "1" '*"\"kelputil $version\""* ]] || fail "the man page has no title line for kelputil $version"
  page=$(MANWIDTH=100 timeout 20 man --warnings --nh -l "$root/usr/share/man/man1/kelputil.1.gz" 2>"$work/man.err") ||
    fail "man cannot show the page: $(cat "$work/man.err")"
  [[ ! -s $work/man.err ]] || fail "man warns about the page: $(cat "$work/man.err")"
  for section in NAME SYNOPSIS DESCRIPTION 'GLOBAL OPTIONS' COMMANDS INVENTORY PATTERNS ENVIRONMENT FILES \
    'EXIT STATUS' EXAMPLES SECURITY; do
    grep -qx "$section" <<<"$page" || fail "the man page has no $section section"
  done
  # An option broken at one of its own hyphens at a line's end is one word.
  words=" $(sed -z 's/-\n *\([a-z]\)/-\1/g' <<<"$page" | tr -s '[:space:],[]/$' ' ') "
  for word in check apply reboot backup restore get-script put-script report ppp hotspot kick-ppp kick-hotspot \
    kick-ip firmware throughput bundle-pack bundle-verify bundle-unpack fleet history diff help \
    KELPUTIL_PASSWORD KELP_INVENTORY XDG_CONFIG_HOME HOME COLUMNS known_hosts '~regex' 'a:&b' 'a:!b' group[N] \
    group[A:B]; do
    want=$(tr -s '[]' ' ' <<<"$word")
    [[ $words == *" ${want% } "* ]] || fail "the man page does not name $word"
  done
  options() { timeout 10 "$tool" "$@" --help | grep -o -- ' --\?[a-zA-Z][a-z-]*' | sort -u; }
  mapfile -t commands < <(timeout 10 "$tool" --help | sed -n '/^Commands:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
  mapfile -t fleet_commands < <(timeout 10 "$tool" fleet --help | sed -n '/^Commands:/,/^$/s/^  \([a-z-]*\) .*/\1/p')
  ((${#commands[@]} > 15 && ${#fleet_commands[@]} > 15)) || fail "--help lists no commands to check"
  for command in "${commands[@]}" "${fleet_commands[@]/#/fleet }"; do
    [[ $words == *" ${command#fleet } "* ]] || fail "the man page does not name the command $command"
    for option in $(options $command); do
      [[ $words == *" $option "* ]] || fail "the man page does not show $command's option $option"
    done
  done

  script=$root/usr/share/bash-completion/completions/kelputil
  bash -c 'source "$1" && complete -p kelputil' _ "$script" | grep -q ' -F _kelputil kelputil$' ||
    fail "the completion script does not register _kelputil for kelputil"
  ;;

completion)
  # Completion as bash would ask for it, from a folder with known entries and
  # an inventory, KELP_INVENTORY naming it unless the line has -i.
  script=$2 work=$3
  rm -rf "$work"
  mkdir -p "$work/cwd/nightly.d"
  touch "$work/cwd/nightly.dat" "$work/cwd/fw.scr" "$work/cwd/my file.dat"
  printf '%s\n' 'edge1 ansible_host=192.0.2.7' '[routers]' 'r[08:11] tls=true' '[routers:vars]' 'tls=true' \
    '[emea:children]' 'routers' >"$work/cwd/hosts.ini"
  printf '%s\n' '# another' 'core1' '[lab]' 'lab-[a:b]' >"$work/cwd/lab.ini"
  complete_line() {  # line
    (cd "$work/cwd" && KELP_INVENTORY=hosts.ini COMP_LINE=$1 COMP_POINT=${#1} timeout 10 bash -c \
      'source "$1" && COMP_WORDS=() COMP_CWORD=0 && _kelputil kelputil && printf "%s\n" "${COMPREPLY[@]}"' \
      _ "$script")
  }
  all_commands="check apply reboot backup restore get-script put-script report ppp hotspot kick-ppp \
kick-hotspot kick-ip firmware throughput bundle-pack bundle-verify bundle-unpack fleet serve help"
  # command line | offered (all of) | not offered (none of); "-" for none, "%" a blank in a word
  rows=(
    "kelputil |$all_commands|-H --help"
    "kelputil ch|check|apply"
    "kelputil --h|--host --help|-H check"
    "kelputil --|--host --port --plain --tls --pin --known-hosts --password-file --timeout --apply --reboot --json --quiet --verbose --version --help|--inventory --upgrade --window"
    "kelputil -H 192.0.2.1 |$all_commands|-"
    "kelputil --host=192.0.2.1 -p 857 --tls |$all_commands|-"
    "kelputil -H fe80::1 --timeout 5 re|restore report reboot|check"
    "kelputil -H |-|check nightly.dat"
    "kelputil --pin |-|check"
    "kelputil --password-file |nightly.dat fw.scr nightly.d|check"
    "kelputil --password-file=ni|nightly.dat nightly.d|fw.scr"
    "kelputil --known-hosts n|nightly.dat|check"
    "kelputil report |full core kernel|fw nightly.dat"
    "kelputil --json report  k|kernel|full core"
    "kelputil report kernel |-|full"
    "kelputil get-script |cbq fw nat dhcp|full nightly.dat"
    "kelputil -H h put-script n|nat|cbq fw"
    "kelputil get-script fw |nightly.dat fw.scr|cbq"
    "kelputil throughput |rx tx|full"
    "kelputil throughput --|--window|--upgrade --inventory"
    "kelputil throughput rx --window 64K -|-q -v|-"
    "kelputil firmware --|--upgrade|--window --dry-run"
    "kelputil firmware |nightly.dat|check"
    "kelputil backup n|nightly.dat nightly.d|fw.scr"
    "kelputil restore |nightly.dat|check"
    "kelputil bundle-unpack nightly.dat |nightly.dat fw.scr|check"
    "kelputil kick-ppp |-|nightly.dat check"
    "kelputil fleet |backup history diff firmware check report get-script kick-ppp throughput|fleet bundle-pack bundle-verify bundle-unpack"
    "kelputil fleet --|--inventory --limit --jobs --list-hosts --host --help|--into --scripts --canary --upgrade --window"
    "kelputil fleet -|-i -j -H -q|-"
    "kelputil fleet -i |nightly.dat|backup"
    "kelputil fleet --inventory=f|fw.scr|nightly.dat"
    "kelputil fleet -i hosts.ini --limit core -j 4 |backup history diff firmware|kernel"
    "kelputil fleet -i hosts.ini backup --|--into --scripts --init --limit|--upgrade --canary --batch --settle --dry-run --window"
    "kelputil fleet backup --into |nightly.d|nightly.dat"
    "kelputil fleet firmware --|--upgrade --canary --batch --settle --dry-run|--window"
    "kelputil fleet report |full core kernel|backup"
    "kelputil fleet get-script |cbq fw nat dhcp|backup"
    "kelputil fleet throughput |rx tx|backup"
    "kelputil fleet history |edge1 r08 r11|routers backup full"
    "kelputil fleet -i lab.ini diff l|lab-a lab-b|lab core1"
    "kelputil backup my\\ f|my%file.dat|my file.dat nightly.dat"
    "kelputil restore 'my f|my%file.dat|nightly.dat"
    "kelputil fleet --limit |edge1 r08 r09 r10 r11 routers emea all|nightly.dat core1"
    "kelputil fleet -i lab.ini --limit |core1 lab-a lab-b lab all|edge1 r08"
    "kelputil fleet --limit emea:!r1|!r10 !r11|r08 emea:!r10"
    "kelputil fleet --limit 'emea:r0|emea:r08 emea:r09|r08"
    "kelputil fleet --limit=r1|r10 r11|--limit=r10"
    "kelputil help |backup fleet|nightly.dat"
    "kelputil help fleet b|backup|bundle-pack"
    "kelputil serve --t|--token-file --tls-cert --tls-key --timeout|--scripts --list-hosts"
    "kelputil serve --st|--state --stop-timeout|--scripts"
    "kelputil fleet backup |-|nightly.dat"
    "kelputil serve --config h|hosts.ini|nightly.dat"
  )
  for row in "${rows[@]}"; do
    IFS='|' read -r line offered refused <<<"$row"
    got=$(complete_line "$line") || fail "completing '$line' failed"
    mapfile -t words <<<"$got"
    got="|$(IFS='|' && echo "${words[*]}")|"
    [[ $offered == - ]] && offered=
    [[ $refused == - ]] && refused=
    [[ -n $offered || $got == "||" ]] || fail "'$line' offers $got, expected nothing"
    for word in $offered; do
      [[ $got == *"|${word//%/ }|"* ]] || fail "'$line' does not offer ${word//%/ }: $got"
    done
    for word in $refused; do
      [[ $got != *"|$word|"* ]] || fail "'$line' offers $word: $got"
    done
  done
  echo "${#rows[@]} completions as expected"
  ;;

*) fail "unknown check $1" ;;
esac
