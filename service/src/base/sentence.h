// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once

#include <QString>

/**
 * Makes a sentence of recognised lower-case words: first letter and the pronoun "I" capital, a full stop at the end.
 * Empty words give an empty sentence.
 */
QString sentenceFromWords(const QString &words);

/** The same without the full stop, for words that are still growing. */
QString capitalisedWords(const QString &words);

/** A translation made presentable: first letter capital, runs of blanks collapsed, none at the ends. */
QString tidied(const QString &text);
