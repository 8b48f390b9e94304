// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "picture.h"

#include <QByteArray>

#include <optional>

/// Decodes a PNG file (whose alpha is straight) and premultiplies it, as a texture drawn with ONE/INVSRCALPHA blending
/// needs it. Nothing when the bytes are no whole PNG.
std::optional<Image> decodePng(const QByteArray &png);
