// SPDX-License-Identifier: GPL-2.0-or-later
// Caption text to CSS: whatever the text, it stays the value of one string in one rule, and adds nothing else.
#include "captions/caption-css.h"
#include "captions/css-reader.h"

#include "caption-input.h"
#include "fuzz.h"

#include <QGuiApplication>

namespace {

/** `text` as a string of CSS can hold it: U+FFFD stands for NUL and for halves of characters. */
QString asCssHoldsIt(const QString &text)
{
	QString result;
	for (char32_t c : text.toUcs4()) {
		if (c == 0 || (c >= 0xD800 && c <= 0xDFFF)) {
			c = U'\uFFFD';
		}
		result.append(QString::fromUcs4(&c, 1));
	}
	return result;
}

/** In the module's own style, everything is known but the text. */
void checkSheet(const QString &text)
{
	const QString sheet = captionCss(CaptionStyle(), text);
	FUZZ_CHECK(!sheet.contains(QChar(u'\0')));
	const std::optional<QList<CssRule>> rules = readCss(sheet);
	FUZZ_CHECK(rules.has_value());
	FUZZ_CHECK(rules->size() == (text.isEmpty() ? 3 : 4));
	FUZZ_CHECK(rules->at(0).selector == u"body" && rules->at(0).declarations.size() == 7);
	FUZZ_CHECK(rules->at(1).selector == u"#caption-text" && rules->at(1).declarations.size() == 11);
	FUZZ_CHECK(rules->at(2).selector == u"#caption-text" && rules->at(2).declarations.size() == 1);
	FUZZ_CHECK(rules->at(2).declarations[0].value == (text.isEmpty() ? u"none" : u"block"));
	if (text.isEmpty()) {
		return;
	}
	const CssRule &after = rules->at(3);
	FUZZ_CHECK(after.selector == u"#caption-text::after" && after.declarations.size() == 2);
	FUZZ_CHECK(after.declarations[0].name == u"content" && after.declarations[0].isString);
	// What is put around right-to-left lines is all that is added.
	FUZZ_CHECK(after.declarations[0].value == asCssHoldsIt(isolateRightToLeftLines(text)));
	const qsizetype added = isolateRightToLeftLines(text).size() - text.size();
	FUZZ_CHECK(added >= 0 && added % 2 == 0 && added <= 2 * (text.count(u'\n') + 1));
	FUZZ_CHECK(after.declarations[1].name == u"white-space" && after.declarations[1].value == u"pre-wrap");
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
	checkSheet(input.text);

	// The family and the alignment come from the user and go in as they are. The text's own rules follow them
	// unchanged, and the text changes nothing before its rules.
	const QString ownStyle = captionCss(CaptionStyle(), QString());
	const QString style = captionCss(input.style, QString());
	const QString hidden = QStringLiteral(" #caption-text { display: none; }");
	FUZZ_CHECK(style.endsWith(hidden) && ownStyle.endsWith(hidden));
	const QString textRules = captionCss(CaptionStyle(), input.text).sliced(ownStyle.size() - hidden.size());
	FUZZ_CHECK(captionCss(input.style, input.text) == style.chopped(hidden.size()) + textRules);
	return 0;
}
