#!/usr/bin/env bash
# Installs a build tree under prefix /usr into a scratch DESTDIR and checks what a desktop sees
# of it: exactly the expected files in their freedesktop places, the desktop entry and the
# AppStream metainfo valid and agreeing with each other and with the tree, the setup link
# scheme handled by the entry, and the installed executables running.
#
#   check-install.sh CMAKE BUILD_DIR SOURCE_DIR VERSION
set -uo pipefail
cmake=$1 build=$2 source=$3 version=$4
id=app.pavix.Pavix

scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
root="$scratch/root"
share="$root/usr/share"
entry="$share/applications/$id.desktop"
metainfo="$share/metainfo/$id.metainfo.xml"
icon="$share/icons/hicolor/scalable/apps/$id.svg"

failures=0
fail() {
  echo "FAIL: $*"
  failures=$((failures + 1))
}
# The value of KEY in the desktop entry's [Desktop Entry] group.
entry_value() {
  sed -n '/^\[Desktop Entry\]$/,/^\[/{s/^'"$1"'=//p}' "$entry"
}

if ! DESTDIR="$root" "$cmake" --install "$build" --prefix /usr >"$scratch/install.log" 2>&1; then
  cat "$scratch/install.log"
  echo "FAIL: cmake --install"
  exit 1
fi

# Exactly these files, nothing more: a library, a header or a test helper installed by mistake
# would ship in the package.
expected=$(printf '%s\n' usr/bin/pavix usr/bin/pavix-devserver \
  "usr/share/applications/$id.desktop" "usr/share/icons/hicolor/scalable/apps/$id.svg" \
  "usr/share/metainfo/$id.metainfo.xml" | sort)
actual=$(cd "$root" && find . \( -type f -o -type l \) | sed 's|^\./||' | sort)
if [ "$actual" != "$expected" ]; then
  fail "installed files differ from the expected ones:"
  diff <(echo "$expected") <(echo "$actual") | sed -n 's/^[<>]/  &/p'
fi
for program in pavix pavix-devserver; do
  [ -x "$root/usr/bin/$program" ] || fail "usr/bin/$program is not an executable file"
done
cmp -s "$source/src/ui/icons/pavix.svg" "$icon" || fail "$id.svg is not the application icon"

# The desktop entry: valid without a warning or hint, and pointing at what was installed.
if [ -f "$entry" ]; then
  report=$(desktop-file-validate "$entry" 2>&1)
  status=$?
  if [ $status -ne 0 ] || [ -n "$report" ]; then
    fail "desktop-file-validate (exit $status):"
    echo "$report"
  fi
  [ "$(entry_value Type)" = Application ] || fail "Type is not Application"
  [ "$(entry_value Name)" = Pavix ] || fail "Name is not Pavix"
  [ "$(entry_value Terminal)" = false ] || fail "Terminal is not false"
  [ "$(entry_value Exec)" = "pavix %u" ] || fail "Exec is '$(entry_value Exec)', not 'pavix %u'"
  [ -x "$root/usr/bin/$(entry_value Exec | cut -d' ' -f1)" ] ||
    fail "Exec names no installed executable"
  [ "$(entry_value Icon)" = "$id" ] || fail "Icon is '$(entry_value Icon)', not $id"
  [ -f "$share/icons/hicolor/scalable/apps/$(entry_value Icon).svg" ] ||
    fail "Icon names no installed icon"
  case ";$(entry_value MimeType)" in
    *";x-scheme-handler/pavix-mac;"*) ;;
    *) fail "MimeType does not hold x-scheme-handler/pavix-mac" ;;
  esac
else
  fail "no desktop entry"
fi

# The setup link scheme: the cache that the desktop-file-utils trigger writes on installation
# names the entry as its handler, and so does xdg-mime, which xdg-open (and the browsers, through
# it) ask on a desktop that has no handler lookup of its own.
if [ -d "$share/applications" ]; then
  mkdir -p "$scratch/data/applications" "$scratch/home"
  cp "$share"/applications/*.desktop "$scratch/data/applications/"
  update-desktop-database "$scratch/data/applications" >/dev/null 2>&1
  grep -qx "x-scheme-handler/pavix-mac=$id.desktop;" "$scratch/data/applications/mimeinfo.cache" ||
    fail "mimeinfo.cache names no handler of pavix-mac links"
  handler=$(env -u XDG_CONFIG_DIRS -u XDG_CURRENT_DESKTOP -u DESKTOP_SESSION DE=generic \
    HOME="$scratch/home" XDG_CONFIG_HOME="$scratch/home/config" \
    XDG_DATA_HOME="$scratch/home/data" XDG_DATA_DIRS="$scratch/data" \
    xdg-mime query default x-scheme-handler/pavix-mac 2>&1)
  [ "$handler" = "$id.desktop" ] ||
    fail "xdg-mime names '$handler' as the handler of pavix-mac links, not $id.desktop"
fi

# The metainfo: valid without a warning or an informational note, agreeing with the entry,
# the binaries and the project's version.
if [ -f "$metainfo" ]; then
  report=$(appstreamcli validate --no-net --strict "$metainfo" 2>&1)
  status=$?
  if [ $status -ne 0 ] || echo "$report" | grep -qE '^[EWI]:'; then
    fail "appstreamcli validate (exit $status):"
    echo "$report"
  fi
  grep -q "<id>$id</id>" "$metainfo" || fail "the metainfo's id is not $id"
  launchable=$(sed -n 's|.*<launchable type="desktop-id">\(.*\)</launchable>.*|\1|p' "$metainfo")
  [ "$launchable" = "$id.desktop" ] && [ -f "$share/applications/$launchable" ] ||
    fail "the launchable '$launchable' is not the installed desktop entry"
  binaries=$(sed -n 's|.*<binary>\(.*\)</binary>.*|\1|p' "$metainfo" | sort | tr '\n' ' ')
  [ "$binaries" = "pavix pavix-devserver " ] || fail "the provided binaries are '$binaries'"
  for binary in $binaries; do
    [ -x "$root/usr/bin/$binary" ] || fail "provided binary $binary is not installed"
  done
  releases=$(sed -n 's|.*<release version="\([^"]*\)".*|\1|p' "$metainfo" | head -1)
  [ "$releases" = "$version" ] || fail "the latest release is '$releases', not $version"
else
  fail "no metainfo"
fi

# The installed executables run from the installed tree.
if [ -x "$root/usr/bin/pavix" ]; then
  said=$("$root/usr/bin/pavix" --version 2>&1)
  [ "$said" = "pavix $version" ] || fail "installed pavix --version said '$said'"
fi
if [ -x "$root/usr/bin/pavix-devserver" ]; then
  "$root/usr/bin/pavix-devserver" --help >"$scratch/help.txt" 2>&1 ||
    fail "installed pavix-devserver --help failed"
  grep -q "^usage: pavix-devserver" "$scratch/help.txt" ||
    fail "installed pavix-devserver --help printed no usage"
fi

if [ $failures -ne 0 ]; then
  echo "$failures packaging checks failed"
  exit 1
fi
echo "installed tree, desktop entry and metainfo: all checks passed"
