// SPDX-License-Identifier: GPL-3.0-or-later
#include "base/languages.h"

#include <array>

namespace {

struct Language {
	const char *code;
	const char *name;
	const char *voice; // espeak-ng's, empty when it has none
};

constexpr std::array<Language, 31> kLanguages{{
	{"ar", "Arabic", "ar"},   {"bg", "Bulgarian", "bg"},     {"zh", "Chinese", "cmn"},   {"hr", "Croatian", "hr"},
	{"cs", "Czech", "cs"},    {"da", "Danish", "da"},        {"nl", "Dutch", "nl"},      {"en", "English", "en-us"},
	{"fil", "Filipino", ""},  {"fi", "Finnish", "fi"},       {"fr", "French", "fr"},     {"de", "German", "de"},
	{"el", "Greek", "el"},    {"hi", "Hindi", "hi"},         {"id", "Indonesian", "id"}, {"it", "Italian", "it"},
	{"ja", "Japanese", "ja"}, {"ko", "Korean", "ko"},        {"ms", "Malay", "ms"},      {"no", "Norwegian", "nb"},
	{"pl", "Polish", "pl"},   {"pt", "Portuguese", "pt-br"}, {"ro", "Romanian", "ro"},   {"ru", "Russian", "ru"},
	{"sk", "Slovak", "sk"},   {"es", "Spanish", "es"},       {"sv", "Swedish", "sv"},    {"ta", "Tamil", "ta"},
	{"tr", "Turkish", "tr"},  {"uk", "Ukrainian", "uk"},     {"vi", "Vietnamese", "vi"},
}};

const Language *find(const QString &code)
{
	for (const Language &language : kLanguages) {
		if (code == QLatin1String(language.code)) {
			return &language;
		}
	}
	return nullptr;
}

} // namespace

QStringList languageCodes()
{
	QStringList codes;
	for (const Language &language : kLanguages) {
		codes.append(QString::fromLatin1(language.code));
	}
	return codes;
}

QString languageName(const QString &code)
{
	const Language *language = find(code);
	return language ? QString::fromLatin1(language->name) : code;
}

QString espeakVoice(const QString &code)
{
	const Language *language = find(code);
	return language ? QString::fromLatin1(language->voice) : QString();
}
