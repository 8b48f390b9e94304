// SPDX-License-Identifier: GPL-3.0-or-later
#include "apertium-translator.h"
#include "espeak-synthesiser.h"
#include "options.h"
#include "pocketsphinx-recogniser.h"
#include "server.h"
#include "termination.h"
#include "tls.h"

#include <QCoreApplication>

#include <cstdio>
#include <memory>

namespace {

int fail(const QString &what)
{
	std::fprintf(stderr, "talvora-local-service: %s\n", qUtf8Printable(what));
	return 1;
}

int run(const Options &options)
{
	QString error;
	const std::optional<QSslConfiguration> tls = loadTls(options.certificate, options.privateKey, &error);
	if (!tls) {
		return fail(error);
	}
	Server::Settings settings;
	settings.session.key = options.key;
	settings.session.maxTargetLanguages = options.maxTargetLanguages;
	if (!options.script.isEmpty()) {
		settings.script = script::Script::load(options.script, &error);
		if (!settings.script) {
			return fail(QStringLiteral("%1: %2").arg(options.script, error));
		}
	}
	EventLog events;
	if (!options.events.isEmpty() && !events.open(options.events)) {
		return fail(QStringLiteral("cannot write %1").arg(options.events));
	}
	Recorder recorder;
	if (!options.record.isEmpty() && !recorder.open(options.record)) {
		return fail(QStringLiteral("cannot write %1").arg(options.record));
	}
	EngineRoom engines(PocketSphinxRecogniser::create, std::make_unique<ApertiumTranslator>(),
			   std::make_unique<EspeakSynthesiser>());
	Server server(*tls, std::move(settings), &engines, events, recorder);
	if (!server.listen(options.port)) {
		return fail(QStringLiteral("cannot listen on port %1: %2").arg(options.port).arg(server.errorString()));
	}
	Termination termination;
	QObject::connect(&termination, &Termination::requested, qApp, &QCoreApplication::quit);
	std::printf("listening on %s\n", qUtf8Printable(server.url()));
	std::fflush(stdout);
	return QCoreApplication::exec();
}

} // namespace

int main(int argc, char **argv)
{
	const QCoreApplication app(argc, argv);
	const OptionsResult result = readOptions(QCoreApplication::arguments());
	if (!result.ok) {
		std::fputs(qUtf8Printable(result.text), result.exitStatus == 0 ? stdout : stderr);
		return result.exitStatus;
	}
	return run(result.options);
}
