# SPDX-License-Identifier: GPL-2.0-or-later
"""Scene collections switched, made, copied, renamed and removed, without a session and in one."""

import contextlib

import pytest

from lab.hands import Hands
from lab.obs import SCENE, obs_version, scene_collection, wait_until
from sessions import AUTHENTICATED, MICROPHONE, NOT_FOUND, SPANISH_CAPTIONS, SPANISH_DUB
from streaming import INITIALIZED, NUMBERED, PLACED, SOURCE_GONE, Witness, dub_in_scene, microphone, spanish

pytestmark = pytest.mark.changes_scenes

SECOND, BARE = "Second", "Bare"
MOVED = (200, 100)


@pytest.fixture(params=["without a session", "in a session"])
def stage(request, make_obs, make_service, tmp_path):
	"""Makes a context: an OBS with three collections, of which the last has no microphone; gives a Witness of it.

	bare: how often the test comes to one without a microphone.
	"""

	@contextlib.contextmanager
	def make(bare=0, **options):
		inputs = [microphone(tmp_path), dub_in_scene()]
		others = [scene_collection(SECOND, inputs), scene_collection(BARE, [dub_in_scene()])]
		in_session = request.param == "in a session"
		# A caption may come while a collection is cleared.
		complaints = {NOT_FOUND.format(MICROPHONE): bare, SOURCE_GONE: range(20)}
		with contextlib.ExitStack() as open_now:
			service = open_now.enter_context(make_service(NUMBERED)) if in_session else None
			obs = open_now.enter_context(make_obs(inputs=inputs, collections=others, talvora_config=spanish(in_session),
							     complaints=complaints, **options))
			obs.wait_for_log(AUTHENTICATED if in_session else INITIALIZED, timeout=20)
			obs.wait_for_log(PLACED)
			witness = Witness(obs, service)
			witness.wait_for_everything()
			yield witness
			if service:
				witness.assert_one_session()

	return make


def switch(obs, collection):
	obs.request("SetCurrentSceneCollection", sceneCollectionName=collection, timeout=30)


def captions_item(obs):
	items = obs.request("GetSceneItemList", sceneName=SCENE)["sceneItems"]
	return next(one for one in items if one["sourceName"] == SPANISH_CAPTIONS)


def move_captions(obs):
	x, y = MOVED
	obs.request("SetSceneItemTransform", sceneName=SCENE, sceneItemId=captions_item(obs)["sceneItemId"],
		    sceneItemTransform={"positionX": x, "positionY": y})


def assert_outputs_once(obs):
	"""Both outputs are there, after a moment, and none is there twice."""
	wait_until(lambda: {SPANISH_CAPTIONS, SPANISH_DUB} <= set(obs.inputs()), 10, "captions and dub are there")
	names = obs.inputs()
	for name in (SPANISH_CAPTIONS, SPANISH_DUB):
		assert [one for one in names if one.startswith(name)] == [name], f"there is not exactly one '{name}': {names}"


def test_outputs_come_back_and_capture_waits_for_its_source(stage, tmp_path):
	# In the bare collection, and in the one that is made.
	with stage(bare=2) as witness:
		obs = witness.obs
		move_captions(obs)
		for collection in (SECOND, "Untitled", SECOND):
			switch(obs, collection)
			witness.wait_for_everything()
			# Where they have been before they are not placed again.
			obs.wait_for_log(PLACED, count=2)
			assert SPANISH_CAPTIONS in obs.scene_items()
			assert_outputs_once(obs)
			if collection == "Untitled":
				place = captions_item(obs)["sceneItemTransform"]
				assert (place["positionX"], place["positionY"]) == MOVED, "captions that the user has moved are moved back"

		switch(obs, BARE)
		obs.wait_for_log(PLACED, count=3)
		witness.wait_for_captions_alone()
		obs.create_input(MICROPHONE, "ffmpeg_source", microphone(tmp_path).settings)
		witness.wait_for_everything()
		obs.request("CreateSceneCollection", sceneCollectionName="Made", timeout=30)
		obs.wait_for_log(PLACED, count=4)
		assert_outputs_once(obs)
		switch(obs, BARE)
		witness.wait_for_everything()
	assert obs.log.count("CaptionManager: placed") == 4


def current(obs):
	return obs.request("GetSceneCollectionList")["currentSceneCollectionName"]


def choose(hands, entry):
	"""Chooses an entry of OBS's menu, which newer versions have given an ellipsis."""
	names = {one.name for one in hands.find("menu item", "Scene Collection").walk()}
	hands.choose("Scene Collection", next(name for name in (entry, f"{entry}...") if name in names))


def name_collection(obs, hands, entry, name):
	"""Chooses an entry of OBS's menu that asks for a name, and answers."""
	choose(hands, entry)
	field = wait_until(lambda: next((one for box in hands.all("dialog") for one in hands.all("text", within=box)), None), 10,
			   "OBS asks for a name")
	hands.fill(field, name)
	hands.press("Return")
	wait_until(lambda: current(obs) == name, 10, f"the collection '{name}' is there")


def wait_for_captions_in_place(obs):
	wait_until(lambda: SPANISH_CAPTIONS in obs.scene_items(), 10, "the captions are in the scene")
	assert_outputs_once(obs)


def test_collection_duplicated_renamed_and_removed_by_hand(stage):
	# OBS 30 goes on with the bare one when a collection is removed.
	with stage(accessible=True, bare=1 if obs_version() < (32,) else 0) as witness:
		obs = witness.obs
		hands = Hands(obs)
		for entry, name in (("Duplicate", "Copy"), ("Rename", "Renamed")):
			name_collection(obs, hands, entry, name)
			witness.wait_for_everything()
			wait_for_captions_in_place(obs)
		choose(hands, "Remove")
		hands.click(hands.find("push button", "Yes"))
		wait_until(lambda: "Renamed" not in obs.request("GetSceneCollectionList")["sceneCollections"], 10, "the collection is removed")
		wait_for_captions_in_place(obs)
		switch(obs, "Untitled")
		witness.wait_for_everything()
		wait_for_captions_in_place(obs)


@pytest.mark.soak
def test_fifty_switches(stage):
	# In the bare collection, in every third switch.
	with stage(bare=range(15, 20)) as witness:
		obs = witness.obs
		for number in range(50):
			switch(obs, [SECOND, BARE, "Untitled"][number % 3])
			# Every other time the next switch comes while the captions are still to be placed.
			if number % 2:
				wait_for_captions_in_place(obs)
			assert_outputs_once(obs)
		switch(obs, "Untitled")
		witness.wait_for_everything()
