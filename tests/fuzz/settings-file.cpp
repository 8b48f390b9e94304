// SPDX-License-Identifier: GPL-2.0-or-later
// The settings file: whatever is in it, what is read can be written and reads the same again.
#include "fuzz.h"

#include "settings/settings.h"

#include <QGuiApplication>
#include <QJsonDocument>

#include <cmath>

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
	const QByteArray file(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
	const QJsonDocument document = QJsonDocument::fromJson(file);
	if (!document.isObject()) {
		return 0;
	}
	Settings settings;
	settings.readJson(document.object());
	FUZZ_CHECK(std::isfinite(settings.duckingLevel) && std::isfinite(settings.ttsVolume));
	FUZZ_CHECK(settings.targetLanguagesJson().size() == settings.languageTargets.size());

	const QByteArray written = QJsonDocument(settings.toJson()).toJson();
	Settings again;
	again.readJson(QJsonDocument::fromJson(written).object());
	FUZZ_CHECK(QJsonDocument(again.toJson()).toJson() == written);
	FUZZ_CHECK(again.languageTargets == settings.languageTargets);
	FUZZ_CHECK(again.apiKey == settings.apiKey);
	return 0;
}
