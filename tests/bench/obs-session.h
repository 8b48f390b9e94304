// SPDX-License-Identifier: GPL-2.0-or-later
#pragma once

/**
 * Starts libobs with the module's source type, once for the process; it stays until the end. Its log is written out, as
 * OBS does, but goes nowhere.
 */
void startObs();
