#!/usr/bin/env bash
# Guards against a .deb that misses the program, its desktop entry, its D-Bus service or the icon,
# whose program does not start, or whose dependencies lack the libraries or the glyph font.
# Usage: deb_test.sh CPACK BUILD_DIR   (packages what BUILD_DIR has built; builds nothing)
set -euo pipefail
cpack=$1 build=$2
work=$(mktemp -d /tmp/glimmerbox-deb-test.XXXXXX)
trap 'rm -rf "$work"' EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

(cd "$build" && "$cpack" -G DEB -B "$work/out" >"$work/cpack.log" 2>&1) ||
  { cat "$work/cpack.log"; fail "cpack"; }
deb=$(echo "$work"/out/glimmerbox_*.deb)
dpkg-deb -x "$deb" "$work/root"

entry=usr/share/applications/io.github.glimmerbox.Glimmerbox.desktop
[ -f "$work/root/$entry" ] || fail "no $entry"
service=usr/share/dbus-1/services/io.github.glimmerbox.Glimmerbox.service
grep -q '^Exec=/.*/bin/glimmerbox$' "$work/root/$service" || fail "no D-Bus service that starts it"
exec=$(sed -n 's/^Exec=\([^ ]*\).*/\1/p' "$work/root/$entry" | head -1)
icon=$(sed -n 's/^Icon=//p' "$work/root/$entry")
[ -x "$work/root/usr/bin/$exec" ] || fail "no usr/bin/$exec, which the desktop entry starts"
[ -f "$work/root/usr/share/icons/hicolor/scalable/apps/$icon.svg" ] || fail "no icon $icon.svg"

depends=$(dpkg-deb -f "$deb" Depends)
for d in libavcodec libpulse0 libqt6widgets6 libqt6svg6 fonts-symbola; do
  [[ $depends == *"$d"* ]] || fail "Depends lacks $d: $depends"
done

"$work/root/usr/bin/$exec" record --help >"$work/help" || fail "record --help exited with $?"
grep -q '^Usage: glimmerbox record' "$work/help" || fail "no usage: $(cat "$work/help")"
echo "ok: $(basename "$deb"), Depends: $depends"
