// TestSupport.h: small helpers shared by the test executables.
//
//  - OutputCapture: collects what the code under test writes to standard
//    output or standard error (file descriptor level, so printf and
//    fprintf(stderr) are both caught).
//  - Watchdog: bounds a multi-threaded test; if the test has not finished
//    when the time is up, the process is aborted with a message, so a
//    deadlock fails the test instead of hanging the run.
//  - Latch: a count-down latch with a bounded wait, to sequence threads.
#ifndef ZVKIT_TEST_SUPPORT_H
#define ZVKIT_TEST_SUPPORT_H

#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <mutex>
#include <string>
#include <thread>

#include <unistd.h>

namespace zvtest {

// Whether this build runs under AddressSanitizer or ThreadSanitizer: such
// builds run fewer rounds of the long races, and their allocators abort on
// a request they cannot meet instead of failing it.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kSanitized = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif
#else
constexpr bool kSanitized = false;
#endif

class OutputCapture
{
public:
	// fd is 1 (standard output) or 2 (standard error).
	explicit OutputCapture(int fd = 1) : fFd(fd), fStream(fd == 2 ? stderr : stdout)
	{
		std::fflush(fStream);
		fFile = std::tmpfile();
		fSaved = dup(fFd);
		dup2(fileno(fFile), fFd);
	}

	~OutputCapture() { Finish(); }

	OutputCapture(const OutputCapture&) = delete;
	OutputCapture& operator=(const OutputCapture&) = delete;

	// Restores the descriptor and returns everything written meanwhile.
	std::string Finish()
	{
		if (fFile == nullptr)
			return fText;
		std::fflush(fStream);
		dup2(fSaved, fFd);
		close(fSaved);
		std::rewind(fFile);
		char buffer[4096];
		size_t got;
		while ((got = std::fread(buffer, 1, sizeof(buffer), fFile)) > 0)
			fText.append(buffer, got);
		std::fclose(fFile);
		fFile = nullptr;
		return fText;
	}

private:
	int fFd;
	std::FILE* fStream;
	std::FILE* fFile = nullptr;
	int fSaved = -1;
	std::string fText;
};

class Watchdog
{
public:
	explicit Watchdog(std::chrono::seconds limit, const char* what = "test")
	    : fThread([this, limit, what] {
		      std::unique_lock<std::mutex> lock(fMutex);
		      if (!fDone.wait_for(lock, limit, [this] { return fFinished; })) {
			      std::fprintf(stderr, "watchdog: %s did not finish within %lld s (deadlock?)\n",
			                   what, static_cast<long long>(limit.count()));
			      std::fflush(stderr);
			      std::abort();
		      }
	      })
	{
	}

	~Watchdog()
	{
		{
			std::lock_guard<std::mutex> lock(fMutex);
			fFinished = true;
		}
		fDone.notify_all();
		fThread.join();
	}

	Watchdog(const Watchdog&) = delete;
	Watchdog& operator=(const Watchdog&) = delete;

private:
	std::mutex fMutex;
	std::condition_variable fDone;
	bool fFinished = false;
	std::thread fThread;
};

class Latch
{
public:
	explicit Latch(int count) : fCount(count) {}

	void CountDown()
	{
		std::lock_guard<std::mutex> lock(fMutex);
		if (fCount > 0 && --fCount == 0)
			fZero.notify_all();
	}

	// True when the count reached zero within the limit.
	bool WaitFor(std::chrono::milliseconds limit)
	{
		std::unique_lock<std::mutex> lock(fMutex);
		return fZero.wait_for(lock, limit, [this] { return fCount == 0; });
	}

private:
	std::mutex fMutex;
	std::condition_variable fZero;
	int fCount;
};

} // namespace zvtest

#endif // ZVKIT_TEST_SUPPORT_H
