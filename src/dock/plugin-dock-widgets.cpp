// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/plugin-dock-widgets.h"

#include <QBoxLayout>
#include <QComboBox>
#include <QFrame>
#include <QStyle>
#include <QStyleOptionButton>
#include <QTextDocument>

#include <obs-module.h>

namespace {

/** Characters a combo box shows at the least. */
constexpr int kShortestComboText = 8;
/** Characters. A service may send a mebibyte. */
constexpr qsizetype kLongestToolTip = 1000;

} // namespace

QString dock::text(const char *key)
{
	return QString::fromUtf8(obs_module_text(key));
}

QLabel *dock::label(const char *key, QWidget *buddy)
{
	auto *made = new QLabel(text(key));
	made->setWordWrap(true);
	made->setBuddy(buddy);
	return made;
}

QLabel *dock::rowLabel(const char *key, QWidget *buddy)
{
	QLabel *made = label(key, buddy);
	made->setWordWrap(false);
	return made;
}

QFrame *dock::separator()
{
	auto *line = new QFrame();
	line->setFrameShape(QFrame::HLine);
	line->setFrameShadow(QFrame::Sunken);
	return line;
}

void dock::removeMargins(QBoxLayout *layout)
{
	layout->setContentsMargins(0, 0, 0, 0);
}

void dock::keepNarrow(QComboBox *combo)
{
	combo->setSizeAdjustPolicy(QComboBox::AdjustToMinimumContentsLengthWithIcon);
	combo->setMinimumContentsLength(kShortestComboText);
	combo->setSizePolicy(QSizePolicy::Expanding, QSizePolicy::Fixed);
}

QString dock::redText(const QString &text)
{
	return QStringLiteral("<span style='color:red'>%1</span>").arg(text);
}

QString dock::toolTip(const QString &text)
{
	// Only rich text wraps, and a text without a tag in it would not be taken for that.
	return Qt::convertFromPlainText(text.left(kLongestToolTip), Qt::WhiteSpaceNormal);
}

QString dock::cutAndEscape(const QString &message, qsizetype length)
{
	return message.left(length).toHtmlEscaped();
}

ElidingButton::ElidingButton()
{
	setSizePolicy(QSizePolicy::Ignored, QSizePolicy::Fixed);
}

void ElidingButton::initStyleOption(QStyleOptionButton *option) const
{
	QPushButton::initStyleOption(option);
	const int room = style()->subElementRect(QStyle::SE_PushButtonContents, option, this).width();
	option->text = option->fontMetrics.elidedText(text(), Qt::ElideRight, room);
}
