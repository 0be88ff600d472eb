// TimerTestSupport.h: a handler that records what reaches it and when, a
// running looper around it, and a way to keep that looper's queue full, for
// the tests of runners and watches.
#ifndef ZVKIT_TIMER_TEST_SUPPORT_H
#define ZVKIT_TIMER_TEST_SUPPORT_H

#include <ZvHandler.h>
#include <ZvLooper.h>
#include <ZvMessage.h>

#include <OS.h>

#include "TestSupport.h"

#include <dirent.h>

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace timer_test {

// One message as it arrived.
struct Receipt
{
	uint32 what;
	int32 id;         // field "id", or -1
	int32 descriptor; // field "_descriptor", or -1
	int32 events;     // field "_events", or 0
	bigtime_t time;   // system_time() on arrival
};

// Records every message; tests wait for a number of them with a bounded
// wait. An optional action runs for each message in the looper's thread.
class Recorder : public ZvHandler
{
public:
	Recorder() : ZvHandler("recorder") {}

	void MessageReceived(ZvMessage* message) override
	{
		Receipt receipt{message->what, -1, -1, 0, system_time()};
		message->FindInt32("id", &receipt.id);
		message->FindInt32("_descriptor", &receipt.descriptor);
		message->FindInt32("_events", &receipt.events);
		std::function<void(ZvMessage*)> action;
		{
			std::lock_guard<std::mutex> hold(fLock);
			action = fAction;
		}
		if (action)
			action(message);
		std::lock_guard<std::mutex> hold(fLock);
		fReceipts.push_back(receipt);
		fCounts[receipt.what]++;
		fChanged.notify_all();
	}

	void SetAction(std::function<void(ZvMessage*)> action)
	{
		std::lock_guard<std::mutex> hold(fLock);
		fAction = std::move(action);
	}

	// True once count messages (whose what is what, 0: any) have arrived.
	bool WaitFor(size_t count, uint32 what = 0,
	             std::chrono::milliseconds limit = std::chrono::seconds(20))
	{
		std::unique_lock<std::mutex> hold(fLock);
		return fChanged.wait_for(hold, limit, [&] { return _Count(what) >= count; });
	}

	size_t Count(uint32 what = 0) const
	{
		std::lock_guard<std::mutex> hold(fLock);
		return _Count(what);
	}

	std::vector<Receipt> Receipts() const
	{
		std::lock_guard<std::mutex> hold(fLock);
		return fReceipts;
	}

private:
	size_t _Count(uint32 what) const
	{
		if (what == 0)
			return fReceipts.size();
		const auto found = fCounts.find(what);
		return found == fCounts.end() ? 0 : found->second;
	}

	mutable std::mutex fLock;
	std::condition_variable fChanged;
	std::vector<Receipt> fReceipts;
	std::map<uint32, size_t> fCounts;
	std::function<void(ZvMessage*)> fAction;
};

// Whether this is a ThreadSanitizer build: it cannot start threads in a
// child forked from a process with threads, so the fork tests are skipped.
#if defined(__SANITIZE_THREAD__)
constexpr bool kThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
constexpr bool kThreadSanitizer = true;
#else
constexpr bool kThreadSanitizer = false;
#endif
#else
constexpr bool kThreadSanitizer = false;
#endif

// An object made by the test's thread and used, or deleted, by a handler
// in a looper's thread: a runner or a watch may post before the test's
// thread has stored it, so both sides go through one lock.
template <typename T> class Shared
{
public:
	template <typename... Args> void Make(Args&&... args)
	{
		std::lock_guard<std::mutex> hold(fLock);
		fObject = std::make_unique<T>(std::forward<Args>(args)...);
	}
	// Calls use(object) with the lock held; nothing when there is none.
	template <typename Function> void Use(Function use)
	{
		std::lock_guard<std::mutex> hold(fLock);
		if (fObject != nullptr)
			use(*fObject);
	}
	// Deletes the object (outside the lock); false when there was none.
	bool Reset()
	{
		std::unique_ptr<T> object;
		{
			std::lock_guard<std::mutex> hold(fLock);
			object = std::move(fObject);
		}
		return object != nullptr;
	}

private:
	std::mutex fLock;
	std::unique_ptr<T> fObject;
};

// How many threads of this process bear name (as /proc shows it).
inline int ThreadsNamed(const char* name)
{
	int count = 0;
	DIR* tasks = opendir("/proc/self/task");
	if (tasks == nullptr)
		return -1;
	while (dirent* task = readdir(tasks)) {
		if (task->d_name[0] == '.')
			continue;
		const std::string path = std::string("/proc/self/task/") + task->d_name + "/comm";
		if (std::FILE* file = std::fopen(path.c_str(), "r")) {
			char comm[32] = {};
			if (std::fgets(comm, sizeof(comm), file) != nullptr) {
				comm[std::strcspn(comm, "\n")] = 0;
				if (std::strcmp(comm, name) == 0)
					count++;
			}
			std::fclose(file);
		}
	}
	closedir(tasks);
	return count;
}

// A running looper whose preferred handler is a Recorder; quit by the
// destructor unless Quit was called.
class RecordingLooper
{
public:
	explicit RecordingLooper(int32 capacity = 100000)
	    : fLooper(new ZvLooper("timer test", ZV_NORMAL_PRIORITY, capacity))
	{
		fLooper->AddHandler(&fRecorder);
		fLooper->SetPreferredHandler(&fRecorder);
		fLooper->Run();
	}
	~RecordingLooper()
	{
		if (fLooper != nullptr)
			fLooper->Quit();
	}
	RecordingLooper(const RecordingLooper&) = delete;
	RecordingLooper& operator=(const RecordingLooper&) = delete;

	ZvLooper* Looper() const { return fLooper; }
	Recorder& Handler() { return fRecorder; }
	// Ends the looper (its thread deletes it); the recorder stays.
	void Quit()
	{
		fLooper->Quit();
		fLooper = nullptr;
	}

private:
	Recorder fRecorder;
	ZvLooper* fLooper;
};

// Holds looper's thread in its handler (on a message of what 1) until
// release counts down, and fills its queue behind it: looper must have been
// made with a queue bound of 1, so that a post to it then finds no room.
// False when the thread did not reach the handler in time. release must
// outlive the hold.
inline bool HoldWithAFullQueue(RecordingLooper& looper, zvtest::Latch& release)
{
	using namespace std::chrono_literals;
	auto arrived = std::make_shared<zvtest::Latch>(1);
	looper.Handler().SetAction([arrived, &release](ZvMessage* message) {
		if (message->what == 1) {
			arrived->CountDown();
			release.WaitFor(30s);
		}
	});
	looper.Looper()->PostMessage(1, nullptr);
	if (!arrived->WaitFor(10s))
		return false;
	for (int i = 0; i < 3; i++)
		looper.Looper()->PostMessage(2, nullptr);
	return true;
}

} // namespace timer_test

#endif // ZVKIT_TIMER_TEST_SUPPORT_H
