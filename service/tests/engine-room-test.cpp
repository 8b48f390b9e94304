// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/engine-room.h"

#include <QSemaphore>
#include <QTest>

#include <atomic>
#include <thread>

namespace {

// Each call announces itself and waits until the test lets it go on.
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
	explicit GatedRecogniser(Gate &gate) : m_gate(gate) {}
	void process(std::span<const int16_t>, RecogniserListener &) override { m_gate.pass(); }

private:
	Gate &m_gate;
};

class GatedTranslator : public Translator {
public:
	explicit GatedTranslator(Gate &gate) : m_gate(gate) {}
	[[nodiscard]] bool canTranslate(const QString &) const override { return true; }
	void prepare(const QString &) override {}
	std::optional<QString> translate(const QString &sentence, const QString &) override
	{
		m_gate.pass();
		return sentence;
	}

private:
	Gate &m_gate;
};

class GatedSynthesiser : public Synthesiser {
public:
	explicit GatedSynthesiser(Gate &gate) : m_gate(gate) {}
	[[nodiscard]] bool hasVoice(const QString &) const override { return true; }
	std::optional<SpeechClip> synthesise(const QString &, const QString &) override
	{
		m_gate.pass();
		return SpeechClip{};
	}

private:
	Gate &m_gate;
};

constexpr int kTimeoutMs = 20000;

} // namespace

class EngineRoomTest : public QObject {
	Q_OBJECT

	Gate m_making;
	Gate m_hearing;
	Gate m_translating;
	Gate m_speaking;

	std::unique_ptr<EngineRoom> room()
	{
		return std::make_unique<EngineRoom>(
			[this]() -> std::unique_ptr<Recogniser> {
				m_making.pass();
				return std::make_unique<GatedRecogniser>(m_hearing);
			},
			std::make_unique<GatedTranslator>(m_translating),
			std::make_unique<GatedSynthesiser>(m_speaking));
	}

	static EngineRoom::DecoderCallbacks nothing()
	{
		return {[] {}, [](qint64) {}, [](const QString &) {}, [](const Utterance &) {}};
	}

private slots:
	void init()
	{
		for (Gate *gate : {&m_making, &m_hearing, &m_translating, &m_speaking}) {
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
		QVERIFY(m_making.entered.tryAcquire(running, kTimeoutMs));
		const auto waiting = engines->startDecoder(this, nothing());
		waiting->end();
		m_making.open.release(running + 1);
		engines.reset();
		QCOMPARE(m_making.calls.load(), running);
	}

	void audioOfASessionThatHasEndedIsNotRecognised()
	{
		auto engines = room();
		m_making.open.release();
		const auto queue = engines->startDecoder(this, nothing());
		QVERIFY(queue->push(QByteArray(AudioQueue::kMostTaken * 10, '\0')));
		QVERIFY(m_hearing.entered.tryAcquire(1, kTimeoutMs));
		queue->end();
		m_hearing.open.release(10);
		engines.reset();
		QCOMPARE(m_hearing.calls.load(), 1);
	}

	void theEndDoesNotWaitForWorkThatHasNotBegun()
	{
		auto engines = room();
		for (int i = 0; i < 10; ++i) {
			engines->translate("Hello.", {"es", "fr"}, this, [](const QString &, const auto &) {});
			engines->synthesise("Hola.", "es", this, [](const auto &) {});
		}
		QVERIFY(m_translating.entered.tryAcquire(1, kTimeoutMs));
		QVERIFY(m_speaking.entered.tryAcquire(1, kTimeoutMs));
		// The engines go on only when the end has been asked for, which ends the queue as well.
		m_making.open.release();
		const auto queue = engines->startDecoder(this, nothing());
		std::thread opener([this, queue] {
			while (!queue->isEnded()) {
				std::this_thread::yield();
			}
			m_translating.open.release(100);
			m_speaking.open.release(100);
		});
		engines.reset();
		opener.join();
		QCOMPARE(m_translating.calls.load(), 1);
		QCOMPARE(m_speaking.calls.load(), 1);
	}
};

QTEST_GUILESS_MAIN(EngineRoomTest)
#include "engine-room-test.moc"
