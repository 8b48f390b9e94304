# SPDX-License-Identifier: GPL-2.0-or-later
# shellcheck shell=bash
# libobs for a suite that has none for Qt 6: built from the source that another suite has. Sourced by lab/root.sh.

# The suite whose source of OBS is taken; lab/root.sh puts it into the lists of apt.
# shellcheck disable=SC2034
obs_source_suite=trixie

# Fetches and unpacks OBS's source with the suite's own apt, which knows where it is; prints the folder it is in.
fetch_obs_source() {
	local apt_dir=$1
	rm -rf "$apt_dir/obs"
	mkdir -p "$apt_dir/obs/unpacked"
	(
		cd "$apt_dir/obs"
		APT_CONFIG=$apt_dir/apt.conf apt-get source --download-only --tar-only -qq --only-source -t "$obs_source_suite" obs-studio >&2
		tar -C unpacked --strip-components=1 -xf obs-studio_*.orig.tar.*
	) || die "OBS's source could not be fetched: check the network and run the same command again."
	printf '%s\n' "$apt_dir/obs/unpacked"
}

# What Debian takes out of OBS's source, and comes from packages instead, is taken out of its lists as well.
mend_obs_source() {
	local source=$1
	mkdir -p "$source/deps/blake2"
	touch "$source/deps/blake2/CMakeLists.txt"
	sed -i 's|util/simde/[^ )]*||' "$source/libobs/cmake/legacy.cmake"
}

# Builds libobs, its OpenGL and the front-end's interface inside the root filesystem, and installs them there.
build_libobs() {
	local root=$1 apt_dir=$2 source version
	source=$(fetch_obs_source "$apt_dir")
	version=$(basename "$apt_dir"/obs/*.orig.tar.* | sed -E 's/obs-studio_([0-9.]+).*/\1/')
	mend_obs_source "$source"
	# Nothing in this suite's packages names the loopback interface, which tests connect to.
	printf '127.0.0.1\tlocalhost\n::1\tlocalhost\n' >"$root/etc/hosts"
	say "Building libobs $version (2 minutes) ..."
	mkdir -p "$root/usr/src/obs"
	cp -r "$source/." "$root/usr/src/obs/"
	# shellcheck disable=SC2016
	unshare --mount --propagation private -- sh -ec '
		mount --rbind /dev "$0/dev"
		mount -t proc proc "$0/proc"
		chroot "$0" cmake -S /usr/src/obs -B /tmp/obs -G Ninja -Wno-dev -Wno-deprecated --log-level=WARNING \
			-DENABLE_UI=OFF -DENABLE_PLUGINS=OFF -DENABLE_SCRIPTING=OFF -DENABLE_HEVC=OFF -DENABLE_WAYLAND=OFF \
			-DENABLE_PULSEAUDIO=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr -DOBS_VERSION_OVERRIDE="$1"
		nice chroot "$0" cmake --build /tmp/obs
		chroot "$0" cmake --install /tmp/obs
		rm -rf "$0/tmp/obs" "$0/usr/src/obs"' "$root" "$version" >"$apt_dir/obs/build.log" 2>&1 ||
		die "Building libobs failed: see $apt_dir/obs/build.log."
	rm -rf "$apt_dir/obs"
}
