# SPDX-License-Identifier: GPL-2.0-or-later
# shellcheck shell=bash disable=SC2034
# Packages of the lab's root filesystems, in groups so that the reason for each stays visible.
# Sourced by lab/root.sh.

# Sets the array `packages` for the suite in $1: what every root filesystem holds.

lab_packages() {
	local suite=$1

	if [ "$suite" = bookworm ]; then
		oldest_packages
		return
	fi
	packages=(
		# The program under test and what its module is built with.
		obs-studio obs-plugins qt6-svg-plugins libobs-dev libsimde-dev
		qt6-base-dev qt6-websockets-dev
		cmake ninja-build g++ pkg-config ccache git

		# A display and hands for it.
		xvfb xauth x11-utils xdotool openbox imagemagick
		libgl1-mesa-dri libglx-mesa0 libegl-mesa0 fonts-dejavu-core

		# The accessibility bus: how tests find what a user sees, by the names that a screen reader reads.
		at-spi2-core dbus python3-gi gir1.2-atspi-2.0

		# Certificates and network.
		ca-certificates openssl mkcert iproute2

		# What renders captions where OBS has no browser source of its own.
		chromium-headless-shell libpng-dev

		# Speech: recognition, translation, synthesis, and recorded human voices.
		libpocketsphinx-dev pocketsphinx-en-us pocketsphinx-testdata
		asterisk-core-sounds-en-g722
		libespeak-ng-dev espeak-ng-data
		apertium apertium-eng-spa apertium-es-pt apertium-fr-es apertium-spa-ita

		# Tests and checks.
		ffmpeg procps python3-minimal python3-websockets python3-pytest python3-pytest-rerunfailures python3-numpy
		clang clang-tidy clang-format
	)

	case $suite in
	trixie) packages+=(libsphinxbase-dev) ;;
	forky) ;;
	esac
}

# The oldest Qt and compiler that the plug-in is promised to be built with, and what libobs is built from there.
oldest_packages() {
	packages=(
		cmake ninja-build g++ pkg-config ccache git ca-certificates
		qt6-base-dev qt6-websockets-dev

		# libobs.
		libavcodec-dev libavdevice-dev libavfilter-dev libavformat-dev libavutil-dev libswresample-dev libswscale-dev
		libcurl4-openssl-dev libegl-dev libgl-dev libjansson-dev libpci-dev libsimde-dev libudev-dev libx11-dev libx11-xcb-dev
		libxcb-xinput-dev libxkbcommon-dev uthash-dev uuid-dev zlib1g-dev

		# Tests.
		xvfb xauth libgl1-mesa-dri libglx-mesa0 libegl-mesa0 fonts-dejavu-core openssl mkcert iproute2
	)
}

# Sets the array `packages` for the suite in $1: what is added for measuring and proving, when that is first asked for.
workshop_packages() {
	packages=(
		# Coverage, sanitizers, fuzzing, and other readers of the code.
		gcovr cppcheck clazy shellcheck pyflakes3 reuse

		# Making packages and judging them.
		build-essential debhelper lintian appstream flatpak-builder

		# Pictures of the documentation.
		graphviz

		# Peers that benchmarks put beside the program's own code, and what times them.
		libbenchmark-dev libboost-dev libreaderwriterqueue-dev libsamplerate0-dev libswresample-dev
		pocketsphinx espeak-ng

		# Scripts that the other fonts lack, so that pictures of OBS in all languages can be looked at.
		fonts-lohit-deva fonts-lohit-taml fonts-wqy-microhei
	)

	case $1 in
	trixie) packages+=(libclang-rt-19-dev) ;;
	forky) packages+=(libclang-rt-21-dev) ;;
	esac
}
