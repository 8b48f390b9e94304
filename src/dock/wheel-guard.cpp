// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/wheel-guard.h"

#include <QComboBox>
#include <QEvent>
#include <QSlider>

void WheelGuard::protect(QWidget *panel)
{
	auto *guard = new WheelGuard(panel);
	const auto controls = panel->findChildren<QWidget *>();
	for (QWidget *control : controls) {
		if (qobject_cast<QComboBox *>(control) || qobject_cast<QSlider *>(control)) {
			control->setFocusPolicy(Qt::StrongFocus);
			control->installEventFilter(guard);
		}
	}
}

bool WheelGuard::eventFilter(QObject *watched, QEvent *event)
{
	if (event->type() == QEvent::Wheel) {
		// Ignored, the event goes on to the panel, which scrolls.
		event->ignore();
		return true;
	}
	return QObject::eventFilter(watched, event);
}
