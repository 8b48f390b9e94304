// SPDX-License-Identifier: GPL-2.0-or-later
#include "settings/settings-file.h"

#include "plugin-support.h"
#include "settings/api-key-text.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonParseError>
#include <QSaveFile>
#include <QStandardPaths>

#include <fcntl.h>

#include <cerrno>

namespace {

constexpr QFileDevice::Permissions kOwnerFile = QFileDevice::ReadOwner | QFileDevice::WriteOwner;
constexpr QFileDevice::Permissions kOwnerFolder = kOwnerFile | QFileDevice::ExeOwner;
constexpr QFileDevice::Permissions kEverybodyElse = QFileDevice::ReadGroup | QFileDevice::WriteGroup |
						    QFileDevice::ExeGroup | QFileDevice::ReadOther |
						    QFileDevice::WriteOther | QFileDevice::ExeOther;
/** Bytes. A larger file was not written by us, and reading it could use up OBS's memory. */
constexpr qint64 kLargestFile = 16 * 1024 * 1024;

/** Takes all permissions from group and others; the owner's stay. */
void keepForOwner(const QString &path)
{
	const QFileDevice::Permissions present = QFile::permissions(path);
	if (present & kEverybodyElse) {
		QFile::setPermissions(path, present & kOwnerFolder);
	}
}

QJsonDocument parse(QFile &file, QJsonParseError &error)
{
	const QByteArray content = file.read(kLargestFile + 1);
	if (content.size() > kLargestFile) {
		error.error = QJsonParseError::DocumentTooLarge;
		return {};
	}
	return QJsonDocument::fromJson(content, &error);
}

/** Whether a file holds settings that this version does not know. */
bool hasUnknownKeys(const QJsonObject &json)
{
	const QJsonObject known = Settings().toJson();
	const QStringList keys = json.keys();
	for (const QString &key : keys) {
		// Early versions wrote these two flags at the top level.
		if (!known.contains(key) && key != QLatin1String("dubbing") && key != QLatin1String("captions")) {
			return true;
		}
	}
	return false;
}

/** Reserves `bytes` from the start of the file. False when the disk is full. */
bool reserve(const QFile &file, qsizetype bytes)
{
	// Other errors come from file systems that cannot reserve; a write may work on them.
	return fallocate(file.handle(), FALLOC_FL_KEEP_SIZE, 0, bytes) == 0 || (errno != ENOSPC && errno != EDQUOT);
}

/** The name of the kept file. If the path is a symbolic link, it is beside its target, so that the link stays. */
QString oldPath()
{
	const QString file = QFileInfo(SettingsFile::path()).canonicalFilePath();
	return (file.isEmpty() ? SettingsFile::path() : file) + QStringLiteral(".old");
}

/** Writes the kept file, readable by the owner only. An existing one is replaced when the new one is complete. */
bool writeOld(const QByteArray &content)
{
	QSaveFile file(oldPath());
	// Flushed before: Qt 6.4's commit() does not notice what cannot be written out, and puts an empty file in
	// place.
	return file.open(QIODevice::WriteOnly) && file.setPermissions(kOwnerFile) && file.write(content) >= 0 &&
	       file.flush() && file.commit();
}

/** Takes the API key out of a kept file that still has it. */
void cleanOldContent()
{
	QFile file(oldPath());
	if (!file.open(QIODevice::ReadOnly)) {
		return;
	}
	const QByteArray content = file.read(kLargestFile);
	const QByteArray clean = withoutApiKeys(content);
	if ((clean != content || file.size() > kLargestFile) && !writeOld(clean)) {
		talvora_log(LOG_WARNING, "Talvora: the API key could not be taken out of %s",
			    oldPath().toUtf8().constData());
	}
}

void logFailedSave(const QString &path)
{
	talvora_log(LOG_WARNING, "Talvora: failed to save config to %s", path.toUtf8().constData());
}

} // namespace

QString SettingsFile::path()
{
	return QStandardPaths::writableLocation(QStandardPaths::HomeLocation) +
	       QStringLiteral("/.config/talvora-obs/config.json");
}

void SettingsFile::load(Settings &settings)
{
	cleanOldContent();
	QFile file(path());
	if (!file.open(QIODevice::ReadOnly)) {
		return;
	}
	// The file holds a credential.
	keepForOwner(QFileInfo(path()).path());
	keepForOwner(path());
	QJsonParseError error{};
	const QJsonDocument document = parse(file, error);
	holdsMore = file.size() > 0 && (!document.isObject() || hasUnknownKeys(document.object()));
	if (!document.isObject()) {
		talvora_log(LOG_WARNING, "Talvora: failed to parse config: %s",
			    error.errorString().toUtf8().constData());
		return;
	}
	settings.readJson(document.object());
	talvora_log(LOG_INFO, "Talvora: config loaded from %s", path().toUtf8().constData());
}

void SettingsFile::save(const Settings &settings)
{
	const QString folder = QFileInfo(path()).path();
	QDir().mkpath(QFileInfo(folder).path());
	QDir().mkdir(folder, kOwnerFolder);
	keepForOwner(folder);
	keepForOwner(path());

	QFile file(path());
	// Not truncated on opening: on a full disk the old content is better than none.
	if (!keepOldContent() || !file.open(QIODevice::ReadWrite, kOwnerFile)) {
		logFailedSave(path());
		return;
	}
	const QByteArray content = QJsonDocument(settings.toJson()).toJson(QJsonDocument::Indented);
	if (!reserve(file, content.size())) {
		logFailedSave(path());
		if (file.size() == 0) {
			file.remove();
		}
		return;
	}
	file.write(content);
	file.resize(content.size());
}

/** Keeps content that was not understood beside the file, once. False when that fails and saving would lose it. */
bool SettingsFile::keepOldContent()
{
	QFile file(path());
	if (!holdsMore || !file.exists()) {
		return true;
	}
	if (!file.open(QIODevice::ReadOnly) || !writeOld(withoutApiKeys(file.read(kLargestFile)))) {
		return false;
	}
	holdsMore = false;
	talvora_log(LOG_WARNING, "Talvora: not all of the settings file was understood, it is kept as %s",
		    oldPath().toUtf8().constData());
	return true;
}
