// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/apertium-pipe.h"

#include <QDeadlineTimer>
#include <QFileInfo>

#include <csignal>
#include <unistd.h>

namespace {

constexpr int kAnswerMs = 5000;
constexpr int kCommandMs = 5000;
constexpr int kEndMs = 1000;
/** Without this marker after it the last full stop of a sentence would be lost. */
constexpr const char *kEndMarker = "[][\n]";

QString modeFile(const QString &mode)
{
	return QStringLiteral("/usr/share/apertium/modes/%1.mode").arg(mode);
}

/** The mode's pipeline as a shell command whose programs flush after every NUL byte. */
QString pipelineCommand(const QString &mode)
{
	QProcess process;
	process.start(QStringLiteral("apertium-wblank-mode"), {QStringLiteral("-z"), modeFile(mode)});
	if (!process.waitForFinished(kCommandMs) || process.exitCode() != 0) {
		return {};
	}
	return QString::fromUtf8(process.readAllStandardOutput());
}

/** Escapes what has a meaning in Apertium's stream format. */
QString escaped(const QString &text)
{
	static const QString special = QStringLiteral("\\[]{}^$/<>@");
	QString result;
	result.reserve(text.size());
	for (const QChar c : text) {
		if (c.isNull() || c == u'\n' || c == u'\r') {
			result += u' ';
			continue;
		}
		if (special.contains(c)) {
			result += u'\\';
		}
		result += c;
	}
	return result;
}

QString unescaped(const QString &text)
{
	QString result;
	result.reserve(text.size());
	for (qsizetype i = 0; i < text.size(); ++i) {
		if (text.at(i) == u'\\' && i + 1 < text.size()) {
			++i;
		}
		result += text.at(i);
	}
	return result;
}

} // namespace

bool ApertiumPipe::isInstalled(const QString &mode)
{
	return QFileInfo::exists(modeFile(mode));
}

ApertiumPipe::ApertiumPipe(QString mode_) : mode(std::move(mode_)) {}

ApertiumPipe::~ApertiumPipe()
{
	stop();
}

void ApertiumPipe::start()
{
	if (process && process->state() != QProcess::NotRunning) {
		return;
	}
	stop();
	const QString command = pipelineCommand(mode);
	if (command.isEmpty()) {
		return;
	}
	process = std::make_unique<QProcess>();
	QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
	environment.insert(QStringLiteral("LC_ALL"), QStringLiteral("C.UTF-8"));
	process->setProcessEnvironment(environment);
	process->setStandardErrorFile(QProcess::nullDevice());
	// A process group of their own: Ctrl-C at the terminal reaches the service alone, which ends them itself.
	process->setChildProcessModifier([] { setpgid(0, 0); });
	// Arguments of the pipeline: words that it does not know stay unmarked, and no other option.
	process->start(QStringLiteral("bash"),
		       {QStringLiteral("-c"), command, QStringLiteral("pipeline"), QStringLiteral("-n"), QString()});
	write(QStringLiteral("Hello."));
	warmUpUnread = true;
}

std::optional<QString> ApertiumPipe::translate(const QString &text)
{
	start();
	if (!process) {
		return std::nullopt;
	}
	write(text);
	std::optional<QString> answer;
	if (!warmUpUnread || read()) {
		warmUpUnread = false;
		answer = read();
	}
	if (!answer) {
		stop();
	}
	return answer;
}

void ApertiumPipe::write(const QString &text)
{
	QByteArray bytes = escaped(text).toUtf8() + kEndMarker;
	bytes.append('\0');
	process->write(bytes);
}

std::optional<QString> ApertiumPipe::read()
{
	const QDeadlineTimer deadline(kAnswerMs);
	QByteArray answer;
	while (true) {
		char c = 0;
		while (process->getChar(&c)) {
			if (c != '\0') {
				answer.append(c);
				continue;
			}
			if (answer.endsWith(kEndMarker)) {
				answer.chop(static_cast<qsizetype>(qstrlen(kEndMarker)));
			}
			return unescaped(QString::fromUtf8(answer));
		}
		if (deadline.hasExpired() || !process->waitForReadyRead(static_cast<int>(deadline.remainingTime()))) {
			return std::nullopt;
		}
	}
}

void ApertiumPipe::stop()
{
	if (!process) {
		return;
	}
	const qint64 group = process->processId();
	process->closeWriteChannel();
	if (group > 0 && !process->waitForFinished(kEndMs)) {
		::kill(static_cast<pid_t>(-group), SIGKILL);
		process->waitForFinished(kEndMs);
	}
	process.reset();
	warmUpUnread = false;
}
