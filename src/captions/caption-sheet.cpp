// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/caption-sheet.h"

#include "captions/css-reader.h"

#include <QRegularExpression>
#include <QStringList>

#include <algorithm>
#include <array>
#include <cmath>
#include <span>

namespace {

/** Larger glyphs would cover any canvas, and many of them overflow the numbers that text is laid out with. */
constexpr int kLargestFont = 1000;

/** A declaration as it is written. */
struct Expected {
	QLatin1StringView name;
	/** Null when the style sets it. */
	QLatin1StringView value;
};

using namespace Qt::StringLiterals;

constexpr std::array kBody{
	Expected{"background-color"_L1, "transparent"_L1},
	Expected{"margin"_L1, "0px auto"_L1},
	Expected{"overflow"_L1, "hidden"_L1},
	Expected{"display"_L1, "flex"_L1},
	Expected{"flex-direction"_L1, "column"_L1},
	Expected{"justify-content"_L1, "flex-end"_L1},
	Expected{"align-items"_L1, {}},
};
constexpr std::array kBox{
	Expected{"background-color"_L1, {}},
	Expected{"opacity"_L1, {}},
	Expected{"font-family"_L1, {}},
	Expected{"font-size"_L1, {}},
	Expected{"font-weight"_L1, {}},
	Expected{"color"_L1, {}},
	Expected{"text-align"_L1, {}},
	Expected{"white-space"_L1, "pre-wrap"_L1},
	Expected{"padding"_L1, "10px"_L1},
	Expected{"border-radius"_L1, "8px"_L1},
	Expected{"text-shadow"_L1,
		 "-2px -2px 0 #000, 2px -2px 0 #000, -2px 2px 0 #000, 2px 2px 0 #000, 0px 4px 4px rgba(0,0,0,0.8)"_L1},
};
constexpr std::array kShown{Expected{"display"_L1, "block"_L1}};
constexpr std::array kHidden{Expected{"display"_L1, "none"_L1}};
constexpr std::array kText{Expected{"content"_L1, {}}, Expected{"white-space"_L1, "pre-wrap"_L1}};

bool isRule(const CssRule &rule, QLatin1StringView selector, std::span<const Expected> expected)
{
	return rule.selector == selector &&
	       std::ranges::equal(rule.declarations, expected, [](const CssDeclaration &found, const Expected &one) {
		       return found.name == one.name && (one.value.isNull() || found.value == one.value);
	       });
}

/** "rgba(255, 255, 255, 0.5)"; what is out of range counts as its nearest end, as in a browser. */
std::optional<QColor> readColor(const QString &value)
{
	static const QRegularExpression form(u"\\Argba\\((\\d+), (\\d+), (\\d+), ([0-9.e+-]+)\\)\\z"_s);
	const QRegularExpressionMatch match = form.match(value);
	bool isNumber = false;
	const float alpha = match.captured(4).toFloat(&isNumber);
	if (!match.hasMatch() || !isNumber) {
		return std::nullopt;
	}
	const auto part = [&match](int number) { return std::min(match.captured(number).toUInt(), 255U); };
	QColor color(static_cast<int>(part(1)), static_cast<int>(part(2)), static_cast<int>(part(3)));
	color.setAlphaF(std::clamp(alpha, 0.0F, 1.0F));
	return color;
}

CaptionSheet::Side boxSide(const QString &value)
{
	return value == u"flex-start" ? CaptionSheet::Side::Left
	       : value == u"flex-end" ? CaptionSheet::Side::Right
				      : CaptionSheet::Side::Center;
}

/** CSS's words in any case; text begins on the left where the word is none of them. */
CaptionSheet::Side lineSide(const QString &value)
{
	return value.compare(u"center", Qt::CaseInsensitive) == 0  ? CaptionSheet::Side::Center
	       : value.compare(u"right", Qt::CaseInsensitive) == 0 ? CaptionSheet::Side::Right
								   : CaptionSheet::Side::Left;
}

/** "40px" */
std::optional<int> readFontSize(const QString &value)
{
	bool isNumber = false;
	const int size = QStringView(value).chopped(std::min<qsizetype>(2, value.size())).toInt(&isNumber);
	if (!isNumber || size <= 0 || !value.endsWith(u"px")) {
		return std::nullopt;
	}
	return std::min(size, kLargestFont);
}

bool readBox(const QList<CssDeclaration> &declarations, CaptionSheet &sheet)
{
	const std::optional<QColor> background = readColor(declarations[0].value);
	bool isNumber = false;
	const double opacity = declarations[1].value.toDouble(&isNumber);
	const std::optional<int> size = readFontSize(declarations[3].value);
	const std::optional<QColor> color = readColor(declarations[5].value);
	if (!background || !isNumber || !std::isfinite(opacity) || !declarations[2].isString || !size || !color) {
		return false;
	}
	sheet.background = *background;
	sheet.opacity = std::clamp(opacity, 0.0, 1.0);
	sheet.family = declarations[2].value;
	sheet.fontSize = *size;
	sheet.bold = declarations[4].value == u"bold";
	sheet.color = *color;
	sheet.lines = lineSide(declarations[6].value);
	return true;
}

} // namespace

std::optional<CaptionSheet> readCaptionSheet(const QString &css)
{
	constexpr auto kBoxSelector = "#caption-text"_L1;
	const std::optional<QList<CssRule>> rules = readCss(css);
	if (!rules || rules->size() < 3 || !isRule(rules->at(0), "body"_L1, kBody) ||
	    !isRule(rules->at(1), kBoxSelector, kBox)) {
		return std::nullopt;
	}
	CaptionSheet sheet;
	sheet.box = boxSide(rules->at(0).declarations.last().value);
	if (!readBox(rules->at(1).declarations, sheet)) {
		return std::nullopt;
	}
	if (rules->size() == 3 && isRule(rules->at(2), kBoxSelector, kHidden)) {
		return sheet;
	}
	if (rules->size() != 4 || !isRule(rules->at(2), kBoxSelector, kShown) ||
	    !isRule(rules->at(3), "#caption-text::after"_L1, kText) || !rules->at(3).declarations[0].isString) {
		return std::nullopt;
	}
	sheet.text = rules->at(3).declarations[0].value;
	return sheet;
}
