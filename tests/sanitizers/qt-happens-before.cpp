// SPDX-License-Identifier: GPL-2.0-or-later
// Tells the thread sanitizer what Qt, which is built without it, does not: that what a thread did before it posted an
// event has happened when the event is delivered, or is thrown away with its receiver; and that what a thread did has
// happened when it has been waited for. Without that the sanitizer sees only how a sleeping thread is woken up, and
// complains whenever the receiver is awake.
#include <QCoreApplication>
#include <QEvent>
#include <QThread>

#include <dlfcn.h>
#include <sanitizer/tsan_interface.h>

namespace {

/** Qt's own function of this name, which one of those below stands in front of. */
template <typename Function> Function *behind(const char *name)
{
	return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

/** Called by Qt on the receiver's thread, with the receiver, the event and a place for the result. */
bool onDelivery(void **data)
{
	__tsan_acquire(data[1]);
	return false;
}

[[maybe_unused]] const bool registered = QInternal::registerCallback(QInternal::EventNotifyCallback, onDelivery);

} // namespace

void QCoreApplication::postEvent(QObject *receiver, QEvent *event, int priority)
{
	static const auto real =
		behind<void(QObject *, QEvent *, int)>("_ZN16QCoreApplication9postEventEP7QObjectP6QEventi");
	__tsan_release(event);
	__tsan_release(receiver);
	real(receiver, event, priority);
}

void QCoreApplication::removePostedEvents(QObject *receiver, int type)
{
	static const auto real = behind<void(QObject *, int)>("_ZN16QCoreApplication18removePostedEventsEP7QObjecti");
	__tsan_acquire(receiver);
	real(receiver, type);
}

/** A thread that ends calls this for what is to be deleted later. */
void QCoreApplication::sendPostedEvents(QObject *receiver, int type)
{
	static const auto real = behind<void(QObject *, int)>("_ZN16QCoreApplication16sendPostedEventsEP7QObjecti");
	real(receiver, type);
	__tsan_release(QThread::currentThread());
}

bool QThread::wait(QDeadlineTimer deadline)
{
	static const auto real = behind<bool(QThread *, QDeadlineTimer)>("_ZN7QThread4waitE14QDeadlineTimer");
	const bool ended = real(this, deadline);
	__tsan_acquire(this);
	return ended;
}
