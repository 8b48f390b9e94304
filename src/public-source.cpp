// SPDX-License-Identifier: GPL-2.0-or-later
#include "public-source.h"

#include <utility>

void PublicSource::adopt(obs_source_t *strongReference)
{
	if (strongReference) {
		signal_handler_connect(obs_source_get_signal_handler(strongReference), "remove", onRemove, this);
	}

	obs_source_t *previous;
	{
		const std::lock_guard guard(lock);
		previous = std::exchange(source, strongReference);
	}
	if (previous) {
		// Waits for a handler that is running on another thread; it will find no source to let go.
		signal_handler_disconnect(obs_source_get_signal_handler(previous), "remove", onRemove, this);
		obs_source_release(previous);
	}

	// The signal may have been sent before the handler was connected.
	if (strongReference && obs_source_removed(strongReference)) {
		adopt(nullptr);
	}
}

void PublicSource::forget()
{
	if (obs_source_t *forgotten = take()) {
		signal_handler_disconnect(obs_source_get_signal_handler(forgotten), "remove", onRemove, this);
	}
}

obs_source_t *PublicSource::getRef()
{
	const std::lock_guard guard(lock);
	return obs_source_get_ref(source);
}

obs_source_t *PublicSource::take()
{
	const std::lock_guard guard(lock);
	return std::exchange(source, nullptr);
}

void PublicSource::onRemove(void *data, calldata_t *)
{
	auto *self = static_cast<PublicSource *>(data);
	obs_source_t *removed = self->take();
	// From here on the owner may be destroyed at any moment: it no longer has a source to wait for.
	if (removed) {
		signal_handler_disconnect(obs_source_get_signal_handler(removed), "remove", onRemove, data);
		obs_source_release(removed);
	}
}
