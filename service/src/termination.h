// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QObject>

/** Turns SIGINT and SIGTERM into `requested`. At most one object at a time. */
class Termination : public QObject {
	Q_OBJECT

public:
	explicit Termination(QObject *parent = nullptr);
	~Termination() override;

Q_SIGNALS:
	void requested();
};
