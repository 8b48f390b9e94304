// SPDX-License-Identifier: GPL-3.0-or-later
#include "engines/engine-room.h"

#include "base/clock.h"

#include <algorithm>

namespace {

/** More decoders than this at a time wait for their turn; each takes about 100 MB. */
constexpr int kMostDecoders = 16;

/** Hands on what a recogniser notices. */
class CallbackListener : public RecogniserListener {
public:
	explicit CallbackListener(std::function<void(std::function<void()>)> post_,
				  EngineRoom::DecoderCallbacks callbacks_)
		: post(std::move(post_)), callbacks(std::move(callbacks_))
	{
	}

	void utteranceStarted() override
	{
		post([started = callbacks.started, now = monotonicMs()] { started(now); });
	}

	void partialWords(const QString &words) override
	{
		post([partial = callbacks.partial, words] { partial(words); });
	}

	void utteranceEnded(const QString &words, double speechSec, qint64 detectedMs) override
	{
		const Utterance utterance{words, speechSec, detectedMs, monotonicMs()};
		post([ended = callbacks.ended, utterance] { ended(utterance); });
	}

private:
	std::function<void(std::function<void()>)> post;
	EngineRoom::DecoderCallbacks callbacks;
};

} // namespace

EngineRoom::EngineRoom(RecogniserFactory recognisers_, std::unique_ptr<Translator> translator_,
		       std::unique_ptr<Synthesiser> synthesiser_, QObject *parent)
	: QObject(parent), recognisers(std::move(recognisers_)), translator(std::move(translator_)),
	  synthesiser(std::move(synthesiser_)), translatorContext(new QObject), synthesiserContext(new QObject)
{
	decoders.setMaxThreadCount(kMostDecoders);
	translatorThread.setObjectName("translator");
	synthesiserThread.setObjectName("synthesiser");
	translatorContext->moveToThread(&translatorThread);
	synthesiserContext->moveToThread(&synthesiserThread);
	translatorThread.start();
	synthesiserThread.start();
}

EngineRoom::~EngineRoom()
{
	stopping = true;
	for (const std::weak_ptr<AudioQueue> &queue : queues) {
		if (const std::shared_ptr<AudioQueue> alive = queue.lock()) {
			alive->end();
		}
	}
	// Each engine goes on the thread that used it.
	QMetaObject::invokeMethod(translatorContext, [this] {
		translator.reset();
		delete translatorContext;
		QThread::currentThread()->quit();
	});
	QMetaObject::invokeMethod(synthesiserContext, [this] {
		synthesiser.reset();
		delete synthesiserContext;
		QThread::currentThread()->quit();
	});
	translatorThread.wait();
	synthesiserThread.wait();
	decoders.waitForDone();
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
	QMetaObject::invokeMethod(translatorContext, [this, language] {
		if (!stopping) {
			translator->prepare(language);
		}
	});
}

void EngineRoom::translate(const QString &sentence, const QStringList &languages, QObject *receiver,
			   std::function<void(const QString &, const std::optional<QString> &)> answer)
{
	const auto job = [this, sentence, languages, receiver = QPointer<QObject>(receiver),
			  answer = std::move(answer)] {
		for (const QString &language : languages) {
			if (stopping) {
				return;
			}
			const std::optional<QString> text = translator->translate(sentence, language);
			deliver(receiver, [answer, language, text] { answer(language, text); });
		}
	};
	QMetaObject::invokeMethod(translatorContext, job);
}

void EngineRoom::synthesise(const QString &text, const QString &language, QObject *receiver,
			    std::function<void(const std::optional<SpeechClip> &)> answer)
{
	const auto job = [this, text, language, receiver = QPointer<QObject>(receiver), answer = std::move(answer)] {
		if (stopping) {
			return;
		}
		const std::optional<SpeechClip> clip = synthesiser->synthesise(text, language);
		deliver(receiver, [answer, clip] { answer(clip); });
	};
	QMetaObject::invokeMethod(synthesiserContext, job);
}

std::shared_ptr<AudioQueue> EngineRoom::startDecoder(QObject *receiver, DecoderCallbacks callbacks)
{
	std::erase_if(queues, [](const std::weak_ptr<AudioQueue> &queue) { return queue.expired(); });
	const auto queue = std::make_shared<AudioQueue>();
	queues.push_back(queue);
	decoders.start([this, queue, callbacks = std::move(callbacks), receiver = QPointer<QObject>(receiver)] {
		const auto post = [this, receiver](std::function<void()> answer) {
			deliver(receiver, std::move(answer));
		};
		// The client may have gone while the decoder waited for its turn.
		if (queue->isEnded()) {
			return;
		}
		const std::unique_ptr<Recogniser> recogniser = recognisers();
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
