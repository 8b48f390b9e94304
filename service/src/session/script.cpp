// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/script.h"

#include "session/wire.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QRegularExpression>
#include <QtEndian>

#include <cmath>
#include <numbers>

namespace script {

namespace {

constexpr int kDefaultFrameBytes = 4800;
constexpr double kSineAmplitude = 0.5 * 32767;
constexpr double kLongestSineSec = 600.0;
constexpr int kHighestRate = 192000;

/** What is wrong with a script; caught in Script::parse(). */
struct Invalid {
	QString what;
};

QJsonValue member(const QJsonObject &object, const char *name)
{
	return object.value(QLatin1String(name));
}

QString compact(const QJsonObject &object)
{
	return QString::fromUtf8(QJsonDocument(object).toJson(QJsonDocument::Compact));
}

QByteArray sine(double frequency, double seconds, int sampleRate)
{
	const auto count = static_cast<qsizetype>(std::lround(seconds * sampleRate));
	QByteArray pcm(count * 2, '\0');
	for (qsizetype i = 0; i < count; ++i) {
		const double phase = 2.0 * std::numbers::pi * frequency * static_cast<double>(i) / sampleRate;
		qToLittleEndian(static_cast<qint16>(std::lround(kSineAmplitude * std::sin(phase))), pcm.data() + i * 2);
	}
	return pcm;
}

QByteArray readPcm(const QString &spec, int sampleRate, const QString &directory)
{
	static const QRegularExpression sineForm(QStringLiteral(R"(^sine\s+(\d+(?:\.\d+)?)\s+(\d+(?:\.\d+)?)s$)"));
	const QRegularExpressionMatch match = sineForm.match(spec);
	if (match.hasMatch()) {
		const double seconds = match.captured(2).toDouble();
		if (seconds > kLongestSineSec) {
			throw Invalid{QStringLiteral("a sine is at most 600 s long")};
		}
		return sine(match.captured(1).toDouble(), seconds, sampleRate);
	}
	QFile file(QDir(directory).filePath(spec));
	if (!file.open(QIODevice::ReadOnly)) {
		throw Invalid{QStringLiteral("cannot read PCM file %1: %2").arg(file.fileName(), file.errorString())};
	}
	return file.readAll();
}

SendTts parseTts(const QJsonObject &object, const QString &directory)
{
	SendTts tts;
	tts.language = member(object, "language").toString();
	tts.clipId = member(object, "clip_id").toInt(1);
	tts.sampleRate = member(object, "sample_rate").toInt(24000);
	tts.frameBytes = member(object, "frame_bytes").toInt(kDefaultFrameBytes);
	tts.start = member(object, "start").toBool(true);
	tts.end = member(object, "end").toBool(true);
	if (!isLanguageTag(tts.language)) {
		throw Invalid{QStringLiteral("\"send_tts\" needs a \"language\" of 2 to 10 letters or \"-\"")};
	}
	if (tts.sampleRate < 1 || tts.sampleRate > kHighestRate || tts.frameBytes < 2 || tts.frameBytes % 2 != 0) {
		throw Invalid{QStringLiteral(
			"\"sample_rate\" must be positive and at most 192000, \"frame_bytes\" positive and "
			"even")};
	}
	const QString pcm = member(object, "pcm").toString();
	if (!pcm.isEmpty()) {
		tts.pcm = readPcm(pcm, tts.sampleRate, directory);
	}
	return tts;
}

Step parseStep(const QJsonObject &object, const QString &directory)
{
	if (object.size() != 1) {
		throw Invalid{QStringLiteral("a step is an object with exactly one member")};
	}
	const QString name = object.begin().key();
	const QJsonValue value = object.begin().value();
	if (name == QLatin1String("expect") && value.isString()) {
		return Expect{value.toString()};
	}
	if (name == QLatin1String("after_ms") && value.isDouble()) {
		return AfterMs{value.toInt()};
	}
	if (name == QLatin1String("after_audio_bytes") && value.isDouble()) {
		return AfterAudioBytes{value.toInteger()};
	}
	if (name == QLatin1String("send") && value.isObject()) {
		return SendText{compact(value.toObject())};
	}
	if (name == QLatin1String("send_text") && value.isString()) {
		return SendText{value.toString()};
	}
	if (name == QLatin1String("refuse_auth") && value.isString()) {
		return SendText{compact(messages::authError(value.toString()))};
	}
	if (name == QLatin1String("send_binary_hex") && value.isString()) {
		return SendBinary{QByteArray::fromHex(value.toString().toLatin1())};
	}
	if (name == QLatin1String("send_tts") && value.isObject()) {
		return parseTts(value.toObject(), directory);
	}
	if (name == QLatin1String("close") && (value.isBool() || value.isDouble())) {
		return Close{value.toInt(1000)};
	}
	if (name == QLatin1String("drop")) {
		return Drop{};
	}
	throw Invalid{QStringLiteral("unknown step or wrong value: %1").arg(compact(object))};
}

Steps parseSteps(const QJsonArray &array, const QString &directory)
{
	Steps steps;
	for (const auto &value : array) {
		try {
			steps.append(parseStep(value.toObject(), directory));
		} catch (const Invalid &invalid) {
			throw Invalid{QStringLiteral("step %1: %2").arg(steps.size() + 1).arg(invalid.what)};
		}
	}
	return steps;
}

QList<Steps> parseConnections(const QJsonDocument &document, const QString &directory)
{
	if (document.isArray()) {
		return {parseSteps(document.array(), directory)};
	}
	const QJsonArray connections = member(document.object(), "connections").toArray();
	if (connections.isEmpty()) {
		throw Invalid{QStringLiteral("a script is a list of steps, or an object with a list \"connections\" of "
					     "such lists")};
	}
	QList<Steps> result;
	for (const auto &connection : connections) {
		try {
			result.append(parseSteps(connection.toArray(), directory));
		} catch (const Invalid &invalid) {
			throw Invalid{QStringLiteral("connection %1, %2").arg(result.size() + 1).arg(invalid.what)};
		}
	}
	return result;
}

} // namespace

std::optional<Script> Script::load(const QString &path, QString *error)
{
	QFile file(path);
	if (!file.open(QIODevice::ReadOnly)) {
		*error = QStringLiteral("cannot read %1: %2").arg(path, file.errorString());
		return std::nullopt;
	}
	return parse(file.readAll(), QFileInfo(path).absolutePath(), error);
}

std::optional<Script> Script::parse(const QByteArray &json, const QString &directory, QString *error)
{
	QJsonParseError parseError;
	const QJsonDocument document = QJsonDocument::fromJson(json, &parseError);
	if (document.isNull()) {
		*error = QStringLiteral("not JSON: %1 at byte %2").arg(parseError.errorString()).arg(parseError.offset);
		return std::nullopt;
	}
	try {
		Script script;
		script.connections = parseConnections(document, directory);
		return script;
	} catch (const Invalid &invalid) {
		*error = invalid.what;
		return std::nullopt;
	}
}

const Steps &Script::forConnection(int number) const
{
	const qsizetype index = std::min<qsizetype>(number, connections.size()) - 1;
	return connections.at(std::max<qsizetype>(index, 0));
}

} // namespace script
