// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/transcript-view.h"

#include "dock/dock-widgets.h"

#include <QTextEdit>
#include <QVBoxLayout>

TranscriptView::TranscriptView() : transcriptView(new QTextEdit())
{
	transcriptView->setReadOnly(true);
	transcriptView->setMaximumHeight(90);
	transcriptView->setMinimumWidth(180);
	transcriptView->setStyleSheet(
		QStringLiteral("background: transparent; border: 1px solid #333; font-size: 12px;"));
	transcriptView->setPlaceholderText(dock::text("Dock.Status.TranscriptPlaceholder"));
	// A text field keeps Tab for itself, and whoever walks through the panel by keyboard would not get out of it.
	transcriptView->setTabChangesFocus(true);

	QLabel *caption = dock::label("Dock.Status.Transcript", transcriptView);
	caption->setStyleSheet(QStringLiteral("font-size: 11px; color: gray;"));

	auto *rows = new QVBoxLayout(this);
	dock::removeMargins(rows);
	rows->addWidget(caption);
	rows->addWidget(transcriptView);
}

void TranscriptView::onTranscriptUpdated(const QString &text)
{
	transcriptView->setPlainText(text);
}
