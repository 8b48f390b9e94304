// SPDX-License-Identifier: GPL-2.0-or-later
// Makes every warning of Qt's ("Timers cannot be started from another thread", "QIODevice::write: device not open") a
// failure of the test function in which it comes, from whatever thread. A test that means to provoke one says so with
// QTest::ignoreMessage, which also fails when the warning does not come.
#include <QRegularExpression>
#include <QTest>

#include <dlfcn.h>

#include <atomic>

namespace {

/** The name of qInstallMessageHandler in Qt's library. */
constexpr char kInstallMessageHandler[] = "_Z22qInstallMessageHandlerPFv9QtMsgTypeRK18QMessageLogContextRK7QStringE";

/** Qt Test's handler while a test runs. */
std::atomic<QtMessageHandler> next = nullptr;

void handle(QtMsgType type, const QMessageLogContext &context, const QString &message)
{
	if (type == QtWarningMsg && QTest::currentTestFunction()) {
		// All but what the tests' platform "offscreen" says of every window that is shown: it has no desktop.
		static const QRegularExpression failing(
			QStringLiteral("^(?!This plugin does not support (raise|propagateSizeHints)\\(\\)$)"));
		// Qt Test forgets this with each function, and looks first whether the message is to be ignored.
		QTest::failOnWarning(failing);
	}
	if (const QtMessageHandler handler = next) {
		handler(type, context, message);
	}
}

} // namespace

// In front of Qt's own, since Qt Test puts its handler into place only when a test runs, and takes it away again
// behind.
Q_DECL_EXPORT QtMessageHandler qInstallMessageHandler(QtMessageHandler handler)
{
	static auto *const original =
		reinterpret_cast<decltype(&qInstallMessageHandler)>(dlsym(RTLD_NEXT, kInstallMessageHandler));
	const QtMessageHandler before = next.exchange(handler);
	const QtMessageHandler real = original(handler ? handle : nullptr);
	return before ? before : real;
}
