// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/apertium-translator.h"
#include "engines/espeak-synthesiser.h"
#include "engines/pocketsphinx-recogniser.h"
#include "options.h"
#include "server.h"
#include "sign-in/accounts.h"
#include "sign-in/sign-in.h"
#include "sign-in/token-store.h"
#include "termination.h"
#include "tls.h"

#include <QCoreApplication>
#include <QFile>

#include <cstdio>
#include <memory>
#include <termios.h>
#include <unistd.h>

namespace {

int fail(const QString &what)
{
	std::fprintf(stderr, "talvora-local-service: %s\n", qUtf8Printable(what));
	return 1;
}

/** What is typed at a terminal is not shown. */
QString readPassword()
{
	termios before{};
	const bool terminal = ::tcgetattr(STDIN_FILENO, &before) == 0;
	if (terminal) {
		termios hidden = before;
		hidden.c_lflag &= ~static_cast<tcflag_t>(ECHO);
		::tcsetattr(STDIN_FILENO, TCSANOW, &hidden);
		std::fputs("Password: ", stderr);
	}
	QFile input;
	const bool opened = input.open(stdin, QIODevice::ReadOnly);
	QByteArray line = opened ? input.readLine() : QByteArray();
	if (terminal) {
		::tcsetattr(STDIN_FILENO, TCSANOW, &before);
		std::fputs("\n", stderr);
	}
	if (line.endsWith('\n')) {
		line.chop(1);
	}
	return QString::fromUtf8(line);
}

int addAccount(const Options &options)
{
	QString error;
	std::optional<Accounts> accounts =
		QFile::exists(options.accounts) ? Accounts::load(options.accounts, &error) : Accounts();
	if (!accounts) {
		return fail(error);
	}
	const QString password = readPassword();
	if (password.isEmpty()) {
		return fail(QStringLiteral("the password is empty"));
	}
	Account account = Account::withPassword(options.addAccount, password);
	account.maxTargetLanguages = options.maxTargetLanguages;
	accounts->put(account);
	return accounts->save(options.accounts, &error) ? 0 : fail(error);
}

int run(const Options &options)
{
	QString error;
	const std::optional<QSslConfiguration> tls = loadTls(options.certificate, options.privateKey, &error);
	if (!tls) {
		return fail(error);
	}
	std::optional<Accounts> accounts =
		options.accounts.isEmpty() ? Accounts::demo() : Accounts::load(options.accounts, &error);
	if (!accounts) {
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
	TokenStore tokens;
	settings.session.tokens = &tokens;
	SignIn signIn(*tls, {std::move(*accounts), options.maxTargetLanguages}, tokens, events);
	if (!signIn.listen(options.signInPort)) {
		return fail(QStringLiteral("cannot listen on port %1: %2")
				    .arg(options.signInPort)
				    .arg(signIn.errorString()));
	}
	Server server(*tls, std::move(settings), &engines, events, recorder);
	if (!server.listen(options.port)) {
		return fail(QStringLiteral("cannot listen on port %1: %2").arg(options.port).arg(server.errorString()));
	}
	Termination termination;
	QObject::connect(&termination, &Termination::requested, qApp, &QCoreApplication::quit);
	std::printf("listening on %s\n", qUtf8Printable(server.url()));
	std::printf("sign-in at %s\n", qUtf8Printable(signIn.url()));
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
	return result.options.addAccount.isEmpty() ? run(result.options) : addAccount(result.options);
}
