// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/browser-source.h"

#include "obs-fixture.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QTest>

#include <obs.h>

using namespace Qt::StringLiterals;

/** Whether OBS's own browser source may come yet while a module is being loaded. */
class BrowserSourceTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void initTestCase();

	void noneComesWhereThereIsNoModuleWithOne();
	void itComesWhenItsModuleIsBehindTheOwn();
	void itDoesNotComeAnyMoreWhenItsModuleIsBeforeTheOwn();
	void itMayComeWhenTheOwnModuleIsInNoneOfTheFolders();

private:
	/** Puts a file where OBS looks for modules; returns its path. */
	QByteArray addModule(const QString &folder, const QString &name);

	ObsFixture obs;
	QTemporaryDir modules;
};

void BrowserSourceTest::initTestCase()
{
	// In this order OBS looks into them.
	for (const QString &folder : {u"first"_s, u"second"_s, u"third"_s}) {
		QVERIFY(QDir(modules.path()).mkdir(folder));
		obs_add_module_path(modules.filePath(folder).toUtf8(), modules.filePath(folder).toUtf8());
	}
}

QByteArray BrowserSourceTest::addModule(const QString &folder, const QString &name)
{
	QFile file(modules.filePath(folder + u'/' + name + u".so"_s));
	return file.open(QIODevice::WriteOnly) ? file.fileName().toUtf8() : QByteArray();
}

void BrowserSourceTest::noneComesWhereThereIsNoModuleWithOne()
{
	const QByteArray own = addModule(u"second"_s, u"talvora-obs"_s);
	addModule(u"second"_s, u"obs-browser-transition"_s);
	addModule(u"third"_s, u"text-source"_s);
	QVERIFY(!isBrowserSourceYetToCome(own));
}

void BrowserSourceTest::itComesWhenItsModuleIsBehindTheOwn()
{
	const QByteArray own = addModule(u"second"_s, u"talvora-obs"_s);
	QFile::remove(QString::fromUtf8(addModule(u"third"_s, u"obs-browser"_s)));
	QVERIFY(!isBrowserSourceYetToCome(own));
	const QByteArray browser = addModule(u"third"_s, u"obs-browser"_s);
	QVERIFY(isBrowserSourceYetToCome(own));
	QFile::remove(QString::fromUtf8(browser));
}

void BrowserSourceTest::itDoesNotComeAnyMoreWhenItsModuleIsBeforeTheOwn()
{
	const QByteArray own = addModule(u"second"_s, u"talvora-obs"_s);
	const QByteArray browser = addModule(u"first"_s, u"obs-browser"_s);
	QVERIFY(!isBrowserSourceYetToCome(own));
	QFile::remove(QString::fromUtf8(browser));
}

void BrowserSourceTest::itMayComeWhenTheOwnModuleIsInNoneOfTheFolders()
{
	const QByteArray browser = addModule(u"first"_s, u"obs-browser"_s);
	QVERIFY(isBrowserSourceYetToCome(nullptr));
	QVERIFY(isBrowserSourceYetToCome("/elsewhere/talvora-obs.so"));
	QFile::remove(QString::fromUtf8(browser));
	QVERIFY(!isBrowserSourceYetToCome(nullptr));
}

QTEST_MAIN(BrowserSourceTest)
#include "browser-source-test.moc"
