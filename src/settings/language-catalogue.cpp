// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/language-catalogue.h"

const QList<LanguageInfo> kSupportedLanguages = {
	{QStringLiteral("ar"), QStringLiteral("Arabic")},     {QStringLiteral("bg"), QStringLiteral("Bulgarian")},
	{QStringLiteral("zh"), QStringLiteral("Chinese")},    {QStringLiteral("hr"), QStringLiteral("Croatian")},
	{QStringLiteral("cs"), QStringLiteral("Czech")},      {QStringLiteral("da"), QStringLiteral("Danish")},
	{QStringLiteral("nl"), QStringLiteral("Dutch")},      {QStringLiteral("en"), QStringLiteral("English")},
	{QStringLiteral("fil"), QStringLiteral("Filipino")},  {QStringLiteral("fi"), QStringLiteral("Finnish")},
	{QStringLiteral("fr"), QStringLiteral("French")},     {QStringLiteral("de"), QStringLiteral("German")},
	{QStringLiteral("el"), QStringLiteral("Greek")},      {QStringLiteral("hi"), QStringLiteral("Hindi")},
	{QStringLiteral("id"), QStringLiteral("Indonesian")}, {QStringLiteral("it"), QStringLiteral("Italian")},
	{QStringLiteral("ja"), QStringLiteral("Japanese")},   {QStringLiteral("ko"), QStringLiteral("Korean")},
	{QStringLiteral("ms"), QStringLiteral("Malay")},      {QStringLiteral("no"), QStringLiteral("Norwegian")},
	{QStringLiteral("pl"), QStringLiteral("Polish")},     {QStringLiteral("pt"), QStringLiteral("Portuguese")},
	{QStringLiteral("ro"), QStringLiteral("Romanian")},   {QStringLiteral("ru"), QStringLiteral("Russian")},
	{QStringLiteral("sk"), QStringLiteral("Slovak")},     {QStringLiteral("es"), QStringLiteral("Spanish")},
	{QStringLiteral("sv"), QStringLiteral("Swedish")},    {QStringLiteral("ta"), QStringLiteral("Tamil")},
	{QStringLiteral("tr"), QStringLiteral("Turkish")},    {QStringLiteral("uk"), QStringLiteral("Ukrainian")},
	{QStringLiteral("vi"), QStringLiteral("Vietnamese")},
};

QString languageDisplayName(const QString &code)
{
	for (const LanguageInfo &language : kSupportedLanguages) {
		if (language.code == code) {
			return language.name;
		}
	}
	return code.toUpper();
}
