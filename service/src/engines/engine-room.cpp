// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/engine-room.h"

#include "base/clock.h"

#include <algorithm>

namespace {

// More decoders than this at a time wait for their turn; each takes about 100 MB.
constexpr int kMostDecoders = 16;

// Hands on what a recogniser notices.
class CallbackListener : public RecogniserListener {
public:
	explicit CallbackListener(std::function<void(std::function<void()>)> post,
				  EngineRoom::DecoderCallbacks callbacks)
		: m_post(std::move(post)), m_callbacks(std::move(callbacks))
	{
	}

	void utteranceStarted() override
	{
		m_post([started = m_callbacks.started, now = monotonicMs()] { started(now); });
	}

	void partialWords(const QString &words) override
	{
		m_post([partial = m_callbacks.partial, words] { partial(words); });
	}

	void utteranceEnded(const QString &words, double speechSec, qint64 detectedMs) override
	{
		const Utterance utterance{words, speechSec, detectedMs, monotonicMs()};
		m_post([ended = m_callbacks.ended, utterance] { ended(utterance); });
	}

private:
	std::function<void(std::function<void()>)> m_post;
	EngineRoom::DecoderCallbacks m_callbacks;
};

} // namespace

EngineRoom::EngineRoom(RecogniserFactory recognisers, std::unique_ptr<Translator> translator,
		       std::unique_ptr<Synthesiser> synthesiser, QObject *parent)
	: QObject(parent), m_recognisers(std::move(recognisers)), m_translator(std::move(translator)),
	  m_synthesiser(std::move(synthesiser)), m_translatorContext(new QObject), m_synthesiserContext(new QObject)
{
	m_decoders.setMaxThreadCount(kMostDecoders);
	m_translatorThread.setObjectName("translator");
	m_synthesiserThread.setObjectName("synthesiser");
	m_translatorContext->moveToThread(&m_translatorThread);
	m_synthesiserContext->moveToThread(&m_synthesiserThread);
	m_translatorThread.start();
	m_synthesiserThread.start();
}

EngineRoom::~EngineRoom()
{
	m_stopping = true;
	for (const std::weak_ptr<AudioQueue> &queue : m_queues) {
		if (const std::shared_ptr<AudioQueue> alive = queue.lock()) {
			alive->end();
		}
	}
	// Each engine goes on the thread that used it.
	QMetaObject::invokeMethod(m_translatorContext, [this] {
		m_translator.reset();
		delete m_translatorContext;
		QThread::currentThread()->quit();
	});
	QMetaObject::invokeMethod(m_synthesiserContext, [this] {
		m_synthesiser.reset();
		delete m_synthesiserContext;
		QThread::currentThread()->quit();
	});
	m_translatorThread.wait();
	m_synthesiserThread.wait();
	m_decoders.waitForDone();
}

void EngineRoom::deliver(const QPointer<QObject> &receiver, std::function<void()> answer)
{
	QMetaObject::invokeMethod(
		this,
		[receiver, answer = std::move(answer)] {
			if (receiver) {
				answer();
			}
		},
		Qt::QueuedConnection);
}

void EngineRoom::prepare(const QString &language)
{
	QMetaObject::invokeMethod(m_translatorContext, [this, language] {
		if (!m_stopping) {
			m_translator->prepare(language);
		}
	});
}

void EngineRoom::translate(const QString &sentence, const QStringList &languages, QObject *receiver,
			   std::function<void(const QString &, const std::optional<QString> &)> answer)
{
	const auto job = [this, sentence, languages, receiver = QPointer<QObject>(receiver),
			  answer = std::move(answer)] {
		for (const QString &language : languages) {
			if (m_stopping) {
				return;
			}
			const std::optional<QString> text = m_translator->translate(sentence, language);
			deliver(receiver, [answer, language, text] { answer(language, text); });
		}
	};
	QMetaObject::invokeMethod(m_translatorContext, job);
}

void EngineRoom::synthesise(const QString &text, const QString &language, QObject *receiver,
			    std::function<void(const std::optional<SpeechClip> &)> answer)
{
	const auto job = [this, text, language, receiver = QPointer<QObject>(receiver), answer = std::move(answer)] {
		if (m_stopping) {
			return;
		}
		const std::optional<SpeechClip> clip = m_synthesiser->synthesise(text, language);
		deliver(receiver, [answer, clip] { answer(clip); });
	};
	QMetaObject::invokeMethod(m_synthesiserContext, job);
}

std::shared_ptr<AudioQueue> EngineRoom::startDecoder(QObject *receiver, DecoderCallbacks callbacks)
{
	std::erase_if(m_queues, [](const std::weak_ptr<AudioQueue> &queue) { return queue.expired(); });
	const auto queue = std::make_shared<AudioQueue>();
	m_queues.push_back(queue);
	m_decoders.start([this, queue, callbacks = std::move(callbacks), receiver = QPointer<QObject>(receiver)] {
		const auto post = [this, receiver](std::function<void()> answer) {
			deliver(receiver, std::move(answer));
		};
		// The client may have gone while the decoder waited for its turn.
		if (queue->isEnded()) {
			return;
		}
		const std::unique_ptr<Recogniser> recogniser = m_recognisers();
		if (!recogniser) {
			post(callbacks.unavailable);
			return;
		}
		CallbackListener listener(post, callbacks);
		for (std::vector<int16_t> samples = queue->take(); !samples.empty(); samples = queue->take()) {
			recogniser->process(samples, listener);
		}
	});
	return queue;
}
