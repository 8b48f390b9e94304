// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include <QWidget>

class QTextEdit;

/** What the service understands of the speech, under its caption. */
class TranscriptView : public QWidget {
	Q_OBJECT

public:
	TranscriptView();

public Q_SLOTS:
	/** Shows `text` as it is, in place of what was shown so far. */
	void onTranscriptUpdated(const QString &text);

private:
	friend class PluginDockTest;

	QTextEdit *transcriptView;
};
