// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QImage>

/**
 * A mask blurred as CSS blurs a shadow by 4 px: by a Gaussian with a standard deviation of half of that.
 * @param mask of the format Alpha8
 * @return the same size and format; what is blurred beyond the edges is lost
 */
QImage blurredShadow(const QImage &mask);
