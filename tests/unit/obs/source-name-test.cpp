// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/source-name.h"

#include "log-capture.h"
#include "obs-fixture.h"

#include <QTest>

#include <obs.hpp>

#include <optional>

namespace {

OBSSourceAutoRelease create(const char *name)
{
	return obs_source_create("some_type", name, nullptr, nullptr);
}

} // namespace

class SourceNameTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void init()
	{
		log.emplace();
		obs.emplace();
	}

	void cleanup()
	{
		obs.reset();
		log.reset();
	}

	void sourceOfThatNameIsRenamedAndTheUserIsTold()
	{
		const OBSSourceAutoRelease holder = create("Name");
		freeSourceName("Name");
		QCOMPARE(obs_source_get_name(holder), "Name (old)");
		const OBSSourceAutoRelease found = obs_get_source_by_name("Name");
		QVERIFY(!found);
		const QString line = "[talvora-obs] Talvora: renamed source 'Name' to 'Name (old)' to free its name";
		QCOMPARE(log->ownLines(), QStringList{line});
		QVERIFY(log->contains(LOG_INFO, line));
	}

	void freeNameChangesNothing()
	{
		const OBSSourceAutoRelease other = create("Other");
		freeSourceName("Name");
		QCOMPARE(obs_source_get_name(other), "Other");
		QCOMPARE(log->ownLines(), QStringList());
	}

	void secondOldSourceIsNumberedAndLoggedAsItIsCalled()
	{
		const OBSSourceAutoRelease first = create("Name (old)");
		const OBSSourceAutoRelease second = create("Name");
		freeSourceName("Name");
		QCOMPARE(obs_source_get_name(first), "Name (old)");
		QCOMPARE(obs_source_get_name(second), "Name (old) 2");
		QCOMPARE(
			log->ownLines(),
			QStringList{"[talvora-obs] Talvora: renamed source 'Name' to 'Name (old) 2' to free its name"});
	}

private:
	std::optional<LogCapture> log;
	std::optional<ObsFixture> obs;
};

QTEST_APPLESS_MAIN(SourceNameTest)
#include "source-name-test.moc"
