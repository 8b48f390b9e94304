// SPDX-License-Identifier: GPL-2.0-or-later
#include "captions/css-reader.h"

namespace {

bool isHex(char32_t c)
{
	return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

bool isBlank(char32_t c)
{
	return c == ' ' || c == '\t' || c == '\n';
}

/** Line breaks are one line feed each, and what no string can hold is U+FFFD. */
QList<char32_t> preprocessed(const QString &sheet)
{
	QList<char32_t> result;
	const QList<uint> codes = sheet.toUcs4();
	for (qsizetype i = 0; i < codes.size(); ++i) {
		const char32_t c = codes[i];
		if (c == '\r' || c == '\f') {
			result.append('\n');
			i += c == '\r' && i + 1 < codes.size() && codes[i + 1] == '\n';
		} else {
			result.append(c == 0 || (c >= 0xD800 && c <= 0xDFFF) ? U'\uFFFD' : c);
		}
	}
	return result;
}

class Reader {
public:
	explicit Reader(const QString &sheet) : input(preprocessed(sheet)) {}

	std::optional<QList<CssRule>> rules()
	{
		QList<CssRule> found;
		for (skipBlanks(); !atEnd(); skipBlanks()) {
			const std::optional<CssRule> rule = readRule();
			if (!rule) {
				return std::nullopt;
			}
			found.append(*rule);
		}
		return found;
	}

private:
	bool atEnd() const { return pos >= input.size(); }
	char32_t peek() const { return atEnd() ? 0 : input[pos]; }

	void skipBlanks()
	{
		while (isBlank(peek())) {
			++pos;
		}
	}

	/** Everything up to one of `ends`, which is left; no strings, escapes, comments, blocks or at-rules in it. */
	std::optional<QString> readPlain(QLatin1StringView ends)
	{
		QString text;
		while (!atEnd() && !ends.contains(QChar(peek() < 0x80 ? static_cast<char16_t>(peek()) : u'x'))) {
			if (peek() >= 0x80 || QLatin1StringView("\"'\\@{};<>").contains(QChar(char16_t(peek()))) ||
			    (peek() == '/' && pos + 1 < input.size() && input[pos + 1] == '*')) {
				return std::nullopt;
			}
			text.append(QChar(char16_t(input[pos++])));
		}
		return atEnd() ? std::nullopt : std::make_optional(text.trimmed());
	}

	std::optional<CssRule> readRule()
	{
		const std::optional<QString> selector = readPlain(QLatin1StringView("{"));
		if (!selector || selector->isEmpty()) {
			return std::nullopt;
		}
		++pos;
		CssRule rule{*selector, {}};
		for (skipBlanks(); peek() != '}'; skipBlanks()) {
			const std::optional<CssDeclaration> declaration = readDeclaration();
			if (!declaration) {
				return std::nullopt;
			}
			rule.declarations.append(*declaration);
		}
		++pos;
		return rule;
	}

	std::optional<CssDeclaration> readDeclaration()
	{
		const std::optional<QString> name = readPlain(QLatin1StringView(":"));
		if (!name || name->isEmpty()) {
			return std::nullopt;
		}
		++pos;
		skipBlanks();
		CssDeclaration declaration{*name, {}, peek() == '"'};
		if (declaration.isString) {
			const std::optional<QString> text = readString();
			if (!text) {
				return std::nullopt;
			}
			declaration.value = *text;
			// Whatever follows a string belongs to a list, such as the fonts to fall back to.
		}
		const std::optional<QString> plain = readPlain(QLatin1StringView(";"));
		if (!plain) {
			return std::nullopt;
		}
		if (!declaration.isString) {
			declaration.value = *plain;
		} else if (!plain->isEmpty() && !plain->startsWith(u',')) {
			return std::nullopt;
		}
		++pos;
		return declaration;
	}

	std::optional<QString> readString()
	{
		QString text;
		for (++pos; peek() != '"';) {
			if (atEnd() || peek() == '\n') {
				return std::nullopt;
			}
			const char32_t c = input[pos++];
			if (c != '\\') {
				text.append(QString::fromUcs4(&c, 1));
			} else if (atEnd()) {
				return std::nullopt;
			} else if (peek() == '\n') {
				++pos;
			} else {
				const char32_t escaped = readEscape();
				text.append(QString::fromUcs4(&escaped, 1));
			}
		}
		++pos;
		return text;
	}

	char32_t readEscape()
	{
		if (!isHex(peek())) {
			return input[pos++];
		}
		QString digits;
		while (digits.size() < 6 && isHex(peek())) {
			digits.append(QChar(char16_t(input[pos++])));
		}
		if (isBlank(peek())) {
			++pos;
		}
		const char32_t c = digits.toUInt(nullptr, 16);
		return c == 0 || c > 0x10FFFF || (c >= 0xD800 && c <= 0xDFFF) ? U'\uFFFD' : c;
	}

	const QList<char32_t> input;
	qsizetype pos = 0;
};

} // namespace

std::optional<QList<CssRule>> readCss(const QString &sheet)
{
	return Reader(sheet).rules();
}
