#!/bin/sh
# packaging/fresh_root.sh [DIR [ROOT]]: makes a root of this Debian release with nothing but the packages of DIR
# (out/packages), what they depend on, and a compiler; compiles and runs the twenty-line owner in it, and asks udtlab for
# a call. Needs root. ROOT (a new folder below /tmp) is removed at the end.
set -eu
cd "$(dirname "$0")/.."
packages=$(cd "${1:-out/packages}" && pwd)
root=${2:-$(mktemp -d /tmp/udtrecv-root.XXXXXX)}
trap 'rm -rf "$root"' EXIT
trap 'exit 1' INT TERM HUP

release=$(. /etc/os-release && echo "$VERSION_CODENAME")
# The mirror that apt itself uses.
mirror=$(apt-get indextargets --format '$(SITE) $(RELEASE)' 'Created-By: Packages' |
    awk -v release="$release" '$2 == release { print $1; exit }')
[ -n "$mirror" ] || { echo "fresh_root.sh: apt knows no mirror of $release" >&2; exit 1; }

debootstrap --variant=minbase --include=ca-certificates "$release" "$root" "$mirror"
for proxy in /etc/apt/apt.conf.d/*proxy*
do
    [ ! -f "$proxy" ] || cp "$proxy" "$root/etc/apt/apt.conf.d/"
done
mkdir "$root/packages"
cp "$packages"/*.deb "$root/packages/"

in_root() { chroot "$root" env DEBIAN_FRONTEND=noninteractive LC_ALL=C "$@"; }
in_root apt-get update
# The packages alone first: what they depend on has to be enough to start udtlab.
in_root sh -c 'apt-get install -y --no-install-recommends /packages/*.deb'
in_root udtlab simulate --seconds 5
in_root sh -c 'ldd /usr/bin/udtlab | grep -q "not found"' && { echo "udtlab misses libraries" >&2; exit 1; }
in_root apt-get install -y --no-install-recommends g++ pkg-config

in_root sh -c '
    set -eu
    cd /tmp
    cp /usr/share/doc/libudtrecv-dev/examples/minimal_owner.cpp /usr/share/doc/libudtrecv-dev/examples/plain_c.c .
    g++ -std=c++17 $(pkg-config --cflags udtrecv) minimal_owner.cpp $(pkg-config --libs udtrecv) -o owner
    ldd ./owner | grep udtrecv
    ./owner
    gcc $(pkg-config --cflags udtrecv) plain_c.c $(pkg-config --libs udtrecv) -o plain_c
    ./plain_c
'
echo "a fresh $release with the packages and a compiler: the owner compiles and runs"
