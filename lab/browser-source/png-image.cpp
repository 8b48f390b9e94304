// SPDX-License-Identifier: GPL-2.0-or-later
#include "png-image.h"

#include <png.h>

static void premultiply(std::vector<uint8_t> &bgra)
{
	for (size_t pixel = 0; pixel + 3 < bgra.size(); pixel += 4) {
		const unsigned alpha = bgra[pixel + 3];
		for (size_t channel = pixel; channel < pixel + 3; ++channel) {
			bgra[channel] = static_cast<uint8_t>((bgra[channel] * alpha + 127) / 255);
		}
	}
}

std::optional<Image> decodePng(const QByteArray &png)
{
	png_image header = {};
	header.version = PNG_IMAGE_VERSION;
	if (!png_image_begin_read_from_memory(&header, png.constData(), static_cast<size_t>(png.size()))) {
		return std::nullopt;
	}

	header.format = PNG_FORMAT_BGRA;
	Image image{header.width, header.height, std::vector<uint8_t>(PNG_IMAGE_SIZE(header))};
	if (!png_image_finish_read(&header, nullptr, image.bgra.data(), 0, nullptr)) {
		return std::nullopt;
	}

	premultiply(image.bgra);
	return image;
}
