// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <vector>

/** The conversion as it is written down: one sample after the other, nothing shared with CaptureConverter. */
class PlainCapture {
public:
	std::vector<int16_t> convert(const std::vector<float> &left, const std::vector<float> &right)
	{
		std::vector<float> m = waiting;
		for (size_t i = 0; i < left.size() && i < 8192; ++i) {
			const float sum = left[i] + right[i];
			m.push_back(sum * 0.5f);
		}
		const size_t usable = m.size() - m.size() % 3;
		waiting.assign(m.begin() + static_cast<ptrdiff_t>(usable), m.end());

		std::vector<int16_t> out;
		for (size_t k = 0; k < usable / 3; ++k) {
			float x = m[3 * k];
			x = x + m[3 * k + 1];
			x = x + m[3 * k + 2];
			x = x / 3.0f;
			if (!(x < 1.0f)) {
				out.push_back(32767);
			} else if (!(x > -1.0f)) {
				out.push_back(-32767);
			} else {
				out.push_back(static_cast<int16_t>(std::trunc(x * 32767.0f)));
			}
		}
		return out;
	}

private:
	std::vector<float> waiting;
};
