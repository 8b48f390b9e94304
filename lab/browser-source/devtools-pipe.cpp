// SPDX-License-Identifier: GPL-2.0-or-later
#include "devtools-pipe.h"

#include <QDir>
#include <QFile>
#include <QStandardPaths>

#include <array>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <linux/close_range.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

// glibc's header forgets (up to 2.41) to say that its functions are C.
extern "C" {
#include <sys/pidfd.h>
}

static constexpr int goodbyeMs = 2000;

QString DevtoolsPipe::program()
{
	// The program itself is preferred to Debian's wrapper in the path: the wrapper is a shell that stays in
	// between, and the signals meant for the browser would reach the shell.
	const QString name = QStringLiteral("chromium-headless-shell");
	const QString direct = QStandardPaths::findExecutable(name, {QStringLiteral("/usr/lib/chromium")});
	return direct.isEmpty() ? QStandardPaths::findExecutable(name) : direct;
}

static std::vector<QByteArray> browserArguments(const QString &program, const QString &profileDir)
{
	std::vector<QByteArray> arguments = {
		QFile::encodeName(program),
		"--headless",
		"--remote-debugging-pipe",
		"--disable-gpu",
		"--hide-scrollbars",
		"--mute-audio",
		"--no-first-run",
		"--disable-background-networking",
		"--disable-component-update",
		"--disable-sync",
		"--disable-default-apps",
		"--disable-extensions",
		"--disable-domain-reliability",
		"--no-pings",
		"--metrics-recording-only",
		"--disable-breakpad",
		"--disable-dev-shm-usage",
		"--host-resolver-rules=MAP * ~NOTFOUND",
		"--user-data-dir=" + QFile::encodeName(profileDir),
	};
	if (geteuid() == 0) {
		// Chromium refuses to run as root with its sandbox on.
		arguments.insert(arguments.end(), {"--no-sandbox", "--no-zygote"});
	}
	return arguments;
}

/// Our environment, except that temporary files go into the folder that is removed afterwards, and that libraries
/// preloaded into OBS (a sanitizer's, say) stay out of the browser.
static std::vector<QByteArray> browserEnvironment(const QString &profileDir)
{
	std::vector<QByteArray> environment;
	for (char **variable = environ; *variable; ++variable) {
		const QByteArray text(*variable);
		if (!text.startsWith("TMPDIR=") && !text.startsWith("LD_PRELOAD=")) {
			environment.push_back(text);
		}
	}
	environment.push_back("TMPDIR=" + QFile::encodeName(profileDir));
	return environment;
}

static std::vector<char *> pointers(std::vector<QByteArray> &strings)
{
	std::vector<char *> result;
	result.reserve(strings.size() + 1);
	for (QByteArray &string : strings) {
		result.push_back(string.data());
	}
	result.push_back(nullptr);
	return result;
}

/// In the child, between fork and exec: system calls only.
[[noreturn]] static void becomeBrowser(pid_t parent, int input, int output, char *const *arguments,
				       char *const *environment)
{
	setpgid(0, 0);
	prctl(PR_SET_PDEATHSIG, SIGKILL);
	const int nowhere = open("/dev/null", O_RDWR | O_CLOEXEC);
	if (getppid() != parent || nowhere < 0) {
		_exit(EXIT_FAILURE);
	}

	sigset_t none;
	sigemptyset(&none);
	sigprocmask(SIG_SETMASK, &none, nullptr);

	for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
		dup2(nowhere, standard);
	}

	// Chromium reads commands from descriptor 3 and answers on 4. Ours are moved out of the way first, in case they
	// have these numbers already.
	constexpr int outOfTheWay = 10;
	input = fcntl(input, F_DUPFD, outOfTheWay);
	output = fcntl(output, F_DUPFD, outOfTheWay);
	dup2(input, 3);
	dup2(output, 4);
	close_range(5, ~0U, CLOSE_RANGE_CLOEXEC);

	execve(arguments[0], arguments, environment);
	_exit(EXIT_FAILURE);
}

