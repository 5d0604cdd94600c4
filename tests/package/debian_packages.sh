#!/usr/bin/env bash
# Makes the Debian packages, checks them, installs them into an empty tree, runs the tool and
# removes them again: debian_packages.sh BUILD_DIR WORK_DIR SAMPLE
set -euo pipefail
build=$1 work=$2 sample=$3
here=$(cd "$(dirname "$0")" && pwd)
packages=$work/packages
rm -rf "$packages"
(cd "$build" && cpack -G DEB -B "$packages" >"$work/cpack.log" 2>&1) || { cat "$work/cpack.log"; exit 1; }
ls "$packages"/*.deb

# Computed, not written down: the tool needs the libraries that it was linked with.
depends() { dpkg-deb --field "$1" Depends; }
depends "$packages"/motrace_*.deb | grep -q 'libavformat59.*libc6 (>= .*libevent-core-2\.1-7' ||
  { echo "dependencies of motrace:"; depends "$packages"/motrace_*.deb; exit 1; }
depends "$packages"/libqvxmedia-dev_*.deb | grep -q 'libavcodec-dev (>= .*libevent-dev (>= ' ||
  { echo "dependencies of libqvxmedia-dev:"; depends "$packages"/libqvxmedia-dev_*.deb; exit 1; }

if command -v lintian >/dev/null; then
  lintian --fail-on error --suppress-tags bad-distribution-in-changes-file "$packages"/*.deb
else
  echo "lintian is not installed: packages not checked with it"
fi

root=$work/root
rm -rf "$root"
mkdir -p "$root"/var/lib/dpkg/{info,updates}
touch "$root"/var/lib/dpkg/{status,available}
# The libraries they depend on are those of this machine, not of the tree.
in_root=(dpkg --root="$root" --force-depends --force-not-root --force-bad-path)
"${in_root[@]}" --log=/dev/null --install "$packages"/*.deb >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
"$here/run_tool.sh" "$root/usr/bin/motrace" "$sample" "$work/out_deb"
mapfile -t names < <(for package in "$packages"/*.deb; do dpkg-deb --field "$package" Package; done)
"${in_root[@]}" --log=/dev/null --purge "${names[@]}" >"$work/dpkg.log" 2>&1 || { cat "$work/dpkg.log"; exit 1; }
left=$(find "$root" -path "$root/var/lib/dpkg" -prune -o -type f -print)
[ -z "$left" ] || { echo "left behind: $left"; exit 1; }
