// SPDX-License-Identifier: GPL-2.0-or-later
#include "obs/public-source.h"

#include "obs-fixture.h"

#include <QTest>

#include <atomic>
#include <optional>
#include <thread>

class PublicSourceTest : public QObject {
	Q_OBJECT

private Q_SLOTS:
	void initTestCase();
	void cleanupTestCase();
	void holdsTheReferenceUntilReleased();
	void letsGoWhenObsRemovesTheSource();
	void letsGoAtOnceOfASourceThatIsRemovedAlready();
	void adoptingAnotherReleasesTheFirst();
	void removalOfAnEarlierSourceLeavesTheNextOne();
	void forgettingLeavesTheReferenceUnreleased();
	void removalOfAForgottenSourceLeavesTheNextOne();
	void destructionReleases();
	void getRefGivesAReferenceOfItsOwn();
	void removalOnAnotherThreadMeetsAdoptionAndReleaseSafely();

private:
	std::optional<ObsFixture> obs;
};

static const obs_source_info *inputInfo()
{
	static const obs_source_info info = [] {
		obs_source_info made{};
		made.id = "test_input";
		made.type = OBS_SOURCE_TYPE_INPUT;
		made.output_flags = OBS_SOURCE_AUDIO;
		made.get_name = [](void *) { return "Test input"; };
		made.create = [](obs_data_t *, obs_source_t *source) -> void * { return source; };
		made.destroy = [](void *) {};
		return made;
	}();
	return &info;
}

/** A public source, and a weak reference to see how long it lives. */
struct Made {
	obs_source_t *source = obs_source_create("test_input", "input", nullptr, nullptr);
	obs_weak_source_t *weak = obs_source_get_weak_source(source);

	~Made() { obs_weak_source_release(weak); }
	bool alive() const { return !obs_weak_source_expired(weak); }
	/** Nobody holds it any more. OBS's own threads may for moments. */
	bool isLetGo() const
	{
		return QTest::qWaitFor([this] { return !alive(); }, 5000);
	}
};

void PublicSourceTest::initTestCase()
{
	obs.emplace();
	obs_register_source(inputInfo());
}

void PublicSourceTest::cleanupTestCase()
{
	obs.reset();
}

void PublicSourceTest::holdsTheReferenceUntilReleased()
{
	std::mutex lock;
	PublicSource held(lock);
	QCOMPARE(held.get(), nullptr);
	const Made made;
	held.adopt(made.source);
	QCOMPARE(held.get(), made.source);
	QVERIFY(made.alive());
	held.release();
	QCOMPARE(held.get(), nullptr);
	QVERIFY(made.isLetGo());
}

void PublicSourceTest::letsGoWhenObsRemovesTheSource()
{
	std::mutex lock;
	PublicSource held(lock);
	const Made made;
	held.adopt(made.source);
	obs_source_remove(made.source);
	QCOMPARE(held.get(), nullptr);
	QVERIFY(made.isLetGo());
}

void PublicSourceTest::letsGoAtOnceOfASourceThatIsRemovedAlready()
{
	std::mutex lock;
	PublicSource held(lock);
	const Made made;
	obs_source_remove(made.source);
	held.adopt(made.source);
	QCOMPARE(held.get(), nullptr);
	QVERIFY(made.isLetGo());
}

void PublicSourceTest::adoptingAnotherReleasesTheFirst()
{
	std::mutex lock;
	PublicSource held(lock);
	const Made first;
	const Made second;
	held.adopt(first.source);
	held.adopt(second.source);
	QVERIFY(first.isLetGo());
	QCOMPARE(held.get(), second.source);
	QVERIFY(second.alive());
}

void PublicSourceTest::removalOfAnEarlierSourceLeavesTheNextOne()
{
	std::mutex lock;
	PublicSource held(lock);
	const Made first;
	const Made second;
	obs_source_t *kept = obs_source_get_ref(first.source);
	held.adopt(first.source);
	held.adopt(second.source);
	obs_source_remove(kept);
	obs_source_release(kept);
	QCOMPARE(held.get(), second.source);
}

void PublicSourceTest::forgettingLeavesTheReferenceUnreleased()
{
	std::mutex lock;
	const Made made;
	{
		PublicSource held(lock);
		held.adopt(made.source);
		held.forget();
		QCOMPARE(held.get(), nullptr);
	}
	QVERIFY(made.alive());
	obs_source_remove(made.source);
	obs_source_release(made.source);
	QVERIFY(made.isLetGo());
}

void PublicSourceTest::removalOfAForgottenSourceLeavesTheNextOne()
{
	std::mutex lock;
	PublicSource held(lock);
	const Made forgotten;
	const Made next;
	held.adopt(forgotten.source);
	held.forget();
	held.adopt(next.source);
	obs_source_remove(forgotten.source);
	obs_source_release(forgotten.source);
	QCOMPARE(held.get(), next.source);
}

void PublicSourceTest::destructionReleases()
{
	std::mutex lock;
	const Made made;
	{
		PublicSource held(lock);
		held.adopt(made.source);
	}
	QVERIFY(made.isLetGo());
}

void PublicSourceTest::getRefGivesAReferenceOfItsOwn()
{
	std::mutex lock;
	PublicSource held(lock);
	QCOMPARE(held.getRef(), nullptr);
	const Made made;
	held.adopt(made.source);
	obs_source_t *own = held.getRef();
	QCOMPARE(own, made.source);
	held.release();
	QVERIFY(made.alive());
	obs_source_release(own);
	QVERIFY(made.isLetGo());
}

void PublicSourceTest::removalOnAnotherThreadMeetsAdoptionAndReleaseSafely()
{
	for (int round = 0; round < 1000; ++round) {
		std::mutex lock;
		const Made made;
		obs_source_t *remover = obs_source_get_ref(made.source);
		std::atomic<bool> ready = false;
		std::atomic<bool> go = false;
		std::atomic<bool> removed = false;
		std::thread other([&] {
			ready = true;
			while (!go) {
				std::this_thread::yield();
			}
			obs_source_remove(remover);
			removed = true;
			obs_source_release(remover);
		});
		while (!ready) {
			std::this_thread::yield();
		}
		PublicSource held(lock);
		// In every other round the removal meets the adoption itself, early or late or just before it, and else
		// what comes after it: a release or nothing at all.
		if (round % 2 == 0) {
			go = true;
			for (int spins = 20 * round; spins > 0 && !removed; --spins) {
			}
		}
		held.adopt(made.source);
		go = true;
		if (round % 4 < 2) {
			held.release();
		}
		other.join();
		QCOMPARE(held.get(), nullptr);
		QVERIFY(made.isLetGo());
	}
}

QTEST_MAIN(PublicSourceTest)
#include "public-source-test.moc"
