// SPDX-License-Identifier: GPL-3.0-or-later
#include "options.h"

#include <QCommandLineParser>

namespace {

const char *const kDescription =
	R"(Talvora's local service: hears English, and answers with captions and speech in other languages.

It listens on the loopback interface at wss://localhost:PORT/ws/audio-pipeline and says so on its standard output
when it is ready. It serves sign-in pages as well, at https://localhost:PORT/auth (another port). SIGINT and SIGTERM end it. The certificate must be for "localhost" and its root must be trusted by
the machine, for example:

  mkcert -install
  mkcert localhost
  talvora-local-service --certificate localhost.pem --private-key localhost-key.pem

Script: a JSON file, played on each connection instead of hearing and translating. It is a list of steps, or
{"connections": [[...], [...]]} with the steps of the first connection, the second and so on; the last list repeats.
After its last step a connection stays open. The steps, each an object with one member:

  {"expect": TYPE}             wait for a text message whose "type" is TYPE
  {"after_ms": N}              wait N ms
  {"after_audio_bytes": N}     wait until N bytes of audio have come in on the connection
  {"send": {...}}              send the object as a text message
  {"send_text": "..."}         send any text
  {"refuse_auth": "..."}       send "auth_error" with this error
  {"send_binary_hex": "..."}   send a binary frame
  {"send_tts": {...}}          send a clip; "language" is needed, the others have defaults: "clip_id" (1),
                               "sample_rate" (24000, Hz), "frame_bytes" (4800, PCM per frame), "pcm" ("sine 440 1.0s",
                               or a file of raw samples beside the script), "start" and "end" (true: send
                               "tts_start" and "tts_end")
  {"close": true}              close, with code 1000 or the number given instead of true
  {"drop": true}               end the connection without closing it

Record: one JSON line for each connection, message, frame and end, with "connection", "kind" ("open", "text",
"binary", "close") and "mono_ms"; the bytes of the audio frames of connection N are in FILE.N.pcm.

Events: one JSON line for everything that the service does, with "event", "connection", "mono_ms" (CLOCK_MONOTONIC)
and "wall" (UTC).)";

OptionsResult failure(const QString &what)
{
	return {false, {}, QStringLiteral("%1\nSee --help.\n").arg(what), 2};
}

} // namespace

OptionsResult readOptions(const QStringList &arguments)
{
	const QCommandLineOption port("port", "Port to listen on; 0 takes a free one.", "N", "3002");
	const QCommandLineOption certificate("certificate", "TLS certificate for localhost (PEM). Needed.", "FILE");
	const QCommandLineOption privateKey("private-key", "Its private key (PEM). Needed.", "FILE");
	const QCommandLineOption signInPort("sign-in-port", "Port of the sign-in pages; 0 takes a free one.", "N",
					    "3003");
	const QCommandLineOption accounts(
		"accounts", "Accounts that can sign in (JSON); without it demo@talvora.local, password talvora.",
		"FILE");
	const QCommandLineOption addAccount(
		"add-account",
		"Add an account to the file of --accounts, with the password read from the standard input, and end.",
		"EMAIL");
	const QCommandLineOption key("key", "API key that clients must send.", "KEY", "tak_live_local");
	const QCommandLineOption maximum("max-target-languages", "Target languages of a session; 0: no limit.", "N",
					 "0");
	const QCommandLineOption script("script", "Play this script instead of hearing and translating.", "FILE");
	const QCommandLineOption record("record", "Write what clients send to this file.", "FILE");
	const QCommandLineOption events("events", "Write what the service does to this file.", "FILE");
	const QCommandLineOption help({"h", "help"}, "Show this text.");

	QCommandLineParser parser;
	parser.setApplicationDescription(kDescription);
	parser.addOptions({port, certificate, privateKey, signInPort, accounts, addAccount, key, maximum, script,
			   record, events, help});
	if (!parser.parse(arguments)) {
		return failure(parser.errorText());
	}
	if (parser.isSet(help)) {
		return {false, {}, parser.helpText(), 0};
	}
	if (!parser.positionalArguments().isEmpty()) {
		return failure(
			QStringLiteral("Unexpected argument: %1").arg(parser.positionalArguments().constFirst()));
	}

	OptionsResult result;
	bool portOk = false;
	bool signInPortOk = false;
	bool maximumOk = false;
	result.options.port = parser.value(port).toUShort(&portOk);
	result.options.signInPort = parser.value(signInPort).toUShort(&signInPortOk);
	result.options.maxTargetLanguages = parser.value(maximum).toInt(&maximumOk);
	if (!portOk || !signInPortOk || !maximumOk || result.options.maxTargetLanguages < 0) {
		return failure(
			QStringLiteral("--port, --sign-in-port and --max-target-languages take a number from 0 up."));
	}
	result.options.accounts = parser.value(accounts);
	result.options.addAccount = parser.value(addAccount);
	if (!result.options.addAccount.isEmpty()) {
		if (result.options.accounts.isEmpty()) {
			return failure(QStringLiteral("--add-account needs --accounts."));
		}
		result.ok = true;
		return result;
	}
	if (!parser.isSet(certificate) || !parser.isSet(privateKey)) {
		return failure(QStringLiteral("--certificate and --private-key are needed."));
	}
	result.options.certificate = parser.value(certificate);
	result.options.privateKey = parser.value(privateKey);
	result.options.key = parser.value(key);
	result.options.script = parser.value(script);
	result.options.record = parser.value(record);
	result.options.events = parser.value(events);
	result.ok = true;
	return result;
}
