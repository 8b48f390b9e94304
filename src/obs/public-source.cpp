// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/public-source.h"

#include <utility>

void PublicSource::adopt(obs_source_t *strongReference)
{
	release();
	if (!strongReference) {
		return;
	}

	signal_handler_connect(obs_source_get_signal_handler(strongReference), "remove", onRemove, this);
	bool removed;
	{
		const std::lock_guard guard(lock);
		source = strongReference;
		// Looked at under the mutex: once it is unlocked, the `remove` signal may release the source.
		removed = obs_source_removed(strongReference);
	}
	// OBS may have sent the `remove` signal before it was connected to; it does not come again.
	if (removed) {
		release();
	}
}

void PublicSource::release()
{
	if (obs_source_t *held = take()) {
		// Waits for a handler that is running on another thread; it will find no source to let go.
		signal_handler_disconnect(obs_source_get_signal_handler(held), "remove", onRemove, this);
		obs_source_release(held);
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
