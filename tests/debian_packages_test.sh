#!/bin/sh
# Builds the Debian packages as Debian builds them (dpkg-buildpackage, from a copy of the sources),
# holds them to lintian (no error, no warning), installs them into a scratch root and runs the
# installed rfsysinfo and a caller built against the installed development files.
#   debian_packages_test.sh SOURCE_DIR BUILD_DIR                    this machine's architecture
#   debian_packages_test.sh SOURCE_DIR BUILD_DIR ARCH SYSROOT       cross-built for ARCH (armhf, arm64)
#                                                                   with the target sysroot, run under qemu-user
set -eu
source_dir=$(realpath "$1") build_dir=$(realpath "$2") arch=${3:-$(dpkg --print-architecture)} sysroot=${4:-}
work=$build_dir/debian-packages
triplet=$(dpkg-architecture -a"$arch" -qDEB_HOST_MULTIARCH 2>/dev/null)

fail() { echo "FAIL: $*" >&2; exit 1; }

# The Qt 6 library is packaged where Qt 6 is at hand: always natively, for a target whose sysroot has it.
flavours="rfSystemInfo rfSystemInfo-qt6" profiles=""
if [ -n "$sysroot" ] && [ ! -e "$sysroot/usr/lib/$triplet/libQt6Core.so.6" ]; then
    flavours=rfSystemInfo profiles=,pkg.rfsysteminfo.noqt6
fi
libraries=$(echo "$flavours" | sed 's/rfSystemInfo-qt6/librfsysteminfo-qt6-1 librfsysteminfo-qt6-dev/; s/rfSystemInfo/librfsysteminfo1 librfsysteminfo-dev/')

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
        dpkg-buildpackage -us -uc -b -d -a"$arch" -Pcross,nocheck$profiles) >"$work/build.log" 2>&1 ||
        { tail -40 "$work/build.log"; fail "dpkg-buildpackage -a$arch"; }
fi

changes=$(ls "$work"/rfsysteminfo_*_"$arch".changes)
# Informational tags are shown; errors and warnings fail.
lintian --fail-on error,warning --info "$changes" >"$work/lintian.log" 2>&1 || lintian_status=$?
grep -v '^running with root privileges' "$work/lintian.log" || true
[ "${lintian_status:-0}" -eq 0 ] || fail "lintian reports errors or warnings on $arch"
version=$(dpkg-parsechangelog -l "$source_dir/debian/changelog" -S Version)
for package in $libraries rfsysinfo rfsysinfo-dbgsym; do
    [ -f "$work/${package}_${version}_$arch.deb" ] || fail "no $package package for $arch"
    case $package in *-dev | rfsysinfo*) ;; *)
        [ -f "$work/${package}-dbgsym_${version}_$arch.deb" ] || fail "no $package-dbgsym package for $arch"
        dpkg-deb --ctrl-tarfile "$work/${package}_${version}_$arch.deb" | tar -t | grep -x './symbols' >/dev/null ||
            fail "$package has no symbols file" ;;
    esac
done
dpkg-deb --contents "$work"/rfsysinfo_*.deb | grep ' ./usr/share/bash-completion/completions/rfsysinfo$' >/dev/null ||
    fail "rfsysinfo has no bash completion"
echo "ok: $(ls "$work"/*.deb | wc -l) packages for $arch, lintian clean"

# The scratch root is an overlay in a mount namespace of its own: of this system, where dpkg itself
# installs the packages (dependencies checked, maintainer scripts and the ldconfig trigger run), or
# of the target sysroot, where they are unpacked.
scratch=$work/scratch
mkdir -p "$scratch"
exec unshare --mount --propagation private sh -eu -c '
    source_dir=$1 build_dir=$2 work=$3 scratch=$4 sysroot=$5 triplet=$6 version=$7 flavours=$8
    root=$scratch/root
    mount -t tmpfs tmpfs "$scratch"
    mkdir "$scratch/upper" "$scratch/work" "$root"
    mount -t overlay overlay -o "lowerdir=${sysroot:-/},upperdir=$scratch/upper,workdir=$scratch/work" "$root"
    packages=$(ls "$work"/*.deb | grep -v -- -dbgsym_)

    if [ -z "$sysroot" ]; then
        mount --rbind /dev "$root/dev"
        mount -t proc proc "$root/proc"
        mkdir "$root/packages"
        cp $packages "$root/packages/"
        chroot "$root" sh -c "dpkg -i /packages/*.deb" >"$work/install.log" 2>&1 ||
            { cat "$work/install.log"; echo "FAIL: dpkg -i" >&2; exit 1; }
        # /usr and /etc of the scratch root stand in for those of the host here, where the device
        # root takes them from.
        mount --bind "$root/usr" /usr
        mount --bind "$root/etc" /etc
        exec "$source_dir/tests/install/run_installed.sh" "$source_dir" "$build_dir" "$work/callers" "" $flavours
    fi

    # Cross-built: the sample device is copied into the scratch root, whose programs run under
    # qemu-user (binfmt_misc, as registered by scripts/run-target-tests). The caller is cross-built
    # against the unpacked development files, found through pkg-config in the multiarch folder.
    for package in $packages; do
        dpkg-deb -x "$package" "$root"
    done
    cp -a "$source_dir/examples/device/." "$root/"
    printed=$(chroot "$root" /usr/bin/rfsysinfo --version)
    [ "$printed" = "rfsysinfo $version" ] || { echo "FAIL: rfsysinfo --version printed \"$printed\"" >&2; exit 1; }
    for flavour in $flavours; do
        libraries="$root/lib/$triplet:$root/usr/lib/$triplet:$root/usr/lib/$triplet/rfsysteminfo${flavour#rfSystemInfo}"
        # shellcheck disable=SC2046
        "$triplet-g++" -std=c++17 -fPIC "$source_dir/tests/install/caller.cpp" -o "$root/$flavour" \
            $(PKG_CONFIG_SYSROOT_DIR="$root" PKG_CONFIG_LIBDIR="$root/usr/lib/$triplet/pkgconfig:$root/usr/share/pkgconfig" \
              pkg-config --cflags --libs "$flavour") -Wl,-rpath-link,"$libraries"
        printed=$(chroot "$root" "/$flavour")
        [ "$printed" = "$(cat "$source_dir/tests/install/caller.expected")" ] ||
            { echo "FAIL: the caller of $flavour printed \"$printed\"" >&2; exit 1; }
    done
    echo "ok: the installed rfsysinfo and a caller of each of $flavours run on $triplet"
' sh "$source_dir" "$build_dir" "$work" "$scratch" "$sysroot" "$triplet" "$version" "$flavours"
