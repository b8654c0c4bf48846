#!/bin/bash
# raise_version.sh PACKAGES NEWER VERSION: packs the Debian packages in the folder PACKAGES once more, into
# the new folder NEWER, as those of a later version with a changed default configuration.
set -euo pipefail
export LC_ALL=C

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir "$2"
for package in "$1"/*.deb; do
  tree=$work/$(basename "$package" .deb)
  dpkg-deb --raw-extract "$package" "$tree"
  old=$(dpkg-deb --field "$package" Version)
  sed -i "s/^Version: .*/Version: $3/; s/(= $old)/(= $3)/g" "$tree"/DEBIAN/control
  [ ! -e "$tree/DEBIAN/shlibs" ] || sed -i "s/(= $old)/(= $3)/" "$tree/DEBIAN/shlibs"
  configuration=$tree/etc/quillon/mailserver.toml
  [ ! -e "$configuration" ] || sed -i "1i # Settings as of version $3." "$configuration"
  dpkg-deb --build -Zgzip -z1 "$tree" "$2" >/dev/null
done
