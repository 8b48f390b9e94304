// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QString>

#include <chrono>
#include <cstdint>
#include <mutex>
#include <optional>
#include <utility>
#include <vector>

/// What a source wants shown.
struct PageRequest {
	QString sourceName; ///< for log lines
	QString url;        ///< a file: address, or "about:blank"
	QString css;        ///< added to the page once it has loaded
	int width = 0;      ///< pixels
	int height = 0;     ///< pixels
	uint64_t generation = 0;
	std::chrono::steady_clock::time_point requestedAt;
};

/// A decoded image: 8-bit BGRA rows from top to bottom without gaps, alpha premultiplied.
struct Image {
	uint32_t width = 0;  ///< pixels
	uint32_t height = 0; ///< pixels
	std::vector<uint8_t> bgra;
};

/// A rendered request.
struct Picture {
	Image image;
	uint64_t generation = 0;
	std::chrono::steady_clock::time_point requestedAt;
};

/// Hands the newest picture of one source from the browser's thread to the graphics thread. Thread-safe.
class PictureSlot {
public:
	void put(Picture picture)
	{
		const std::lock_guard lock(mutex);
		newest = std::move(picture);
	}

	/// The picture put last, once.
	std::optional<Picture> take()
	{
		const std::lock_guard lock(mutex);
		return std::exchange(newest, std::nullopt);
	}

private:
	std::mutex mutex;
	std::optional<Picture> newest;
};
