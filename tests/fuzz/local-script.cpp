// SPDX-License-Identifier: GPL-2.0-or-later
// Script files of the local service.
#include "fuzz.h"

#include "session/script.h"

namespace {

/** No files of PCM there. */
const QString kFolder = QStringLiteral("/nonexistent");

} // namespace

int LLVMFuzzerInitialize(int *, char ***)
{
	silenceQt();
	return 0;
}

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
	const QByteArray json(reinterpret_cast<const char *>(data), static_cast<qsizetype>(size));
	// A file that is named by its whole path would be read: none of the machine's is to be.
	if (json.contains("\"/") || json.contains("\\") || json.contains("..")) {
		return 0;
	}
	QString error;
	const std::optional<script::Script> parsed = script::Script::parse(json, kFolder, &error);
	FUZZ_CHECK(parsed.has_value() == error.isEmpty());
	if (!parsed) {
		return 0;
	}
	for (const int number : {-1, 0, 1, 2, 1000}) {
		for (const script::Step &step : parsed->forConnection(number)) {
			if (const auto *tts = std::get_if<script::SendTts>(&step)) {
				FUZZ_CHECK(tts->frameBytes >= 2 && tts->frameBytes % 2 == 0 && tts->sampleRate > 0);
			}
		}
	}
	return 0;
}