DevtoolsPipe::DevtoolsPipe(const QString &program)
	: profile(QDir::tempPath() + QStringLiteral("/talvora-lab-browser-XXXXXX"))
{
	std::array<int, 2> down = {-1, -1};
	std::array<int, 2> up = {-1, -1};
	if (!profile.isValid() || pipe2(down.data(), O_CLOEXEC) != 0 || pipe2(up.data(), O_CLOEXEC) != 0) {
		for (const int end : {down[0], down[1], up[0], up[1]}) {
			if (end >= 0) {
				close(end);
			}
		}
		return;
	}

	// Prepared here: after the fork nothing may allocate.
	std::vector<QByteArray> arguments = browserArguments(program, profile.path());
	std::vector<QByteArray> environment = browserEnvironment(profile.path());
	const std::vector<char *> argumentPointers = pointers(arguments);
	const std::vector<char *> environmentPointers = pointers(environment);
	const pid_t parent = getpid();

	child = fork();
	if (child == 0) {
		becomeBrowser(parent, down[0], up[1], argumentPointers.data(), environmentPointers.data());
	}
	if (child > 0) {
		// Also here: whoever comes second fails, and the group exists before either goes on.
		setpgid(child, child);
	}

	close(down[0]);
	close(up[1]);
	commands = down[1];
	replies = up[0];
	fcntl(commands, F_SETFL, O_NONBLOCK);
	fcntl(replies, F_SETFL, O_NONBLOCK);
}

DevtoolsPipe::~DevtoolsPipe()
{
	// The end of the pipe tells the browser to go.
	for (const int end : {commands, replies}) {
		if (end >= 0) {
			close(end);
		}
	}
	if (child <= 0) {
		return;
	}

	const int handle = pidfd_open(child, 0);
	if (handle >= 0) {
		pollfd ended = {handle, POLLIN, 0};
		poll(&ended, 1, goodbyeMs);
		close(handle);
	}
	// Its own children go by the group; they must be gone before the profile folder is removed. The child is not
	// reaped yet, so the number cannot belong to anybody else.
	kill(-child, SIGKILL);
	waitpid(child, nullptr, 0);
}

void DevtoolsPipe::send(const QByteArray &message)
{
	outgoing += message;
	outgoing += '\0';
}

bool DevtoolsPipe::exchange(int wakeup, int timeoutMs)
{
	if (child <= 0) {
		return false;
	}
	const short writing = outgoing.isEmpty() ? 0 : POLLOUT;
	std::array<pollfd, 3> ends = {{{wakeup, POLLIN, 0}, {replies, POLLIN, 0}, {commands, writing, 0}}};
	if (poll(ends.data(), ends.size(), timeoutMs) < 0) {
		return errno == EINTR;
	}
	return writeOutgoing() && readIncoming();
}

bool DevtoolsPipe::writeOutgoing()
{
	while (!outgoing.isEmpty()) {
		const ssize_t written = write(commands, outgoing.constData(), static_cast<size_t>(outgoing.size()));
		if (written < 0) {
			return errno == EAGAIN || errno == EINTR;
		}
		outgoing.remove(0, written);
	}
	return true;
}

bool DevtoolsPipe::readIncoming()
{
	std::array<char, 65536> piece;
	for (;;) {
		const ssize_t count = read(replies, piece.data(), piece.size());
		if (count == 0) {
			return false;
		}
		if (count < 0) {
			return errno == EAGAIN || errno == EINTR;
		}
		incoming.append(piece.data(), count);
	}
}

std::optional<QByteArray> DevtoolsPipe::receive()
{
	const qsizetype end = incoming.indexOf('\0', searched);
	if (end < 0) {
		searched = incoming.size();
		return std::nullopt;
	}
	QByteArray message = incoming.left(end);
	incoming.remove(0, end + 1);
	searched = 0;
	return message;
}
