// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

class QMainWindow;

/**
 * Restores OBS's window once more as it was when OBS ended last, now that a dock has come that was not there when OBS
 * did so: its place is known only to that layout. A dock that another module has opened meanwhile stays open. Without a
 * layout, as in OBS's first run, nothing happens. Main thread, between the loading of OBS and its exit event.
 */
void restoreWindowLayout(QMainWindow &window);
