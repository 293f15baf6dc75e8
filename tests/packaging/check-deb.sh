#!/usr/bin/env bash
# Makes the Debian package of a build tree with cpack into a scratch folder and checks it: its
# control fields, the files it ships, and a Depends line that names the package of every
# shared library the executables load, of the Qt plugins they need and xdg-utils, each a package
# this system knows.
#
#   check-deb.sh CPACK BUILD_DIR VERSION
set -uo pipefail
cpack=$1 build=$2 version=$3
id=app.pavix.Pavix

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}

if ! "$cpack" --config "$build/CPackConfig.cmake" -B "$scratch/out" >"$scratch/cpack.log" 2>&1; then
  cat "$scratch/cpack.log"
  echo "FAIL: cpack"
  exit 1
fi
debs=("$scratch"/out/*.deb)
if [ ${#debs[@]} -ne 1 ] || [ ! -f "${debs[0]}" ]; then
  cat "$scratch/cpack.log"
  echo "FAIL: cpack made ${#debs[@]} .deb files, not one"
  exit 1
fi
deb=${debs[0]}
arch=$(dpkg --print-architecture)
[ "$(basename "$deb")" = "pavix_${version}_$arch.deb" ] ||
  fail "the package file is $(basename "$deb"), not pavix_${version}_$arch.deb"

field() { dpkg-deb -f "$deb" "$1"; }
[ "$(field Package)" = pavix ] || fail "Package is '$(field Package)'"
[ "$(field Version)" = "$version" ] || fail "Version is '$(field Version)', not $version"
[ "$(field Architecture)" = "$arch" ] || fail "Architecture is '$(field Architecture)'"
[ "$(field Section)" = video ] || fail "Section is '$(field Section)'"
maintainer='^[^<]+ <[^@>]+@[^>]+>$'
[[ "$(field Maintainer)" =~ $maintainer ]] ||
  fail "Maintainer '$(field Maintainer)' is not 'Name <address>'"
description=$(field Description)
[ "$(echo "$description" | wc -l)" -ge 2 ] && [ -n "$(echo "$description" | head -1)" ] ||
  fail "Description has no summary line and long description"

# The files: the installed tree under /usr, nothing else.
expected=$(printf '%s\n' ./usr/bin/pavix ./usr/bin/pavix-devserver \
  "./usr/share/applications/$id.desktop" "./usr/share/icons/hicolor/scalable/apps/$id.svg" \
  "./usr/share/metainfo/$id.metainfo.xml" | sort)
actual=$(dpkg-deb --fsys-tarfile "$deb" | tar -t | grep -v '/$' | sort)
if [ "$actual" != "$expected" ]; then
  fail "the package's files differ from the expected ones:"
  diff <(echo "$expected") <(echo "$actual") | sed -n 's/^[<>]/  &/p'
fi

# Depends: one name per alternative group, versions dropped.
depends=$(field Depends | tr ',' '\n' | sed 's/|.*//; s/(.*)//; s/[[:space:]]//g' | grep -v '^$' |
  sort -u)
echo "Depends: $(field Depends)"
for package in $depends; do
  dpkg-query -W "$package" >/dev/null 2>&1 ||
    fail "Depends names $package, which dpkg does not know"
done
grep -qx xdg-utils <<<"$depends" || fail "Depends lacks xdg-utils"
# The plugins Qt loads rather than links: the X11 platform and the SVG icon engine (the icons
# are SVG). Their packages here must be in Depends.
for plugin in platforms/libqxcb.so iconengines/libqsvgicon.so; do
  owner=$(dpkg -S "*/qt6/plugins/$plugin" 2>/dev/null | head -1 | cut -d: -f1)
  if [ -z "$owner" ]; then
    fail "no package here holds the Qt plugin $plugin"
  elif ! grep -qx "$owner" <<<"$depends"; then
    fail "Depends does not name $owner, which holds the Qt plugin $plugin"
  fi
done

# Every shared library the packaged executables load comes from a package in Depends.
dpkg-deb -x "$deb" "$scratch/root"
for program in pavix pavix-devserver; do
  binary="$scratch/root/usr/bin/$program"
  [ -f "$binary" ] || continue
  needed=$(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\].*/\1/p')
  [ -n "$needed" ] || fail "$program loads no shared library: not dynamically linked?"
  loaded=$(ldd "$binary")
  for soname in $needed; do
    # "libname.so.N => /path (address)", or "/path (address)" for the dynamic loader.
    path=$(awk -v so="$soname" '$1 == so && $2 == "=>" {print $3; exit}
      $1 ~ "/" && $2 ~ /^\(/ && substr($1, length($1) - length(so)) == "/" so {print $1; exit}' \
      <<<"$loaded")
    # Packages list a library under /lib or /usr/lib: ask dpkg for both.
    owner=""
    if [ -n "$path" ]; then
      for candidate in "$path" "${path#/usr}" "/usr$path"; do
        owner=$(dpkg -S "$candidate" 2>/dev/null | head -1 | cut -d: -f1)
        [ -n "$owner" ] && break
      done
    fi
    if [ -z "$owner" ]; then
      fail "$program loads $soname (${path:-not found}), which no package owns here"
    elif ! grep -qx "$owner" <<<"$depends"; then
      fail "$program loads $soname from $owner, which Depends does not name"
    fi
  done
done

if [ $failures -ne 0 ]; then
  echo "$failures package checks failed"
  exit 1
fi
echo "$(basename "$deb"): all checks passed"
