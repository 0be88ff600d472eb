// RemoteTestSupport.h: loopers, private socket folders and child processes
// for the remote endpoint's tests.
#ifndef ZVKIT_REMOTE_TEST_SUPPORT_H
#define ZVKIT_REMOTE_TEST_SUPPORT_H

#include <ZvLooper.h>
#include <ZvMessage.h>
#include <ZvRemote.h>

#include "TestSupport.h"

#include <chrono>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include <dirent.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace remote_test {

// The whats the peer program and the tests exchange.
constexpr uint32 kEcho = 0x4543484F;     // 'ECHO': answered with a copy plus "pid"
constexpr uint32 kNote = 0x4E4F5445;     // 'NOTE': counted, not answered
constexpr uint32 kCount = 0x434E5453;    // 'CNTS': answered with "notes"
constexpr uint32 kStats = 0x53544154;    // 'STAT': answered with the counters
constexpr uint32 kIgnore = 0x49474E52;   // 'IGNR': deleted unanswered
constexpr uint32 kSequence = 0x53455120; // 'SEQ ': "sender", "seq"
constexpr uint32 kDone = 0x444F4E45;     // 'DONE': a sender's last request

// A looper whose own MessageReceived runs a function; Quit by the
// destructor (the looper deletes itself in its thread).
class FunctionLooper : public ZvLooper
{
public:
	explicit FunctionLooper(std::function<void(ZvMessage*)> function, int32 capacity = 1000)
	    : ZvLooper("remote test", ZV_NORMAL_PRIORITY, capacity), fFunction(std::move(function))
	{
	}
	void MessageReceived(ZvMessage* message) override { fFunction(message); }

private:
	std::function<void(ZvMessage*)> fFunction;
};

class RunningLooper
{
public:
	explicit RunningLooper(std::function<void(ZvMessage*)> function, int32 capacity = 1000)
	    : fLooper(new FunctionLooper(std::move(function), capacity))
	{
		fLooper->Run();
	}
	~RunningLooper() { fLooper->Quit(); }
	RunningLooper(const RunningLooper&) = delete;
	RunningLooper& operator=(const RunningLooper&) = delete;

	ZvLooperRef Ref() const { return ZvLooperRef(fLooper); }

private:
	FunctionLooper* fLooper;
};

// A private folder for ipc:// sockets, removed with what is left in it.
class SocketFolder
{
public:
	SocketFolder()
	{
		char pattern[] = "/tmp/zvremote-XXXXXX";
		const char* made = mkdtemp(pattern);
		fPath = made != nullptr ? made : "";
	}
	~SocketFolder()
	{
		if (fPath.empty())
			return;
		if (DIR* dir = opendir(fPath.c_str())) {
			while (dirent* entry = readdir(dir)) {
				const std::string name = entry->d_name;
				if (name != "." && name != "..")
					unlink((fPath + "/" + name).c_str());
			}
			closedir(dir);
		}
		rmdir(fPath.c_str());
	}
	SocketFolder(const SocketFolder&) = delete;
	SocketFolder& operator=(const SocketFolder&) = delete;

	bool IsValid() const { return !fPath.empty(); }
	std::string Address(const char* name) const { return "ipc://" + fPath + "/" + name; }

private:
	std::string fPath;
};

// The peer program, started with arguments; killed (SIGKILL) and reaped by
// the destructor if it is still there. The program also ends by itself: it
// gives up after its own watchdog time and dies with the test process.
class PeerProcess
{
public:
	explicit PeerProcess(std::initializer_list<std::string> arguments)
	{
		std::vector<std::string> words{ZVKIT_REMOTE_PEER};
		words.insert(words.end(), arguments.begin(), arguments.end());
		std::vector<char*> argv;
		for (std::string& word : words)
			argv.push_back(word.data());
		argv.push_back(nullptr);
		if (posix_spawn(&fPid, ZVKIT_REMOTE_PEER, nullptr, nullptr, argv.data(), environ) != 0)
			fPid = -1;
	}
	~PeerProcess() { Kill(); }
	PeerProcess(const PeerProcess&) = delete;
	PeerProcess& operator=(const PeerProcess&) = delete;

	pid_t Pid() const { return fPid; }
	bool IsRunning() const { return fPid > 0; }

	void Kill()
	{
		if (fPid <= 0)
			return;
		kill(fPid, SIGKILL);
		waitpid(fPid, nullptr, 0);
		fPid = -1;
	}

	// Waits at most limit for the program to end by itself; its exit code,
	// or -1 when it was killed by a signal or did not end in time (it is
	// killed then).
	int Wait(std::chrono::milliseconds limit)
	{
		if (fPid <= 0)
			return -1;
		// waitpid has no time-out: a thread waits, the test waits for it.
		zvtest::Latch ended(1);
		int status = 0;
		std::thread reaper([&] {
			waitpid(fPid, &status, 0);
			ended.CountDown();
		});
		const bool inTime = ended.WaitFor(limit);
		if (!inTime)
			kill(fPid, SIGKILL);
		reaper.join();
		fPid = -1;
		return inTime && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
	}

private:
	pid_t fPid = -1;
};

// Sends kEcho until an answer comes (the peer is up), at most limit.
inline bool WaitForAnswer(const ZvRemoteRef& ref, std::chrono::milliseconds limit, ZvMessage* reply)
{
	const auto deadline = std::chrono::steady_clock::now() + limit;
	while (std::chrono::steady_clock::now() < deadline) {
		if (ref.SendMessage(kEcho, reply, 200000) == B_OK)
			return true;
	}
	return false;
}

} // namespace remote_test

#endif // ZVKIT_REMOTE_TEST_SUPPORT_H
