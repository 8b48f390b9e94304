// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/shadow-blur.h"

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace {

/** A Gaussian with a standard deviation of 2 at distances of 0 to 5 pixels, in 256ths; further away it is less than
 * one. */
constexpr std::array<uint16_t, 6> kWeights{52, 45, 31, 17, 7, 2};
/** Pixels. */
constexpr size_t kRadius = kWeights.size() - 1;
constexpr int kWholeBits = 8;
static_assert(kWeights[0] + 2 * (kWeights[1] + kWeights[2] + kWeights[3] + kWeights[4] + kWeights[5]) ==
	      1 << kWholeBits);

/**
 * Writes `count` blurred values.
 * @param from what is at the same place, with kRadius values before and behind
 * @param step between neighbours in the direction of the blur, values
 */
void blurRow(const uint8_t *from, std::ptrdiff_t step, uint8_t *to, size_t count)
{
	for (size_t i = 0; i < count; ++i) {
		const uint8_t *at = from + i;
		unsigned sum = kWeights[0] * at[0];
		for (size_t distance = 1; distance <= kRadius; ++distance) {
			const std::ptrdiff_t offset = static_cast<std::ptrdiff_t>(distance) * step;
			sum += unsigned{kWeights[distance]} * (unsigned{at[-offset]} + at[offset]);
		}
		to[i] = static_cast<uint8_t>(sum >> kWholeBits);
	}
}

} // namespace

QImage blurredShadow(const QImage &mask)
{
	const auto width = static_cast<size_t>(mask.width());
	const auto height = static_cast<size_t>(mask.height());
	// Blurred in its rows, with empty rows above and below.
	std::vector<uint8_t> rows(width * (height + 2 * kRadius));
	std::vector<uint8_t> padded(width + 2 * kRadius);
	for (size_t y = 0; y < height; ++y) {
		std::copy_n(mask.constScanLine(static_cast<int>(y)), width, padded.begin() + kRadius);
		blurRow(padded.data() + kRadius, 1, rows.data() + (y + kRadius) * width, width);
	}
	QImage blurred(mask.size(), QImage::Format_Alpha8);
	for (size_t y = 0; y < height && !blurred.isNull(); ++y) {
		blurRow(rows.data() + (y + kRadius) * width, static_cast<std::ptrdiff_t>(width),
			blurred.scanLine(static_cast<int>(y)), width);
	}
	return blurred;
}
