// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>
#include <QStringList>

/// What the command line says.
struct Options {
	quint16 port = 3002;
	QString certificate; ///< PEM file: the certificate, then those that lead to its root
	QString privateKey;  ///< PEM file
	quint16 signInPort = 3003;
	QString accounts;   ///< empty: the demo account
	QString addAccount; ///< e-mail address of an account to add instead of serving
	QString key;        ///< credential that clients must send
	int maxTargetLanguages = 0;
	QString script; ///< empty: live
	QString record; ///< empty: nothing is recorded
	QString events; ///< empty: no events are written
};

/// Result of reading the command line: options, or a text to print and an exit status.
struct OptionsResult {
	bool ok = false;
	Options options;
	QString text;
	int exitStatus = 0;
};

/// Reads the command line; `arguments` begins with the program's name.
OptionsResult readOptions(const QStringList &arguments);
