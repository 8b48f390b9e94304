// SPDX-License-Identifier: GPL-2.0-or-later
#include "caption-css.h"

namespace {

/** Custom CSS is one line: three blanks stand where a line of a rule would break. */
constexpr QLatin1String styleTemplate("body {"
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

constexpr int defaultFontSize = 40;
/** Heavier fonts are written as bold. */
constexpr int heaviestNormalWeight = 500;

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

QString fraction(double value)
{
	return QString::number(value, 'g', 6);
}

QString styleRules(const CaptionStyle &style)
{
	const int pointSize = style.font.pointSize();
	const bool bold = style.font.weight() > heaviestNormalWeight;

	// From the highest number down, so that "%1" does not hit "%10" to "%14". The family comes last: it is text
	// of the user's machine, in which nothing may be replaced.
	QString css = styleTemplate;
	css.replace(QLatin1String("%14"), style.alignment);
	css.replace(QLatin1String("%13"), fraction(static_cast<double>(style.textColor.alphaF())));
	css.replace(QLatin1String("%12"), QString::number(style.textColor.blue()));
	css.replace(QLatin1String("%11"), QString::number(style.textColor.green()));
	css.replace(QLatin1String("%10"), QString::number(style.textColor.red()));
	css.replace(QLatin1String("%9"), bold ? QLatin1String("bold") : QLatin1String("normal"));
	css.replace(QLatin1String("%8"), QString::number(pointSize > 0 ? pointSize : defaultFontSize));
	css.replace(QLatin1String("%6"), fraction(style.opacity / 100.0));
	css.replace(QLatin1String("%5"), fraction(static_cast<double>(style.backgroundColor.alphaF())));
	css.replace(QLatin1String("%4"), QString::number(style.backgroundColor.blue()));
	css.replace(QLatin1String("%3"), QString::number(style.backgroundColor.green()));
	css.replace(QLatin1String("%2"), QString::number(style.backgroundColor.red()));
	css.replace(QLatin1String("%1"), flexPosition(style.alignment));
	css.replace(QLatin1String("%7"), style.font.family());
	return css;
}

} // namespace

QString escapeCssText(const QString &text)
{
	QString escaped = text;
	// The backslash first: the others add backslashes of their own.
	escaped.replace(QLatin1Char('\\'), QLatin1String("\\\\"));
	escaped.replace(QLatin1Char('"'), QLatin1String("\\\""));
	escaped.replace(QLatin1Char('\''), QLatin1String("\\'"));
	escaped.replace(QLatin1Char('\n'), QLatin1String("\\A "));
	escaped.replace(QLatin1Char('{'), QLatin1String("\\{"));
	escaped.replace(QLatin1Char('}'), QLatin1String("\\}"));
	escaped.replace(QLatin1Char(';'), QLatin1String("\\;"));
	// These would end the string too: CSS counts both as line breaks, and OBS cuts its strings at a NUL.
	escaped.replace(QLatin1Char('\r'), QLatin1String("\\D "));
	escaped.replace(QLatin1Char('\f'), QLatin1String("\\C "));
	escaped.replace(QChar(u'\0'), QLatin1String("\\0 "));
	return escaped;
}

QString captionCss(const CaptionStyle &style, const QString &text)
{
	const QString rules = styleRules(style);
	if (text.isEmpty()) {
		return rules + QLatin1String(" #caption-text { display: none; }");
	}
	return rules + QLatin1String(" #caption-text { display: block; }") +
	       QStringLiteral(" #caption-text::after { content: \"%1\"; white-space: pre-wrap; }")
		       .arg(escapeCssText(text));
}
