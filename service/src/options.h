// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>

/** What the command line says. */
struct Options {
	quint16 port = 3002;
	/** PEM file: the certificate, then those that lead to its root. */
	QString certificate;
	/** PEM file. */
	QString privateKey;
	quint16 signInPort = 3003;
	/** Empty: the demo account. */
	QString accounts;
	/** E-mail address of an account to add instead of serving. */
	QString addAccount;
	/** Credential that clients must send. */
	QString key;
	int maxTargetLanguages = 0;
	/** Empty: live. */
	QString script;
	/** Empty: nothing is recorded. */
	QString record;
	/** Empty: no events are written. */
	QString events;
};

/** Result of reading the command line: options, or a text to print and an exit status. */
struct OptionsResult {
	bool ok = false;
	Options options;
	QString text;
	int exitStatus = 0;
};

/** Reads the command line; `arguments` begins with the program's name. */
OptionsResult readOptions(const QStringList &arguments);
