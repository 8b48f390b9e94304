// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

#include "audio/dubbed-source.h"
#include "frontend-stub.h"
#include "log-capture.h"
#include "obs-fixture.h"

#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <obs.h>

#if defined(__GNUC__)
// QTRY_COMPARE and its kind narrow a duration's count where they are used (Qt 6.8).
#pragma GCC diagnostic ignored "-Wconversion"
#endif

/** What a dock under test needs around it: libobs, an empty home folder, and somebody who reads the log. */
class DockSession {
public:
	DockSession()
	{
		qputenv("HOME", home.path().toUtf8());
		obs_register_source(dubbed_source_info());
	}

	~DockSession()
	{
		// As OBS does before it says that it exits.
		obs_enum_sources(
			[](void *, obs_source_t *source) {
				obs_source_remove(source);
				return true;
			},
			nullptr);
		qDeleteAll(frontendStub().docks);
		frontendStub().docks.clear();
	}

	DockSession(const DockSession &) = delete;
	DockSession &operator=(const DockSession &) = delete;

	/** What the plug-in has written last. */
	QJsonObject savedConfig() const
	{
		QFile file(home.filePath(QStringLiteral(".config/talvora-obs/config.json")));
		return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object()
						      : QJsonObject();
	}

	QTemporaryDir home;
	ObsFixture obs;
	LogCapture log;
};
