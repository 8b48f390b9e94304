// SPDX-License-Identifier: GPL-3.0-or-later
#include "session/dub-sender.h"

#include "base/clock.h"
#include "session/wire.h"

#include <algorithm>
#include <numeric>

namespace {

constexpr int kPumpMs = 50;
constexpr double kFrameSec = 0.2;

double nowSec()
{
	return static_cast<double>(monotonicMs()) / 1000.0;
}

} // namespace

DubSender::DubSender(Output output_, QObject *parent) : QObject(parent), output(std::move(output_))
{
	timer.setInterval(kPumpMs);
	connect(&timer, &QTimer::timeout, this, &DubSender::pumpAll);
}

void DubSender::enqueue(const QString &language, int clipId, const SpeechClip &clip)
{
	const auto pcmPerFrame = static_cast<qsizetype>(clip.sampleRate * kFrameSec) * 2;
	Queue &queue = queues[language];
	queue.clips.push_back(
		{clipId, clip.sampleRate, clip.seconds(), taggedFrames(language, clip.pcm, pcmPerFrame), 0});
	leaveOutOld(language, queue);
	pumpAll();
}

void DubSender::leaveOutOld(const QString &language, Queue &queue)
{
	const auto add = [](double sum, const Clip &clip) { return sum + clip.seconds; };
	while (std::accumulate(queue.clips.begin(), queue.clips.end(), 0.0, add) > kBacklogSec) {
		// A clip that has been announced is sent to its end, and the newest clip is never left out.
		const auto oldest = queue.clips.begin() + (queue.clips.front().next > 0 ? 1 : 0);
		if (oldest >= queue.clips.end() - 1) {
			return;
		}
		leaveOut(language, queue, oldest);
	}
}

void DubSender::leaveOutWaiting(const QString &language)
{
	const auto found = queues.find(language);
	if (found == queues.end()) {
		return;
	}
	Queue &queue = found->second;
	while (!queue.clips.empty() && queue.clips.back().next == 0) {
		leaveOut(language, queue, queue.clips.end() - 1);
	}
}

void DubSender::leaveOut(const QString &language, Queue &queue, const std::deque<Clip>::iterator &clip)
{
	output.report("tts_dropped", language, clip->id, clip->seconds);
	queue.clips.erase(clip);
}

void DubSender::pumpAll()
{
	bool waiting = false;
	for (auto &[language, queue] : queues) {
		pump(language, queue);
		waiting = waiting || !queue.clips.empty();
	}
	if (waiting && !timer.isActive()) {
		timer.start();
	} else if (!waiting) {
		timer.stop();
	}
}

void DubSender::pump(const QString &language, Queue &queue)
{
	const double now = nowSec();
	queue.playedAtSec = std::max(queue.playedAtSec, now);
	// Half a frame of tolerance: `playedAtSec` sums many fractions on top of a large clock value and is off by a
	// rounding.
	while (!queue.clips.empty() && queue.playedAtSec - now < kAheadSec - kFrameSec / 2) {
		sendFrame(language, queue);
	}
}

void DubSender::sendFrame(const QString &language, Queue &queue)
{
	Clip &clip = queue.clips.front();
	if (clip.next == 0) {
		output.text(messages::ttsStart(language, clip.id, clip.sampleRate));
		output.report("tts_start", language, clip.id, clip.seconds);
	}
	const QByteArray &frame = clip.frames.at(clip.next);
	output.binary(frame);
	const qsizetype samples = (frame.size() - 1 - language.size()) / 2;
	queue.playedAtSec += static_cast<double>(samples) / clip.sampleRate;
	++clip.next;
	if (clip.next == clip.frames.size()) {
		output.text(messages::ttsEnd(language));
		output.report("tts_end", language, clip.id, clip.seconds);
		queue.clips.pop_front();
	}
}
