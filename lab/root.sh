#!/usr/bin/env bash
# SPDX-License-Identifier: GPL-2.0-or-later
# Makes, once, the root filesystem that a real OBS of a Debian suite runs in, and prints its path.
set -euo pipefail
# shellcheck source=lab/common.sh
. "$(dirname "$0")/common.sh"
# shellcheck source=lab/packages.sh
. "$(dirname "$0")/packages.sh"
# shellcheck source=lab/libobs.sh
. "$(dirname "$0")/libobs.sh"

usage() {
	cat <<TXT
usage: lab/root.sh SUITE [--path | --remove | --workshop]

Makes the lab's root filesystem for SUITE (trixie, forky, or bookworm with the oldest Qt) under
  $lab_cache
unless it is there already, and prints its path. Downloads are kept, so that an
interrupted run goes on where it stopped.

  --path      print where it is or would be, make nothing
  --remove    delete it and its downloads
  --workshop  add what only measuring and proving need (benchmarks' peers, sanitizers, analysers)
TXT
}

# Room for the packages, what they unpack to, and a margin, in MiB.
needed_mib=4000

# Bump when the steps after unpacking change, so that old roots are made anew.
recipe=3

# The machine's own mirror, so that a local one is used where there is one.
debian_mirror() {
	local mirror=${TALVORA_DEBIAN_MIRROR:-}
	# shellcheck disable=SC2016
	[ -n "$mirror" ] || mirror=$(apt-get indextargets --format '$(REPO_URI) $(ORIGIN) $(LABEL)' 'Created-By: Packages' |
		awk '$2 == "Debian" && $3 == "Debian" { print $1; exit }')
	if [ -z "$mirror" ]; then
		mirror=$(sed -nE 's/^URIs: *([^ ]*debian\/?).*/\1/p; s/^deb (\[[^]]*\] )?([^ ]*\/debian\/?) .*/\2/p' \
			/etc/apt/sources.list /etc/apt/sources.list.d/* 2>/dev/null | head -n 1)
	fi
	[ -n "$mirror" ] ||
		die "No Debian mirror in this machine's apt sources: set TALVORA_DEBIAN_MIRROR to the address of one and try again."
	printf '%s\n' "$mirror"
}

# An apt of its own for the suite, so that the machine's package lists stay as they are.
write_apt_config() {
	local dir=$1 suite=$2 mirror=$3
	mkdir -p "$dir/lists/partial" "$dir/archives/partial"
	: >"$dir/status"
	printf 'deb %s %s main\n' "$mirror" "$suite" >"$dir/sources.list"
	[ "$suite" != bookworm ] || printf 'deb-src %s %s main\n' "$mirror" "$obs_source_suite" >>"$dir/sources.list"
	cat >"$dir/apt.conf" <<TXT
Dir::State "$dir";
Dir::State::lists "$dir/lists";
Dir::State::status "$dir/status";
Dir::Cache "$dir";
Dir::Cache::archives "$dir/archives";
Dir::Etc::sourcelist "$dir/sources.list";
Dir::Etc::sourceparts "/dev/null";
Dir::Etc::trusted "/dev/null";
Dir::Etc::trustedparts "/usr/share/keyrings";
Acquire::Check-Valid-Until "false";
Acquire::Languages "none";
Acquire::Retries "3";
APT::Install-Recommends "false";
APT::Keep-Downloaded-Packages "true";
APT::Sandbox::User "root";
APT::Update::Error-Mode "any";
TXT
}

download() {
	local dir=$1 suite=$2
	local config=$dir/apt.conf size

	say "Reading Debian's package lists for $suite (10 MB) ..."
	APT_CONFIG=$config apt-get update -qq >&2 ||
		die "Could not read Debian's package lists for $suite: check the network and run the same command again."
	# What makes up the bare system comes with the list, so that nothing is fetched later without being announced.
	# shellcheck disable=SC2046
	set -- $(APT_CONFIG=$config apt-cache dumpavail |
		awk -v RS= '/\nEssential: yes/ || /\nPriority: required/ { sub(/^Package: /, ""); print $1 }') apt "${packages[@]}"

	size=$(APT_CONFIG=$config apt-get install --assume-no "$@" 2>&1 | grep -E '^E:|Need to get|disk space' || true)
	case $size in
	*E:*) die "Debian's $suite cannot give all packages of the lab: $size" ;;
	esac
	say "The lab for $suite, once: ${size//$'\n'/ }"
	APT_CONFIG=$config DEBIAN_FRONTEND=noninteractive apt-get install --download-only -y "$@" >&2 ||
		die "The download stopped: check the network and run the same command again, it goes on where it stopped."
}

build() {
	local suite=$1 root=$2 apt_dir=$3 mirror=$4
	local part=$root.part

	rm -rf --one-file-system "$part"
	say "Unpacking OBS and its tools into $root (1 to 2 minutes) ..."
	# A mount namespace of its own: whatever interrupts the run, no mount is left behind.
	# shellcheck disable=SC2016
	unshare --mount --propagation private -- mmdebstrap --mode=root --variant=apt --quiet \
		--include="$(IFS=,; printf '%s' "${packages[*]}")" \
		--aptopt='Acquire::Check-Valid-Until "false"' \
		--aptopt='APT::Install-Recommends "false"' \
		--dpkgopt='path-exclude=/usr/share/man/*' \
		--dpkgopt='path-exclude=/usr/share/doc/*' \
		--dpkgopt='path-include=/usr/share/doc/*/copyright' \
		--dpkgopt='path-exclude=/usr/share/info/*' \
		--dpkgopt='path-exclude=/usr/share/locale/*' \
		--dpkgopt='path-exclude=/usr/share/icons/*/scalable/*' \
		--skip=download/empty --skip=essential/unlink \
		--setup-hook='mkdir -p "$1/var/cache/apt/archives"' \
		--setup-hook="cp -al '$apt_dir'/archives/*.deb \"\$1/var/cache/apt/archives/\" 2>/dev/null || cp '$apt_dir'/archives/*.deb \"\$1/var/cache/apt/archives/\"" \
		--customize-hook='mkdir -p "$1/talvora" "$1/var/lib/talvora-ca"' \
		--customize-hook='CAROOT=/var/lib/talvora-ca chroot "$1" mkcert -install' \
		--customize-hook='chroot "$1" update-ccache-symlinks' \
		"$suite" "$part" "deb $mirror $suite main" >&2 ||
		die "Making the root filesystem failed: see the lines above, then run the same command again."
	[ "$suite" != bookworm ] || build_libobs "$part" "$apt_dir"
	mv "$part" "$root"
	# Everything in it has been unpacked.
	rm -f "$apt_dir"/archives/*.deb
}

# Adds the workshop's packages to a root filesystem that is there.
add_workshop() {
	local suite=$1 root=$2 stamp
	workshop_packages "$suite"
	stamp=$root/var/lib/talvora-workshop-$(printf '%s\n' "${packages[@]}" | sha256sum | cut -c1-12)
	[ ! -e "$stamp" ] || return 0
	[ "$(id -u)" = 0 ] || die "Adding tools to the lab's root filesystem needs root: run this with sudo."

	exec 9>"$lab_cache/$suite.lock"
	flock -n 9 || { say "Another run is adding tools to this root filesystem, waiting for it ..."; flock 9; }
	[ ! -e "$stamp" ] || return 0
	say "Adding the tools that measure and prove to the lab for $suite, once (about 300 MB) ..."
	# shellcheck disable=SC2016
	unshare --mount --propagation private -- sh -ec '
		mount --rbind /dev "$0/dev"
		mount -t proc proc "$0/proc"
		# Read by name, because what the machine has may be a link to where the root filesystem has nothing.
		cat /etc/resolv.conf >"$0/etc/resolv.conf"
		export DEBIAN_FRONTEND=noninteractive
		chroot "$0" apt-get update -qq -o Acquire::Check-Valid-Until=false -o Acquire::Retries=3
		chroot "$0" apt-get install -y -qq --no-install-recommends "$@"
		chroot "$0" apt-get clean' "$root" "${packages[@]}" >&2 ||
		die "The tools could not be added: check the network and run the same command again."
	touch "$stamp"
}

main() {
	local suite=${1:-} action=${2:-make}
	case $suite in
	'' | -h | --help) usage; exit 0 ;;
	esac
	check_suite "$suite"

	lab_packages "$suite"
	local key root
	key=$(printf '%s\n' "$recipe" "${packages[@]}" | sha256sum | cut -c1-12)
	root=$lab_cache/roots/$suite-$key

	case $action in
	--path) printf '%s\n' "$root"; exit 0 ;;
	--remove) rm -rf --one-file-system "$lab_cache/roots/$suite-"* "$lab_cache/apt/$suite"; exit 0 ;;
	make | --workshop) ;;
	*) usage >&2; exit 2 ;;
	esac

	if [ ! -d "$root" ]; then
		[ "$(id -u)" = 0 ] || die "The lab makes and enters a root filesystem: run this as root, for example with 'sudo ./dev ...'."
		command -v apt-get >/dev/null ||
			die "The lab is made with Debian's apt, which this machine does not have: use './dev --host' with your own OBS."
		if ! command -v mmdebstrap >/dev/null || [ ! -e /usr/share/keyrings/debian-archive-keyring.gpg ]; then
			say "Installing mmdebstrap (1 MB), which unpacks Debian packages into a folder ..."
			{ apt-get update -qq && DEBIAN_FRONTEND=noninteractive apt-get install -y -qq mmdebstrap debian-archive-keyring; } >&2 ||
				die "mmdebstrap could not be installed: check the network, or install it by hand ('apt-get install mmdebstrap debian-archive-keyring'), and try again."
		fi
		mkdir -p "$lab_cache/roots"
		local free
		free=$(df --output=avail -BM "$lab_cache" | tail -n 1 | tr -dc 0-9)
		[ "$free" -ge "$needed_mib" ] ||
			die "The lab needs $needed_mib MiB in $lab_cache and $free MiB are free: make room, or set TALVORA_LAB_CACHE to another folder."

		exec 9>"$lab_cache/$suite.lock"
		flock -n 9 || { say "Another run is making this root filesystem, waiting for it ..."; flock 9; }
		if [ ! -d "$root" ]; then
			local mirror apt_dir=$lab_cache/apt/$suite
			mirror=$(debian_mirror)
			write_apt_config "$apt_dir" "$suite" "$mirror"
			download "$apt_dir" "$suite"
			build "$suite" "$root" "$apt_dir" "$mirror"
		fi
	fi
	[ "$action" != --workshop ] || add_workshop "$suite" "$root"
	printf '%s\n' "$root"
}

main "$@"
