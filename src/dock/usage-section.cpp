// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/usage-section.h"

#include "dock/dock-widgets.h"

#include <QHBoxLayout>
#include <QVBoxLayout>

namespace {

constexpr QChar kNoMinutes = u'—';

QLabel *valueLabel()
{
	auto *label = new QLabel(QString(kNoMinutes));
	label->setWordWrap(true);
	return label;
}

} // namespace

UsageSection::UsageSection()
	: QGroupBox(dock::text("Dock.Status.Title")), captionMinutesLabel(valueLabel()),
	  dubbedMinutesLabel(valueLabel())
{
	auto *row = new QHBoxLayout();
	row->addWidget(dock::rowLabel("Dock.Status.CaptionMins"));
	row->addWidget(captionMinutesLabel);
	row->addSpacing(12);
	row->addWidget(dock::rowLabel("Dock.Status.DubbedMins"));
	row->addWidget(dubbedMinutesLabel);
	row->addStretch();

	auto *rows = new QVBoxLayout(this);
	rows->addLayout(row);
}

QLabel *UsageSection::minutesLabel(const QString &type) const
{
	if (type == QLatin1String("dubbed")) {
		return dubbedMinutesLabel;
	}
	return type == QLatin1String("captions") ? captionMinutesLabel : nullptr;
}

void UsageSection::onLimitWarning(const QString &type, int minutesRemaining)
{
	if (QLabel *label = minutesLabel(type)) {
		label->setText(QStringLiteral("<span style='color:orange'>%1 min</span>").arg(minutesRemaining));
	}
}

void UsageSection::onLimitReached(const QString &type)
{
	if (QLabel *label = minutesLabel(type)) {
		label->setText(dock::redText(QStringLiteral("Limit reached")));
	}
}
