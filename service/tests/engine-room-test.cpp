// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/engine-room.h"

#include <QSemaphore>
#include <QTest>

#include <atomic>
#include <thread>

namespace {

/** Each call announces itself and waits until the test lets it go on. */
struct Gate {
	QSemaphore entered;
	QSemaphore open;
	std::atomic<int> calls = 0;

	void pass()
	{
		++calls;
		entered.release();
		open.acquire();
	}
};

class GatedRecogniser : public Recogniser {
public:
	explicit GatedRecogniser(Gate &gate_) : gate(gate_) {}
	void process(std::span<const int16_t>, RecogniserListener &) override { gate.pass(); }

private:
	Gate &gate;
};

class GatedTranslator : public Translator {
public:
	explicit GatedTranslator(Gate &gate_) : gate(gate_) {}
	[[nodiscard]] bool canTranslate(const QString &) const override { return true; }
	void prepare(const QString &) override {}
	std::optional<QString> translate(const QString &sentence, const QString &) override
	{
		gate.pass();
		return sentence;
	}

private:
	Gate &gate;
};

class GatedSynthesiser : public Synthesiser {
public:
	explicit GatedSynthesiser(Gate &gate_) : gate(gate_) {}
	[[nodiscard]] bool hasVoice(const QString &) const override { return true; }
	std::optional<SpeechClip> synthesise(const QString &, const QString &) override
	{
		gate.pass();
		return SpeechClip{};
	}

private:
	Gate &gate;
};

constexpr int kTimeoutMs = 20000;

} // namespace

class EngineRoomTest : public QObject {
	Q_OBJECT

	Gate making;
	Gate hearing;
	Gate translating;
	Gate speaking;

	std::unique_ptr<EngineRoom> room()
	{
		return std::make_unique<EngineRoom>(
			[this]() -> std::unique_ptr<Recogniser> {
				making.pass();
				return std::make_unique<GatedRecogniser>(hearing);
			},
			std::make_unique<GatedTranslator>(translating), std::make_unique<GatedSynthesiser>(speaking));
	}

	static EngineRoom::DecoderCallbacks nothing()
	{
		return {[] {}, [](qint64) {}, [](const QString &) {}, [](const Utterance &) {}};
	}

private Q_SLOTS:
	void init()
	{
		for (Gate *gate : {&making, &hearing, &translating, &speaking}) {
			gate->entered.tryAcquire(gate->entered.available());
			gate->open.tryAcquire(gate->open.available());
			gate->calls = 0;
		}
	}

	void noRecogniserIsMadeForASessionThatEndedWhileItWaited()
	{
		constexpr int running = 16;
		auto engines = room();
		std::vector<std::shared_ptr<AudioQueue>> queues;
		queues.reserve(running);
		for (int i = 0; i < running; ++i) {
			queues.push_back(engines->startDecoder(this, nothing()));
		}
		QVERIFY(making.entered.tryAcquire(running, kTimeoutMs));
		const auto waiting = engines->startDecoder(this, nothing());
		waiting->end();
		making.open.release(running + 1);
		engines.reset();
		QCOMPARE(making.calls.load(), running);
	}

	void audioOfASessionThatHasEndedIsNotRecognised()
	{
		auto engines = room();
		making.open.release();
		const auto queue = engines->startDecoder(this, nothing());
		QVERIFY(queue->push(QByteArray(AudioQueue::kMostTaken * 10, '\0')));
		QVERIFY(hearing.entered.tryAcquire(1, kTimeoutMs));
		queue->end();
		hearing.open.release(10);
		engines.reset();
		QCOMPARE(hearing.calls.load(), 1);
	}

	void theEndDoesNotWaitForWorkThatHasNotBegun()
	{
		auto engines = room();
		for (int i = 0; i < 10; ++i) {
			engines->translate("Hello.", {"es", "fr"}, this, [](const QString &, const auto &) {});
			engines->synthesise("Hola.", "es", this, [](const auto &) {});
		}
		QVERIFY(translating.entered.tryAcquire(1, kTimeoutMs));
		QVERIFY(speaking.entered.tryAcquire(1, kTimeoutMs));
		// The engines go on only when the end has been asked for, which ends the queue as well.
		making.open.release();
		const auto queue = engines->startDecoder(this, nothing());
		std::thread opener([this, queue] {
			while (!queue->isEnded()) {
				std::this_thread::yield();
			}
			translating.open.release(100);
			speaking.open.release(100);
		});
		engines.reset();
		opener.join();
		QCOMPARE(translating.calls.load(), 1);
		QCOMPARE(speaking.calls.load(), 1);
	}
};

QTEST_GUILESS_MAIN(EngineRoomTest)
#include "engine-room-test.moc"
