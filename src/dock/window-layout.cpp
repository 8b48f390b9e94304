// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/window-layout.h"

#include <QDockWidget>
#include <QMainWindow>

#include <dlfcn.h>
#include <obs-frontend-api.h>
#include <util/config-file.h>

#include <utility>

namespace {

/** The settings that OBS keeps its layout in. From OBS 31 on they are in a file of their own, which 30 has no call for.
 */
config_t *windowSettings()
{
#if LIBOBS_API_VER >= MAKE_SEMANTIC_VERSION(31, 0, 0)
	return obs_frontend_get_user_config();
#else
	using GetConfig = config_t *();
	auto *get = reinterpret_cast<GetConfig *>(dlsym(RTLD_DEFAULT, "obs_frontend_get_user_config"));
	return get ? get() : obs_frontend_get_global_config();
#endif
}

} // namespace

void restoreWindowLayout(QMainWindow &window)
{
	config_t *settings = windowSettings();
	const char *layout = settings ? config_get_string(settings, "BasicWindow", "DockState") : nullptr;
	if (!layout) {
		return;
	}
	QList<QDockWidget *> open;
	const auto docks = window.findChildren<QDockWidget *>(Qt::FindDirectChildrenOnly);
	for (QDockWidget *dock : docks) {
		if (!dock->isHidden()) {
			open.append(dock);
		}
	}
	window.restoreState(QByteArray::fromBase64(layout));
	for (QDockWidget *dock : std::as_const(open)) {
		dock->setVisible(true);
	}
}
