// SPDX-License-Identifier: GPL-2.0-or-later
#include "wrappers.h"

#include "holdings.h"

#include <obs-frontend-api.h>
#include <obs.h>
#include <util/text-lookup.h>

#include <algorithm>
#include <array>

namespace {

constexpr const char *SOURCE = "source";
constexpr const char *WEAK_SOURCE = "weak source";
constexpr const char *SCENE_ITEM = "scene item";
constexpr const char *DATA = "data";
constexpr const char *TEXTS = "texts";

obs_source_t *taken(obs_source_t *source)
{
	holdings::take(SOURCE, source, source ? obs_source_get_name(source) : nullptr);
	return source;
}

template <typename Object> Object *taken(const char *kind, Object *object)
{
	holdings::take(kind, object);
	return object;
}

obs_source_t *sourceCreate(const char *id, const char *name, obs_data_t *settings, obs_data_t *hotkeys)
{
	return taken(obs_source_create(id, name, settings, hotkeys));
}

obs_source_t *sourceGetRef(obs_source_t *source)
{
	return taken(obs_source_get_ref(source));
}

obs_source_t *getSourceByName(const char *name)
{
	return taken(obs_get_source_by_name(name));
}

obs_source_t *weakSourceGetSource(obs_weak_source_t *weak)
{
	return taken(obs_weak_source_get_source(weak));
}

obs_source_t *getCurrentScene()
{
	return taken(obs_frontend_get_current_scene());
}

void sourceRelease(obs_source_t *source)
{
	holdings::giveBack(SOURCE, source);
	obs_source_release(source);
}

obs_weak_source_t *sourceGetWeakSource(obs_source_t *source)
{
	return taken(WEAK_SOURCE, obs_source_get_weak_source(source));
}

void weakSourceAddref(obs_weak_source_t *weak)
{
	holdings::take(WEAK_SOURCE, weak);
	obs_weak_source_addref(weak);
}

void weakSourceRelease(obs_weak_source_t *weak)
{
	holdings::giveBack(WEAK_SOURCE, weak);
	obs_weak_source_release(weak);
}

void sceneItemAddref(obs_sceneitem_t *item)
{
	holdings::take(SCENE_ITEM, item);
	obs_sceneitem_addref(item);
}

void sceneItemRelease(obs_sceneitem_t *item)
{
	holdings::giveBack(SCENE_ITEM, item);
	obs_sceneitem_release(item);
}

obs_data_t *dataCreate()
{
	return taken(DATA, obs_data_create());
}

obs_data_t *sourceGetSettings(const obs_source_t *source)
{
	return taken(DATA, obs_source_get_settings(source));
}

void dataRelease(obs_data_t *data)
{
	holdings::giveBack(DATA, data);
	obs_data_release(data);
}

lookup_t *moduleLoadLocale(obs_module_t *module, const char *usual, const char *locale)
{
	return taken(TEXTS, obs_module_load_locale(module, usual, locale));
}

void textLookupDestroy(lookup_t *lookup)
{
	holdings::giveBack(TEXTS, lookup);
	text_lookup_destroy(lookup);
}

struct Wrapper {
	std::string_view name;
	void *function;
};

template <typename Function> Wrapper wrapper(std::string_view name, Function *function)
{
	return {name, reinterpret_cast<void *>(function)};
}

const std::array WRAPPERS = {
	wrapper("obs_source_create", sourceCreate),
	wrapper("obs_source_get_ref", sourceGetRef),
	wrapper("obs_get_source_by_name", getSourceByName),
	wrapper("obs_weak_source_get_source", weakSourceGetSource),
	wrapper("obs_frontend_get_current_scene", getCurrentScene),
	wrapper("obs_source_release", sourceRelease),
	wrapper("obs_source_get_weak_source", sourceGetWeakSource),
	wrapper("obs_weak_source_addref", weakSourceAddref),
	wrapper("obs_weak_source_release", weakSourceRelease),
	wrapper("obs_sceneitem_addref", sceneItemAddref),
	wrapper("obs_sceneitem_release", sceneItemRelease),
	wrapper("obs_data_create", dataCreate),
	wrapper("obs_source_get_settings", sourceGetSettings),
	wrapper("obs_data_release", dataRelease),
	wrapper("obs_module_load_locale", moduleLoadLocale),
	wrapper("text_lookup_destroy", textLookupDestroy),
};

// What names of functions that give or take references, or memory, have in them.
constexpr std::array<std::string_view, 13> SIGNS = {
	"create",  "duplicate", "release",  "destroy",  "ref",    "weak",     "by_name",
	"by_uuid", "current",   "settings", "_get_obj", "_array", "_default",
};

// These have such a name, and neither give nor take any: what is made goes to OBS at once, and a number is no
// reference.
constexpr std::array<std::string_view, 2> NO_REFERENCES = {"obs_properties_create", "obs_data_set_default_int"};

} // namespace

void *wrapperOf(std::string_view name)
{
	const auto *found = std::ranges::find(WRAPPERS, name, &Wrapper::name);
	return found == WRAPPERS.end() ? nullptr : found->function;
}

bool isUncounted(std::string_view name)
{
	const bool fromObs = name.starts_with("obs_") || name.starts_with("b") || name.starts_with("text_lookup_") ||
			     name.starts_with("config_") || name.starts_with("calldata_");
	const bool suspicious =
		name == "bmalloc" || name == "bfree" ||
		std::ranges::any_of(SIGNS, [&](std::string_view sign) { return name.find(sign) != name.npos; });
	return fromObs && suspicious && !wrapperOf(name) &&
	       std::ranges::find(NO_REFERENCES, name) == NO_REFERENCES.end();
}
