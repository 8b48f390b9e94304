// SPDX-License-Identifier: GPL-2.0-or-later
// Preloaded into OBS, puts a video device into /dev that takes every format and writes the frames that it gets, as they
// are, into the file named by TALVORA_LAB_CAMERA, from its beginning whenever the device is opened. OBS's virtual
// camera finds it as it would find the one of v4l2loopback:
// https://docs.kernel.org/userspace-api/media/v4l/v4l2.html
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <linux/videodev2.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace {

constexpr std::string_view NAME = "video42";
constexpr const char *PATH = "/dev/video42";

// The descriptor that stands for the device; there is one at a time.
std::atomic<int> device = -1;

template <typename Function> Function *nextOf(const char *name)
{
	return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

using CloseFunction = int(int);
using OpenFunction = int(const char *, int, ...);
using IoctlFunction = int(int, unsigned long, ...);
using Filter = int(const dirent *);
using Order = int(const dirent **, const dirent **);
using ScandirFunction = int(const char *, dirent ***, Filter *, Order *);

// Found while the program is loaded, since what stands in front of open() and ioctl() is called on every thread.
CloseFunction *const nextClose = nextOf<CloseFunction>("close");
OpenFunction *const nextOpen = nextOf<OpenFunction>("open");
IoctlFunction *const nextIoctl = nextOf<IoctlFunction>("ioctl");
ScandirFunction *const nextScandir = nextOf<ScandirFunction>("scandir");

void describe(v4l2_capability &capability)
{
	capability = {};
	capability.capabilities = V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_DEVICE_CAPS;
	capability.device_caps = V4L2_CAP_VIDEO_OUTPUT;
}

int answer(unsigned long request, void *argument)
{
	switch (request) {
	case VIDIOC_QUERYCAP:
		describe(*static_cast<v4l2_capability *>(argument));
		return 0;
	case VIDIOC_G_FMT:
	case VIDIOC_S_FMT:
	case VIDIOC_S_PARM:
	case VIDIOC_STREAMON:
	case VIDIOC_STREAMOFF:
		return 0;
	default:
		errno = ENOTTY;
		return -1;
	}
}

} // namespace

// The C library's own names: what OBS calls comes here first.
#define CAMERA_EXPORT extern "C" __attribute__((visibility("default")))

CAMERA_EXPORT int open(const char *path, int flags, ...)
{
	va_list more;
	va_start(more, flags);
	const mode_t mode = (flags & O_CREAT) || (flags & O_TMPFILE) == O_TMPFILE ? va_arg(more, mode_t) : 0;
	va_end(more);
	if (std::strcmp(path, PATH) != 0) {
		return nextOpen(path, flags, mode);
	}
	const char *file = std::getenv("TALVORA_LAB_CAMERA");
	if (!file) {
		errno = ENODEV;
		return -1;
	}
	device = nextOpen(file, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
	return device;
}

CAMERA_EXPORT int close(int descriptor)
{
	// The number is somebody else's next.
	if (descriptor >= 0) {
		int expected = descriptor;
		device.compare_exchange_strong(expected, -1);
	}
	return nextClose(descriptor);
}

CAMERA_EXPORT int ioctl(int descriptor, unsigned long request, ...)
{
	va_list more;
	va_start(more, request);
	void *argument = va_arg(more, void *);
	va_end(more);
	if (descriptor >= 0 && descriptor == device) {
		return answer(request, argument);
	}
	return nextIoctl(descriptor, request, argument);
}

CAMERA_EXPORT int scandir(const char *folder, dirent ***list, Filter *filter, Order *order)
{
	if (std::strcmp(folder, "/dev") != 0) {
		return nextScandir(folder, list, filter, order);
	}
	// The caller frees both.
	auto *entry = static_cast<dirent *>(std::calloc(1, sizeof(dirent)));
	auto **entries = static_cast<dirent **>(std::calloc(1, sizeof(dirent *)));
	if (!entry || !entries) {
		std::abort();
	}
	NAME.copy(entry->d_name, NAME.size());
	*entries = entry;
	*list = entries;
	return 1;
}
