#!/usr/bin/env bash
# Builds the Debian packages of a build tree with CPack and checks them: control
# fields, dependencies (every library a packaged program or library needs is
# depended on), contents, the manual pages against the programs' --help; then
# unpacks them into a scratch root with dpkg -x (nothing is installed, no root
# needed) and builds and runs the consumer against that root.
# Usage: check.sh BUILD_DIR CONSUMER_SOURCE_DIR CMAKE CPACK VERSION LIBDIR
set -euo pipefail
build=$1 consumer=$2 cmake=$3 cpack=$4 version=$5 libdir=usr/$6
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
fail() { echo "packaging-check: $*" >&2; exit 1; }
trap 'echo "packaging-check: failed at line $LINENO" >&2' ERR

"$cpack" -G DEB --config "$build/CPackConfig.cmake" -B "$work/out" >"$work/cpack.log" 2>&1 ||
  { cat "$work/cpack.log" >&2; fail "cpack failed"; }

lib=libdb-intf${version%%.*}
arch=$(dpkg --print-architecture)
# Package name, then the only files it may hold (an extended regex over the
# paths), then the files it must hold.
packages=(
  "$lib;^$libdir/lib(db-intf|elem-platform)\.so\.[0-9.]+$;$libdir/libdb-intf.so.1 $libdir/libelem-platform.so.1"
  "libdb-intf-dev;^(usr/include/(db|elem-platform)/[a-z_]+\.h|$libdir/(lib(db-intf|elem-platform)\.so|cmake/db-intf/[-a-zA-Z]+\.cmake|pkgconfig/db-intf\.pc))$;usr/include/db/db.h $libdir/libdb-intf.so $libdir/cmake/db-intf/db-intfConfig.cmake $libdir/pkgconfig/db-intf.pc"
  "db-intf-tools;^usr/(bin/(db-shell|ipc-router|ipc-status)|share/man/man1/(db-shell|ipc-router|ipc-status)\.1\.gz)$;usr/bin/db-shell usr/bin/ipc-router usr/bin/ipc-status usr/share/man/man1/db-shell.1.gz usr/share/man/man1/ipc-router.1.gz usr/share/man/man1/ipc-status.1.gz"
)
summaries=()
root=$work/root
for entry in "${packages[@]}"; do
  IFS=';' read -r name allowed required <<<"$entry"
  deb=$work/out/${name}_${version}_${arch}.deb
  [ -f "$deb" ] || fail "no package ${name}_${version}_${arch}.deb"
  field() { dpkg-deb -f "$deb" "$1"; }
  [ "$(field Package)" = "$name" ] && [ "$(field Version)" = "$version" ] &&
    [ "$(field Architecture)" = "$arch" ] || fail "$name: wrong Package, Version or Architecture"
  [[ "$(field Maintainer)" =~ ^[^\<]+\ \<[^@\>]+@[^\>]+\>$ ]] || fail "$name: no Maintainer"
  summary=$(field Description | sed -n 1p)
  [ -n "$summary" ] && [ "$(field Description | wc -l)" -gt 1 ] || fail "$name: no Description"
  summaries+=("$summary")
  [ -n "$(field Section)" ] || fail "$name: no Section"
  depends=", $(field Depends),"

  files=$(dpkg-deb -c "$deb" | awk '$1 !~ /^d/ {print $6}' | sed 's|^\./||')
  bad=$(grep -Ev "$allowed" <<<"$files" || true)
  [ -z "$bad" ] || fail "$name holds files it must not: $bad"
  for f in $required; do grep -qx "$f" <<<"$files" || fail "$name lacks $f"; done

  dpkg-deb -x "$deb" "$root"
  [ "$name" = "$lib" ] || [[ "$depends" == *", $lib (= $version),"* ]] ||
    fail "$name does not depend on $lib (= $version): $depends"
  # Every shared library that a packaged ELF file needs comes from a package
  # it depends on (ours from libdb-intf1, checked above).
  for f in $files; do
    [ -L "$root/$f" ] || ! readelf -h "$root/$f" >/dev/null 2>&1 || {
      for soname in $(readelf -d "$root/$f" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p'); do
        case $soname in libdb-intf.so.*|libelem-platform.so.*) continue ;; esac
        owners=$(dpkg-query -S "*/$soname" 2>/dev/null | sed 's/[:,].*//' | sort -u)
        [ -n "$owners" ] || fail "no installed package holds $soname"
        found=no
        for owner in $owners; do [[ "$depends" == *", $owner "* ]] && found=yes; done
        [ $found = yes ] || fail "$name: $f needs $soname ($owners) but depends on: $depends"
      done
    }
  done
done
[ "$(printf '%s\n' "${summaries[@]}" | sort -u | wc -l)" -eq 3 ] || fail "packages share a summary"

# The manual pages list as options exactly the options that --help lists, and
# have a synopsis.
options() { grep -oE -- '--?[a-zA-Z][-a-zA-Z]*' | sort -u; }
for program in db-shell ipc-router ipc-status; do
  help=$(LD_LIBRARY_PATH=$root/$libdir "$root/usr/bin/$program" --help) || fail "$program --help failed"
  page=$(gzip -dc "$root/usr/share/man/man1/$program.1.gz")
  grep -qx '.SH SYNOPSIS' <<<"$page" || fail "$program.1 has no synopsis (a 'Usage:' line in --help)"
  in_help=$(grep -E '^ +-' <<<"$help" | sed -E 's/^ +//; s/ {2,}.*//' | options)
  in_page=$(awk '/^\.SH/ {opts = /DESCRIPTION|OPTIONS/} opts && tp {print} {tp = /^\.TP/}' <<<"$page" |
            sed -E 's/\\f[BIRP]//g; s/\\-/-/g' | options)
  [ -n "$in_help" ] && [ "$in_help" = "$in_page" ] ||
    fail "$program.1 lists options '$(echo $in_page)', --help '$(echo $in_help)'"
done

"$(dirname "$0")/../consumer/build-and-run.sh" "$root/usr" "$consumer" "$cmake" "$work"
echo "packaging-check: $lib, libdb-intf-dev and db-intf-tools $version built, checked, unpacked; consumers built and ran"
