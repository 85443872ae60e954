#!/bin/sh
# Builds the Debian packages as Debian builds them (dpkg-buildpackage, from a copy of the sources),
# holds them to lintian (no error, no warning), installs them into a scratch root and runs the
# installed rfsysinfo and a caller built against the installed development files.
#   debian_packages_test.sh SOURCE_DIR BUILD_DIR                    this machine's architecture
#   debian_packages_test.sh SOURCE_DIR BUILD_DIR ARCH SYSROOT       cross-built for ARCH (armhf, arm64)
#                                                                   with the target sysroot, run under qemu-user
# The scratch roots are overlays in a mount namespace of their own: the host's system is not touched.
set -eu
source_dir=$(realpath "$1")
build_dir=$(realpath "$2")
arch=${3:-$(dpkg --print-architecture)}
sysroot=${4:-}
work=$build_dir/debian-packages
triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)

fail() {
    echo "FAIL: $*" >&2
    exit 1
}

rm -rf "$work"
mkdir -p "$work/src"
# dpkg-buildpackage writes into the source tree and its parent folder: it gets a copy of its own.
tar -C "$source_dir" --exclude='./build*' --exclude=./.git -cf - . | tar -C "$work/src" -xf -
if [ -z "$sysroot" ]; then
    (cd "$work/src" && dpkg-buildpackage -us -uc -b) >"$work/build.log" 2>&1 ||
        { tail -40 "$work/build.log"; fail "dpkg-buildpackage"; }
else
    # The build dependencies are in the sysroot, not installed for $arch: -d.
    (cd "$work/src" && CC=$triplet-gcc CXX=$triplet-g++ DEB_BUILD_OPTIONS=nocheck RFSI_TARGET_SYSROOT=$sysroot \
        dpkg-buildpackage -us -uc -b -d -a"$arch" -Pcross,nocheck) >"$work/build.log" 2>&1 ||
        { tail -40 "$work/build.log"; fail "dpkg-buildpackage -a$arch"; }
fi

changes=$(ls "$work"/rfsysteminfo_*_"$arch".changes)
# Informational tags are shown; errors and warnings fail.
lintian --fail-on error,warning --info "$changes" >"$work/lintian.log" 2>&1 || lintian_status=$?
grep -v '^running with root privileges' "$work/lintian.log" || true
[ "${lintian_status:-0}" -eq 0 ] || fail "lintian reports errors or warnings on $arch"
for package in librfsysteminfo1 librfsysteminfo-dev rfsysinfo librfsysteminfo1-dbgsym rfsysinfo-dbgsym; do
    [ -f "$work/${package}_$(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)_$arch.deb" ] ||
        fail "no $package package for $arch"
done
dpkg-deb --ctrl-tarfile "$work"/librfsysteminfo1_*.deb | tar -t | grep -x './symbols' >/dev/null ||
    fail "librfsysteminfo1 has no symbols file"
dpkg-deb --contents "$work"/rfsysinfo_*.deb | grep ' ./usr/share/bash-completion/completions/rfsysinfo$' >/dev/null ||
    fail "rfsysinfo has no bash completion"
echo "ok: $(ls "$work"/*.deb | wc -l) packages for $arch, lintian clean"

scratch=$work/scratch
mkdir -p "$scratch"
if [ -z "$sysroot" ]; then
    # The scratch root is this system with the packages installed by dpkg itself (dependencies
    # checked, maintainer scripts and the ldconfig trigger run); its /usr and /etc then stand in for
    # the host's in this mount namespace, where the device root takes them from.
    exec unshare --mount --propagation private sh -eu -c '
        source_dir=$1 build_dir=$2 work=$3 scratch=$4
        mount -t tmpfs tmpfs "$scratch"
        mkdir "$scratch/upper" "$scratch/work" "$scratch/root"
        mount -t overlay overlay -o "lowerdir=/,upperdir=$scratch/upper,workdir=$scratch/work" "$scratch/root"
        mount --rbind /dev "$scratch/root/dev"
        mount -t proc proc "$scratch/root/proc"
        mkdir "$scratch/root/packages"
        cp "$work"/librfsysteminfo1_*.deb "$work"/librfsysteminfo-dev_*.deb "$work"/rfsysinfo_*.deb "$scratch/root/packages/"
        chroot "$scratch/root" sh -c "dpkg -i /packages/*.deb" >"$work/install.log" 2>&1 ||
            { cat "$work/install.log"; echo "FAIL: dpkg -i" >&2; exit 1; }
        mount --bind "$scratch/root/usr" /usr
        mount --bind "$scratch/root/etc" /etc
        "$source_dir/tests/install/run_installed.sh" "$source_dir" "$build_dir" "$work/callers"
    ' sh "$source_dir" "$build_dir" "$work" "$scratch"
fi

# Cross-built: the target sysroot with the packages unpacked and the sample device copied in is the
# scratch root; its programs run there under qemu-user (binfmt_misc, as registered by
# scripts/run-target-tests). The caller is cross-built against the unpacked development files,
# found through pkg-config in the target's multiarch folder.
exec unshare --mount --propagation private sh -eu -c '
    source_dir=$1 work=$2 scratch=$3 sysroot=$4 triplet=$5
    mount -t tmpfs tmpfs "$scratch"
    mkdir "$scratch/upper" "$scratch/work" "$scratch/root"
    mount -t overlay overlay -o "lowerdir=$sysroot,upperdir=$scratch/upper,workdir=$scratch/work" "$scratch/root"
    root=$scratch/root
    for package in "$work"/librfsysteminfo1_*.deb "$work"/librfsysteminfo-dev_*.deb "$work"/rfsysinfo_*.deb; do
        dpkg-deb -x "$package" "$root"
    done
    cp -a "$source_dir/examples/device/." "$root/"
    libraries="$root/lib/$triplet:$root/usr/lib/$triplet:$root/usr/lib/$triplet/rfsysteminfo"
    # shellcheck disable=SC2046
    "$triplet-g++" -std=c++17 -fPIC "$source_dir/tests/install/caller.cpp" -o "$root/caller" \
        $(PKG_CONFIG_SYSROOT_DIR="$root" PKG_CONFIG_LIBDIR="$root/usr/lib/$triplet/pkgconfig:$root/usr/share/pkgconfig" \
          pkg-config --cflags --libs rfSystemInfo) -Wl,-rpath-link,"$libraries"
    version=$(chroot "$root" /usr/bin/rfsysinfo --version)
    caller=$(chroot "$root" /caller)
    [ "$version" = "rfsysinfo $(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)" ] ||
        { echo "FAIL: rfsysinfo --version printed \"$version\"" >&2; exit 1; }
    [ "$caller" = "C KV721 2.1/1.0/3.0" ] || { echo "FAIL: the caller printed \"$caller\"" >&2; exit 1; }
    echo "ok: the installed rfsysinfo and a caller run on $triplet"
' sh "$source_dir" "$work" "$scratch" "$sysroot" "$triplet"
