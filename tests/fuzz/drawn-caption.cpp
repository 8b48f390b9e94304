// SPDX-License-Identifier: GPL-2.0-or-later
// Captions that the module draws itself: whatever the CSS, it is read or refused, and whatever it says, the picture is
// within its source.
#include "captions/caption-css.h"
#include "captions/caption-painter.h"

#include "caption-input.h"
#include "fuzz.h"

#include <QGuiApplication>

namespace {

constexpr QSize kView(320, 96);

void checkSheet(const QString &css)
{
	const std::optional<CaptionSheet> sheet = readCaptionSheet(css);
	if (!sheet) {
		return;
	}
	FUZZ_CHECK(sheet->fontSize >= 1 && sheet->fontSize <= 1000);
	FUZZ_CHECK(sheet->opacity >= 0 && sheet->opacity <= 1);
	const CaptionPicture picture = paintCaption(*sheet, kView);
	FUZZ_CHECK(picture.image.isNull() == sheet->text.isEmpty());
	FUZZ_CHECK(QRect({}, kView).contains(QRect(picture.position, picture.image.size())) || picture.image.isNull());
}

} // namespace

int LLVMFuzzerInitialize(int *argc, char ***argv)
{
	silenceQt();
	qputenv("QT_QPA_PLATFORM", "offscreen");
	// Never destroyed: what a target keeps may outlive it.
	[[maybe_unused]] static const auto *const application = new QGuiApplication(*argc, *argv);
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const CaptionInput input(data, size);
	// As a style and a text, and as CSS of somebody else's.
	checkSheet(captionCss(input.style, input.text));
	checkSheet(input.text);

	// In the module's own style no text makes a sheet that is refused.
	const std::optional<CaptionSheet> own = readCaptionSheet(captionCss(CaptionStyle(), input.text));
	FUZZ_CHECK(own.has_value());
	FUZZ_CHECK(own->text.isEmpty() == input.text.isEmpty());
	return 0;
}
