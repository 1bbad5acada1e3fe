#!/bin/sh
# packaging/build.sh [DIR]: builds the Debian packages into DIR (out/packages) and has lintian look at them: an error of
# its fails. packaging/fresh_root.sh then tries them.
set -eu
cd "$(dirname "$0")/.."
out=${1:-out/packages}
build=build/package

# The distribution's own flags, without debug symbols: they would be stripped anyway.
flags() { dpkg-buildflags --get "$1" | sed 's/-g //'; }
cmake -S . -B "$build" -G Ninja -DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_BUILD_TYPE=None \
    "-DCMAKE_C_FLAGS=$(flags CPPFLAGS) $(flags CFLAGS)" "-DCMAKE_CXX_FLAGS=$(flags CPPFLAGS) $(flags CXXFLAGS)" \
    "-DCMAKE_SHARED_LINKER_FLAGS=$(flags LDFLAGS)" "-DCMAKE_EXE_LINKER_FLAGS=$(flags LDFLAGS)" \
    -DUDT_BUILD_TESTS=OFF -DUDT_BUILD_BENCH=OFF
cmake --build "$build"

rm -rf "$out"
mkdir -p "$out"
out=$(cd "$out" && pwd)
(cd "$build" && cpack -G DEB -B "$out")
rm -rf "$out/_CPack_Packages"
ls -l "$out"

lintian --version
lintian --allow-root --fail-on error --tag-display-limit 0 "$out"/*.deb
echo "lintian: no errors"
