// SPDX-License-Identifier: GPL-2.0-or-later
#include "dock/dock-widgets.h"

#include <QBoxLayout>
#include <QColor>
#include <QComboBox>
#include <QFrame>
#include <QSlider>
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

void dock::selectData(QComboBox *combo, const QString &data)
{
	const int index = combo->findData(data);
	if (index >= 0) {
		combo->setCurrentIndex(index);
	}
}

QPushButton *dock::button(const QString &text, const char *styleSheet)
{
	auto *made = new QPushButton(text);
	made->setCursor(Qt::PointingHandCursor);
	made->setStyleSheet(QString::fromUtf8(styleSheet));
	return made;
}

QPushButton *dock::flatButton(const char *key, const char *styleSheet)
{
	QPushButton *made = button(text(key), styleSheet);
	made->setFlat(true);
	return made;
}

QPushButton *dock::colorRow(QVBoxLayout &rows, const char *key)
{
	auto *swatch = new QPushButton();
	swatch->setFixedSize(40, 24);
	swatch->setAccessibleName(text(key));

	auto *container = new QWidget();
	// OBS's themes make buttons taller than they are told to be.
	container->setStyleSheet(QStringLiteral("QPushButton { padding: 0px; min-width: 38px; max-width: 38px; "
						"min-height: 22px; max-height: 22px; }"));
	auto *row = new QHBoxLayout(container);
	removeMargins(row);
	row->addWidget(rowLabel(key, swatch));
	row->addWidget(swatch);
	row->addStretch();
	rows.addWidget(container);
	return swatch;
}

void dock::showColor(QPushButton *swatch, const QColor &color)
{
	setStyleSheet(swatch,
		      QStringLiteral("background-color: %1; border: 1px solid #555;").arg(color.name(QColor::HexArgb)));
}

QSlider *dock::percentRows(QVBoxLayout &rows, const char *key, int percent, QLabel *&valueLabel)
{
	auto *slider = new QSlider(Qt::Horizontal);
	slider->setRange(0, 100);
	slider->setValue(percent);
	slider->setAccessibleName(text(key));
	valueLabel = new QLabel(percentText(percent));
	valueLabel->setMinimumWidth(35);

	auto *row = new QHBoxLayout();
	row->addWidget(rowLabel(key, slider));
	row->addWidget(valueLabel);
	row->addStretch();
	rows.addLayout(row);
	rows.addWidget(slider);
	return slider;
}

QString dock::percentText(int percent)
{
	return QStringLiteral("%1%").arg(percent);
}

void dock::setStyleSheet(QWidget *widget, const QString &styleSheet)
{
	if (widget->styleSheet() != styleSheet) {
		widget->setStyleSheet(styleSheet);
	}
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
