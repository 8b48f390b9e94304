// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-css.h"

#include <QStringBuilder>

#include <algorithm>

namespace {

/** Custom CSS is one line: three blanks stand where a line of a rule would break. */
constexpr QLatin1String kStyleTemplate("body {"
				       "   background-color: transparent;"
				       "   margin: 0px auto;"
				       "   overflow: hidden;"
				       "   display: flex;"
				       "   flex-direction: column;"
				       "   justify-content: flex-end;"
				       "   align-items: %1;"
				       " }"
				       " #caption-text {"
				       "   background-color: rgba(%2, %3, %4, %5);"
				       "   opacity: %6;"
				       "   font-family: \"%7\", sans-serif;"
				       "   font-size: %8px;"
				       "   font-weight: %9;"
				       "   color: rgba(%10, %11, %12, %13);"
				       "   text-align: %14;"
				       "   white-space: pre-wrap;"
				       "   padding: 10px;"
				       "   border-radius: 8px;"
				       "   text-shadow: -2px -2px 0 #000, 2px -2px 0 #000,"
				       " -2px 2px 0 #000, 2px 2px 0 #000,"
				       " 0px 4px 4px rgba(0,0,0,0.8);"
				       " }");

constexpr int kDefaultFontSize = 40;
/** Heavier fonts are written as bold. */
constexpr int kHeaviestNormalWeight = 500;

QString flexPosition(const QString &alignment)
{
	if (alignment == QLatin1String("left")) {
		return QStringLiteral("flex-start");
	}
	if (alignment == QLatin1String("right")) {
		return QStringLiteral("flex-end");
	}
	return QStringLiteral("center");
}

/** The escape for a character that would end the string or its rule; empty for all others. */
QLatin1String escapeOf(QChar character)
{
	switch (character.unicode()) {
	case u'\n':
		return QLatin1String("\\A ");
	// These would end the string too: CSS counts both as line breaks, and OBS cuts its strings at a NUL.
	case u'\r':
		return QLatin1String("\\D ");
	case u'\f':
		return QLatin1String("\\C ");
	case u'\0':
		return QLatin1String("\\0 ");
	case u'\\':
		return QLatin1String("\\\\");
	case u'"':
		return QLatin1String("\\\"");
	case u'\'':
		return QLatin1String("\\'");
	case u'{':
		return QLatin1String("\\{");
	case u'}':
		return QLatin1String("\\}");
	case u';':
		return QLatin1String("\\;");
	default:
		return {};
	}
}

bool hasRightToLeftLetter(QStringView line)
{
	const QList<uint> characters = line.toUcs4();
	return std::any_of(characters.cbegin(), characters.cend(), [](uint character) {
		const QChar::Direction direction = QChar::direction(character);
		return direction == QChar::DirR || direction == QChar::DirAL;
	});
}

QString fraction(double value)
{
	return QString::number(value, 'g', 6);
}

} // namespace

QString captionStyleRules(const CaptionStyle &style)
{
	const int pointSize = style.font.pointSize();
	const bool bold = style.font.weight() > kHeaviestNormalWeight;

	// From the highest number down, so that "%1" does not match the start of "%10" to "%14". The family is put in
	// last, because a font's name may contain "%1".
	QString css = kStyleTemplate;
	css.replace(QLatin1String("%14"), style.alignment);
	css.replace(QLatin1String("%13"), fraction(static_cast<double>(style.textColor.alphaF())));
	css.replace(QLatin1String("%12"), QString::number(style.textColor.blue()));
	css.replace(QLatin1String("%11"), QString::number(style.textColor.green()));
	css.replace(QLatin1String("%10"), QString::number(style.textColor.red()));
	css.replace(QLatin1String("%9"), bold ? QLatin1String("bold") : QLatin1String("normal"));
	css.replace(QLatin1String("%8"), QString::number(pointSize > 0 ? pointSize : kDefaultFontSize));
	css.replace(QLatin1String("%6"), fraction(style.opacity / 100.0));
	css.replace(QLatin1String("%5"), fraction(static_cast<double>(style.backgroundColor.alphaF())));
	css.replace(QLatin1String("%4"), QString::number(style.backgroundColor.blue()));
	css.replace(QLatin1String("%3"), QString::number(style.backgroundColor.green()));
	css.replace(QLatin1String("%2"), QString::number(style.backgroundColor.red()));
	css.replace(QLatin1String("%1"), flexPosition(style.alignment));
	css.replace(QLatin1String("%7"), style.font.family());
	return css;
}

QString escapeCssText(const QString &text)
{
	QString escaped;
	qsizetype copied = 0;
	for (qsizetype i = 0; i < text.size(); ++i) {
		const QLatin1String escape = escapeOf(text[i]);
		if (!escape.isEmpty()) {
			escaped.append(QStringView(text).sliced(copied, i - copied)).append(escape);
			copied = i + 1;
		}
	}
	return copied == 0 ? text : escaped.append(QStringView(text).sliced(copied));
}

QString isolateRightToLeftLines(const QString &text, Qt::LayoutDirection direction)
{
	constexpr QChar kRightToLeftIsolate{0x2067};
	constexpr QChar kPopIsolate{0x2069};
	QStringList lines = text.split(u'\n');
	for (QString &line : lines) {
		if (line.isRightToLeft() || (direction == Qt::RightToLeft && hasRightToLeftLetter(line))) {
			line = kRightToLeftIsolate % line % kPopIsolate;
		}
	}
	return lines.join(u'\n');
}

QString captionTextRules(const QString &text, Qt::LayoutDirection direction)
{
	if (text.isEmpty()) {
		return QStringLiteral(" #caption-text { display: none; }");
	}
	return QLatin1String(" #caption-text { display: block; } #caption-text::after { content: \"") %
	       escapeCssText(isolateRightToLeftLines(text, direction)) % QLatin1String("\"; white-space: pre-wrap; }");
}

QString captionCss(const CaptionStyle &style, const QString &text, Qt::LayoutDirection direction)
{
	return captionStyleRules(style) + captionTextRules(text, direction);
}
