# SPDX-License-Identifier: GPL-2.0-or-later
"""Installs, upgrades and purges the packages, and sees in OBS each time what it has.

Changes the system that it runs in: tests/install/packages.sh gives it one to throw away.

usage: packages.py FOLDER_OF_OLDER_PACKAGES FOLDER_OF_PACKAGES
"""

import gzip
import json
import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

from recipes import MODULE, Failure, assert_gone, assert_loaded, expect, folder_of_obs_modules, leave_only, say

sys.path.insert(0, str(Path(__file__).resolve().parents[2]))

from lab.obs import obs_version, wait_until  # noqa: E402

# What the packages say that they need, which cannot be fetched here.
_NEEDED = """
	obs-studio libqt6websockets6 libpocketsphinx3 libespeak-ng1 espeak-ng-data pocketsphinx-en-us
	apertium apertium-eng-spa apertium-es-pt apertium-fr-es apertium-spa-ita mkcert""".split()
USER = 1000


def run(*command, **options):
	return subprocess.run([str(part) for part in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
			      **options)


def done(*command, **options):
	result = run(*command, **options)
	expect(result.returncode == 0, f"{' '.join(map(str, command))} fails:\n{result.stdout}")
	return result.stdout


def install(folder):
	"""As one installs files of packages by hand; their dependencies must be there."""
	files = [next(folder.glob(f"{name}_*.deb")).resolve() for name in ("talvora-obs", "talvora-local-service")]
	done("apt-get", "install", "-y", "-qq", "--no-install-recommends", *files)


def assert_listed_by_obs(home):
	if obs_version() < (32,):
		return
	modules = json.loads((home / ".config/obs-studio/plugin_manager/modules.json").read_text(encoding="utf-8"))
	ours = next(one for one in modules if one["module_name"] == "talvora-obs")
	expect((ours["display_name"], ours["version"]) == ("Talvora", "1.0.6"), f"OBS's plug-in manager has {ours}.")


def assert_service_runs(packages, folder):
	help_text = done("talvora-local-service", "--help")
	# This system leaves manual pages out when it installs a package.
	unpacked = folder / "unpacked"
	folder.mkdir()
	done("dpkg-deb", "--extract", next(packages.glob("talvora-local-service_*.deb")), unpacked)
	with gzip.open(unpacked / "usr/share/man/man1/talvora-local-service.1.gz", "rt", encoding="utf-8") as file:
		page = file.read().replace("\\-", "-")
	options = set(re.findall(r"--[a-z-]+", help_text)) - {"--help-all"}
	missing = sorted(option for option in options if option not in page)
	expect(not missing, f"The manual page lacks {' '.join(missing)}.")
	unit = Path("/usr/lib/systemd/user/talvora-local-service.service").read_text(encoding="utf-8")
	command = re.search("^ExecStart=(.*)$", unit, re.MULTILINE).group(1).replace("%E", str(folder)).split()
	certificates = folder / "talvora-local-service"
	certificates.mkdir()
	done("mkcert", "localhost", cwd=certificates, env={**os.environ, "CAROOT": "/var/lib/talvora-ca"})
	with open(folder / "service.log", "w+", encoding="utf-8") as log, subprocess.Popen(command, stdout=log, stderr=log) as service:
		wait_until(lambda: "listening on wss://localhost:3002" in (folder / "service.log").read_text(encoding="utf-8"), 30,
			   "the service of the package listens")
		service.terminate()
		expect(service.wait(20) == 0, f"The service ended with status {service.returncode}.")
	say("  The service starts by its unit's command, and its manual page has all options.")


def as_user(home, *command):
	return run("setpriv", "--reuid", USER, "--regid", USER, "--clear-groups", "env", f"HOME={home}", *command, cwd=home)


def assert_refused(home, script, words):
	result = as_user(home, script)
	expect(result.returncode != 0 and words in result.stdout, f"The script should refuse with '{words}', and says\n{result.stdout}")
	expect(not (home / ".config/obs-studio/plugins").exists(), "The script has refused and installed all the same.")
	say(f"  It refuses: {result.stdout.splitlines()[0]}")


def try_archive_for_one_user(folder, home):
	home.mkdir()
	done("tar", "-C", home, "-xf", next(folder.glob("talvora-obs-*-*-x86_64.tar.gz")))
	script = next(home.glob("*/install.sh"))
	os.chown(home, USER, USER)

	expect("not as root" in run(script).stdout, "The script installs for root.")
	obs = Path(shutil.which("obs"))
	obs.rename("/usr/bin/obs-away")
	assert_refused(home, script, "There is no 'obs' on this machine")
	(home / ".var/app/com.obsproject.Studio").mkdir(parents=True)
	assert_refused(home, script, "Your OBS is a Flatpak")
	Path("/usr/bin/obs-away").rename(obs)
	shutil.rmtree(home / ".var")
	library = next(Path("/usr/lib").glob("*/libQt6WebSockets.so.6"))
	away = library.with_name("away")
	library.rename(away)
	# The linker has a list of what there is.
	done("ldconfig", "-X")
	assert_refused(home, script, "libQt6WebSockets.so.6 is missing: sudo apt install libqt6websockets6")
	away.rename(library)
	done("ldconfig")

	result = as_user(home, script)
	expect(result.returncode == 0, f"The script fails:\n{result.stdout}")
	assert_loaded(home, home / ".config/obs-studio/plugins/talvora-obs/bin/64bit" / MODULE)
	assert_listed_by_obs(home)
	done(script, "--remove", env={**os.environ, "HOME": str(home)})
	shutil.rmtree(script.parent)
	assert_gone(home)


def main():
	older, newer = (Path(argument).resolve() for argument in sys.argv[1:])
	leave_only(_NEEDED)
	streamer = Path("/home/streamer")
	streamer.mkdir()
	system = folder_of_obs_modules() / MODULE

	say("The version before:")
	install(older)
	assert_loaded(streamer / "everybody", system, "1.0.5")
	say("Upgraded:")
	install(newer)
	assert_loaded(streamer / "everybody", system)
	assert_listed_by_obs(streamer / "everybody")
	assert_service_runs(newer, streamer / "service")
	say("Purged:")
	done("apt-get", "purge", "-y", "-qq", "talvora-obs", "talvora-local-service")
	assert_gone(streamer / "everybody")
	left = [str(path) for folder in ("/usr", "/etc", "/var/lib/dpkg/info") for path in Path(folder).rglob("talvora-local-service*")]
	expect(not left, f"These are left: {' '.join(left)}")
	say("For one user:")
	try_archive_for_one_user(newer, streamer / "alone")
	say("The packages do what they promise.")


if __name__ == "__main__":
	try:
		main()
	except Failure as failure:
		sys.exit(str(failure))
