# SPDX-License-Identifier: GPL-2.0-or-later
"""Does what README says about installing the module, and sees in OBS that it is there, and gone again.

Changes the system that it runs in: tests/install/run.sh gives it one to throw away.
"""

import os
import re
import shutil
import subprocess
import sys
from pathlib import Path

CHECKOUT = Path(__file__).resolve().parents[2]
sys.path.insert(0, str(CHECKOUT))

from lab.hands import Hands  # noqa: E402
from lab.obs import Obs, wait_until  # noqa: E402

MODULE = "talvora-obs.so"

# What this test itself needs to start an OBS and look at it; none of it helps to build.
_EQUIPMENT = """
	python3-minimal python3-websockets python3-gi gir1.2-atspi-2.0 at-spi2-core dbus xvfb xdotool openbox imagemagick
	libgl1-mesa-dri libglx-mesa0 libegl-mesa0 fonts-dejavu-core procps ccache""".split()


class Failure(Exception):
	"""What is wrong, in a sentence."""


def expect(condition, sentence):
	if not condition:
		raise Failure(sentence)


def say(text):
	print(text, flush=True)


# What README says

def section(readme):
	return re.search(r"^## Install it into your own OBS\n(.*?)^#{2,} ", readme, re.MULTILINE | re.DOTALL).group(1)


def debian_packages(text):
	return re.search(r"^\| Debian [^|]*\| `([^`]+)` \|$", text, re.MULTILINE).group(1).split()


def recipes(text):
	"""The blocks of commands in their order."""
	blocks = [block.strip("\n") for block in re.findall(r"(?:^    .*\n)+", text, re.MULTILINE)]
	expect(len(blocks) == 5, f"README's section about installing has {len(blocks)} blocks of commands and this test knows five: "
	       "build, install, uninstall, copy, remove. Make it do what README says now.")
	return [re.sub("^    ", "", block, flags=re.MULTILINE) for block in blocks]


# The system

def run_recipe(block, sources, home):
	"""As its reader would, who is the system's owner: the sudo of this system does without a password."""
	for line in block.splitlines():
		say(f"  $ {line}")
	# The compiler's cache is not in that home.
	environment = {**os.environ, "HOME": str(home), "CCACHE_DIR": str(Path.home() / ".cache" / "ccache")}
	done = subprocess.run(["bash", "-euc", block], cwd=sources, env=environment, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
			      text=True, check=False)
	expect(done.returncode == 0, f"README's commands fail:\n{block}\nsay\n{done.stdout}")


def make_sudo():
	sudo = Path("/usr/local/bin/sudo")
	sudo.write_text('#!/bin/sh\nexec "$@"\n', encoding="ascii")
	sudo.chmod(0o755)


def leave_only(packages):
	"""Removes every package that neither README names, nor OBS or this test needs."""
	for package in packages:
		state = subprocess.run(["dpkg-query", "-W", "-f", "${Status}", package], capture_output=True, text=True, check=False).stdout
		expect(state == "install ok installed", f"README's list for Debian names '{package}', which is not installed here: does Debian "
		       "have it, and does lab/packages.sh ask for it?")
	quiet = {"stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL, "check": True}
	subprocess.run(["apt-mark", "auto", ".*"], **quiet)
	subprocess.run(["apt-mark", "manual", *packages, *_EQUIPMENT], **quiet)
	subprocess.run(["apt-get", "autoremove", "-y", "-qq"], **quiet)


def copy_sources(folder):
	"""What is in the repository or would be; nothing that was built."""
	shutil.copytree(CHECKOUT, folder, ignore=lambda parent, names: {
		name for name in names if name == "__pycache__" or Path(parent) == CHECKOUT and name in ("build", "out", ".git")})
	return folder


# OBS

def folder_of_obs_modules():
	"""Where OBS's own modules are."""
	return next(Path("/usr/lib").glob("*/obs-plugins/image-source.so")).parent


def mapped_modules(obs):
	"""Files of the module that the running OBS has loaded."""
	maps = Path(f"/proc/{obs.pid}/maps").read_text(encoding="utf-8")
	return sorted({line.split(maxsplit=5)[5] for line in maps.splitlines() if line.endswith("/" + MODULE)})


def new_obs(home):
	return Obs(plugin=False, browser=False, home=home, accessible=True, talvora_config={"dockVisible": True})


def assert_loaded(home, module, version="1.0.6"):
	"""OBS loads this file and no other, and the dock shows the texts of the locale that came with it."""
	with new_obs(home) as obs:
		loaded = mapped_modules(obs)
		expect(loaded == [str(module)], f"OBS has loaded {loaded or 'nothing of the module'} where {module} was installed.")
		obs.wait_for_log(rf"\[talvora-obs\] Loading Talvora OBS plugin v{re.escape(version)}$")
		obs.wait_for_log(r"\[talvora-obs\] Talvora plugin initialized$")
		hands = Hands(obs)
		shown = wait_until(lambda: [one.name for one in hands.all("push button", within=hands.dock("Talvora"))], 10,
				   "the dock has buttons")
		expect("Sign in" in shown, f"The dock does not have its English texts but {shown}: OBS has not found the module's locale.")
	expect(f"Failed to load 'en-US' text for module: '{MODULE}'" not in obs.log, "OBS says that it has not found the module's locale.")
	expect(obs.exit_status == 0, f"OBS ended with status {obs.exit_status}.")
	say(f"  OBS has loaded {module}, and the dock has its texts.")


def assert_gone(home):
	left = [str(path) for folder in ("/usr/lib", "/usr/share", "/usr/local") for path in Path(folder).rglob("talvora-obs*")]
	left += [str(path) for path in home.glob(".config/obs-studio/plugins/*talvora*")]
	expect(not left, f"These are left: {' '.join(left)}")
	with new_obs(home) as obs:
		expect(not mapped_modules(obs), f"OBS still loads {mapped_modules(obs)}.")
	expect("[talvora-obs]" not in obs.log, "OBS still has the module.")
	say("  It is gone, and OBS does without it.")


def main():
	readme = section((CHECKOUT / "README.md").read_text(encoding="utf-8"))
	packages = debian_packages(readme)
	build, install, uninstall, copy, remove = recipes(readme)

	leave_only(packages)
	make_sudo()
	folder = Path("/home/streamer")
	folder.mkdir()
	sources = copy_sources(folder / "talvora")
	everybody, alone = folder / "everybody", folder / "alone"

	say(f"With {' '.join(packages)}:")
	run_recipe(build, sources, everybody)
	assert_gone(everybody)
	say("For everybody:")
	run_recipe(install, sources, everybody)
	assert_loaded(everybody, folder_of_obs_modules() / MODULE)
	run_recipe(uninstall, sources, everybody)
	assert_gone(everybody)
	say("For one user:")
	run_recipe(copy, sources, alone)
	assert_loaded(alone, alone / ".config/obs-studio/plugins/talvora-obs/bin/64bit" / MODULE)
	run_recipe(remove, sources, alone)
	assert_gone(alone)
	say("README's recipes do what they say.")


if __name__ == "__main__":
	try:
		main()
	except Failure as failure:
		sys.exit(str(failure))
